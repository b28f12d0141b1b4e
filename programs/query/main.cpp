// kp-query: queries the records of kp-capture.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "common/printable.h"
#include "kp/kp.h"
#include "options.h"
#include "questions.h"

namespace kp::query {
namespace {

bool isDirectory(const std::string& path) {
    std::error_code none;
    return std::filesystem::is_directory(path, none);
}

// The directory of the day files as the installation file names it. The configuration itself is not
// loaded: that ends the process when the port is taken, as it is by a running engine.
std::string databaseOf(const Options& options) {
    if (options.directory.empty())
        throw std::runtime_error(
            "no installation directory; give --dir DIR or --db DIR, or set KP_INSTALLDIR");
    const std::string path = options.directory + "/admin/" + options.name + "Install.cfg";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        KP_Tools::openFile(path.c_str(), "r"), std::fclose);
    if (!file)
        throw std::runtime_error(path + ": cannot be read; kp-configure makes an installation");
    KP_Tools::Configuration table[] = {{"dbpath", "default", nullptr}, {nullptr, "", nullptr}};
    KP_Tools::readConfig(file.get(), table, nullptr);
    const std::string value = table[0].value;
    return value == "default" ? options.directory + "/db" : value;
}

bool run(const Options& options) {
    const std::string directory = options.database.empty() ? databaseOf(options) : options.database;
    if (!isDirectory(directory))
        throw std::runtime_error(directory + ": no such directory");
    switch (options.question) {
        case Options::Question::kList:
            return list(directory, options, stdout);
        case Options::Question::kTop:
            return top(directory, options, stdout);
        case Options::Question::kTotals:
            return totals(directory, options, stdout);
    }
    return false;
}

}  // namespace
}  // namespace kp::query

int main(int argc, char** argv) {
    try {
        kp::query::Options options;
        if (const auto status = kp::query::readOptions(argc, argv, options))
            return *status;
        return kp::query::run(options) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kp-query: %s\n", kp::programs::printable(error.what()).c_str());
        return 1;
    }
}
