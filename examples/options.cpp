// Prints an option of a file that has NAME=VALUE on each line, or changes it in the file:
//     options FILE NAME [VALUE]
// A changed file loses its comments, because the list has none.
#include <kp/kp.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

// Whether a file can hold the option and give it back as it is.
bool isStorable(const std::string& name, const std::string& value) {
    return !name.empty() && name.find_first_of("= \t\n#") == std::string::npos &&
           value.find_first_of("\n#") == std::string::npos && value.find_first_of(" \t") != 0 &&
           name.size() + value.size() < 255;
}

// Writes another file and puts it in the place of the old one, which is whole until then.
bool save(KP_NamedStringList& options, const std::string& path) {
    const std::string fresh = path + ".new";
    std::error_code fault;
    std::filesystem::copy_file(path, fresh, std::filesystem::copy_options::overwrite_existing,
                               fault);  // For its permissions.
    if (fault || options.writeFile(fresh.c_str(), '=') != 0)
        return false;
    std::filesystem::rename(fresh, path, fault);
    return !fault;
}

int fail(const char* what, const char* which) {
    std::fprintf(stderr, "options: %s %s\n", what, which);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        std::fputs("usage: options FILE NAME [VALUE]\n", stderr);
        return 2;
    }
    KP_NamedStringList options;
    options.setOwner(1);  // The values end with the list.
    if (options.readFile(argv[1], '=', " \t") != 0)
        return fail("cannot read", argv[1]);
    KP_String* value = options.findByName(argv[2]);
    if (argc == 3) {
        if (value == nullptr)
            return fail("there is no", argv[2]);
        std::printf("%s\n", static_cast<const char*>(*value));
        return 0;
    }
    if (!isStorable(argv[2], argv[3]))
        return fail("a file cannot hold such a", argv[2]);
    if (value != nullptr)
        *value = argv[3];
    else if ((value = new KP_String(argv[3])) != nullptr)
        options.append(value, argv[2]);
    return value != nullptr && save(options, argv[1]) ? 0 : fail("cannot write", argv[1]);
}
