// The list instances that the library uses, and the named string list's file.
#include <cstdio>
#include <cstring>
#include <memory>

#include "kp/core/compare.h"
#include "kp/text/named_string_list.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"

template class KP_Link<KP_Object>;
template class KP_List<KP_Object>;
template class KP_NamedLink<KP_String>;
template class KP_List<KP_String>;
template class KP_NamedList<KP_String>;

namespace {

constexpr int kLine = 256;

// Cuts a line of the file into its name and its value; false when it has none.
bool cutEntry(char* line, char separator, char** name, char** value) {
    line[std::strcspn(line, "\n")] = '\0';
    line[std::strcspn(line, "#")] = '\0';
    char* const found = std::strchr(line, separator);
    if (separator == '\0' || found == nullptr) {
        return false;
    }
    *found = '\0';
    *name = line;
    *value = found + 1;
    if (**value == ' ' || **value == '\t') {
        KP_Tools::squeeze(*value, nullptr, 1, " \t");
    }
    return true;
}

// Appends an entry. A value that there is no memory for is missing from it; its name stands.
void appendEntry(KP_NamedStringList& list, const char* name, const char* text) {
    auto* value = new KP_String(text, 0);
    try {
        list.append(value, name);
    } catch (...) {
        if (value != nullptr) {
            value->release();
        }
        throw;
    }
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

int kp::detail::compareEntriesByName(const void* first, const void* second) {
    return compareObjects(*static_cast<KP_Object* const*>(first),
                          *static_cast<KP_Object* const*>(second), 1);
}

KP_NamedStringList::~KP_NamedStringList() = default;

int KP_NamedStringList::readFile(const char* path, char separator, const char* squeezeSet) {
    const File file(kp::platform::openFile(path, "r"));
    if (file == nullptr) {
        return -1;
    }
    char line[kLine];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        char* name = nullptr;
        char* value = nullptr;
        if (!cutEntry(line, separator, &name, &value)) {
            continue;
        }
        if (squeezeSet != nullptr) {
            KP_Tools::squeeze(name, nullptr, 0, squeezeSet);
        }
        appendEntry(*this, name, value);
    }
    return 0;
}

int KP_NamedStringList::writeFile(const char* path, char separator) {
    File file(kp::platform::openFile(path, "w"));
    if (file == nullptr) {
        return -1;
    }
    const std::lock_guard<KP_Mutex> guard(*this);
    for (const KP_String* value = first(); value != nullptr; value = next()) {
        std::fprintf(file.get(), "%s%c%s\n", getCurrentName(), separator,
                     static_cast<const char*>(*value));
    }
    const bool isBad = std::ferror(file.get()) != 0;
    // Closed before the lock is given up: whoever takes it next finds the file whole.
    return std::fclose(file.release()) != 0 || isBad ? -1 : 0;
}
