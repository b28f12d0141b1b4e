// kp-configure: makes an installation for kp-capture.
#include <filesystem>
#include <iostream>

#include "common/command_line.h"
#include "common/password.h"
#include "common/printable.h"
#include "installation.h"
#include "plan.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

void addOptions(CLI::App& app, kp::configure::Plan& plan, std::string& passwordFile) {
    app.add_option("--dir", plan.directory, "Installation directory; made when missing")
        ->envname("KP_INSTALLDIR")
        ->type_name("DIR");
    app.add_option("--name", plan.name, "Name of the engine, prefix of its files")
        ->capture_default_str()
        ->type_name("NAME");
    app.add_option("--port", plan.port, "TCP port for the front end, 255 to 65535")
        ->capture_default_str()
        ->type_name("PORT");
    app.add_option("--device", plan.device, "Network device to watch")->type_name("DEV");
    app.add_option("--dbpath", plan.databasePath,
                   "Database directory; made when missing\n(default: db in the installation)")
        ->type_name("DIR");
    app.add_option("--range", plan.ranges,
                   "Watched addresses, LOW-HIGH or A.B.C.D/BITS; repeatable, at most 64")
        ->allow_extra_args(false)
        ->type_name("RANGE");
    app.add_option("--filter", plan.filter, "Packet filter in BPF syntax")->type_name("FILTER");
    app.add_option("--days", plan.days, "Days of data to keep")
        ->capture_default_str()
        ->type_name("N");
    app.add_option("--mime", plan.mimeTypes,
                   "File extensions of a MIME type, TYPE=EXT,EXT; repeatable")
        ->allow_extra_args(false)
        ->type_name("TYPE=EXT");
    app.add_option("--network", plan.networks,
                   "Network from which administration is allowed, ADDRESS/MASK or\n"
                   "ADDRESS/BITS; repeatable, at most 5 (default: from this machine,\n"
                   "127.0.0.0/8; 0.0.0.0/0 is from everywhere)")
        ->allow_extra_args(false)
        ->type_name("NETWORK");
    app.add_option("--password-file", passwordFile,
                   "File whose first line is the administrator's password\n"
                   "(default: ask at the terminal)")
        ->type_name("FILE");
    app.add_flag("--force", plan.force, "Overwrite an existing installation");
    app.footer("Exit status: 0 written, 1 refused or failed, 2 wrong command line.");
}

// What the library will see from other working directories.
void makeAbsolute(std::string& path) {
    if (!path.empty()) {
        path = std::filesystem::absolute(path).lexically_normal().string();
        while (path.size() > 1 && path.back() == '/') {
            path.pop_back();
        }
    }
}

int run(kp::configure::Plan& plan, const std::string& passwordFile) {
    if (plan.directory.empty()) {
        std::cerr
            << "kp-configure: no installation directory; give --dir DIR or set KP_INSTALLDIR\n";
        return kUsage;
    }
    makeAbsolute(plan.directory);
    makeAbsolute(plan.databasePath);
    plan.password = passwordFile.empty()
                        ? kp::programs::askPassword("Password of the administrator", true)
                        : kp::programs::passwordFromFile(passwordFile);
    const bool isLoopbackOnly = plan.networks.empty();
    if (isLoopbackOnly)
        plan.networks = {"127.0.0.0/8"};
    KP_Config config;
    kp::configure::apply(plan, config);
    for (const std::string& path : kp::configure::writeInstallation(plan, config)) {
        std::cout << "wrote " << path << "\n";
    }
    if (isLoopbackOnly) {
        std::cout << "note: no --network was given, so only this machine may administer\n";
    }
    if (plan.ranges.empty()) {
        std::cout << "note: no --range was given, so nothing will be watched\n";
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Makes an installation for kp-capture: its configuration files, logs/ and db/.",
                 "kp-configure");
    kp::configure::Plan plan;
    std::string passwordFile;
    addOptions(app, plan, passwordFile);
    if (const auto status = kp::programs::readCommandLine(app, argc, argv)) {
        return *status;
    }
    try {
        return run(plan, passwordFile);
    } catch (const std::exception& error) {
        std::cerr << "kp-configure: " << kp::programs::printable(error.what()) << "\n";
        return kFailure;
    }
}
