// kp-admin: shows and changes the configuration of a running engine, and shows its status.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "client.h"
#include "common/command_line.h"
#include "common/password.h"
#include "common/printable.h"
#include "settings_text.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr int kUnreachable = 3;

struct Options {
    std::string host = "127.0.0.1";
    std::uint16_t port = 8189;
    std::string user = "root";
    std::string passwordFile;
    int timeout = 10;
    std::vector<std::string> changes;
    bool force = false;
    unsigned long count = 0;
};

// The library writes to standard output when a peer vanishes, so what we print has a descriptor of
// its own, and nobody's words get between the lines.
std::FILE* ownOutput() {
    const int descriptor = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (descriptor < 0 || nowhere < 0 || ::dup2(nowhere, STDOUT_FILENO) < 0)
        throw std::system_error(errno, std::generic_category(), "standard output");
    ::close(nowhere);
    std::FILE* const output = ::fdopen(descriptor, "w");
    if (output == nullptr)
        throw std::system_error(errno, std::generic_category(), "standard output");
    return output;
}

void print(std::FILE* output, const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        std::fprintf(output, "%s\n", kp::programs::printable(line).c_str());
    if (std::fflush(output) != 0 || std::ferror(output) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
}

void watch(kp::admin::Client& client, std::FILE* output, unsigned long count) {
    for (unsigned long i = 0; count == 0 || i < count; ++i) {
        if (i != 0)
            KP_Tools::sleep(1);
        char time[32] = "";
        const std::time_t now = std::time(nullptr);
        std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
        std::vector<std::string> lines = client.status();
        lines.insert(lines.begin(), time);
        lines.emplace_back();
        print(output, lines);
    }
}

// The engine tells the address that it sees us at: there may be a translator in between.
void refuseLockOut(kp::admin::Client& client, KP_Config& config) {
    const std::string key = "client_address=";
    for (const std::string& line : client.status()) {
        in_addr address{};
        if (line.compare(0, key.size(), key) != 0 ||
            ::inet_pton(AF_INET, line.c_str() + key.size(), &address) != 1)
            continue;
        if (config.isValidSourceIP(ntohl(address.s_addr)) == 0) {
            throw kp::admin::Refused(
                "refused: these networks would shut out this client, which the engine sees at " +
                line.substr(key.size()) + "; --force sets them all the same");
        }
    }
}

void addOptions(CLI::App& app, Options& options) {
    app.add_option("--host", options.host, "Host of the engine")
        ->capture_default_str()
        ->type_name("HOST");
    app.add_option("--port", options.port, "Port of its front end")
        ->capture_default_str()
        ->type_name("PORT");
    app.add_option("--user", options.user, "Name of the administrator")
        ->capture_default_str()
        ->type_name("USER");
    app.add_option("--password-file", options.passwordFile,
                   "File whose first line is the password\n(default: ask at the terminal)")
        ->type_name("FILE");
    app.add_option("--timeout", options.timeout, "Seconds that an answer may take")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str()
        ->type_name("SECONDS");
    app.footer(
        "Exit status: 0 done, 1 refused or failed, 2 wrong command line, 3 the engine cannot be\n"
        "reached, did not answer in time or closed the connection.");
    app.require_subcommand(1);
    app.fallthrough();
    app.add_subcommand("show", "Shows the configuration as KEY=VALUE lines, without the password");
    CLI::App* const set = app.add_subcommand("set", "Changes the configuration");
    set->add_option("CHANGE", options.changes,
                    "filter=TEXT, days=N, mime=TYPE=EXT,EXT, network=ADDRESS/BITS or\n"
                    "network=ADDRESS/MASK, password-file=FILE. mime and network may come\n"
                    "several times and replace the whole list; mime= and network= empty it,\n"
                    "and without networks every address may administer. Networks that\n"
                    "would shut out this client are refused (--force). Device and port\n"
                    "can only be changed by kp-configure and a restart.")
        ->required()
        ->type_name("");
    set->add_flag("--force", options.force,
                  "Set networks that shut out the address of this client, too");
    app.add_subcommand("status", "Shows the status");
    CLI::App* const watch = app.add_subcommand("watch", "Shows the status every second");
    watch->add_option("--count", options.count, "Number of times (default: for ever)")
        ->type_name("N");
}

int run(const CLI::App& app, const Options& options) {
    const kp::admin::Changes changes(options.changes);
    const std::string password =
        options.passwordFile.empty()
            ? kp::programs::askPassword("Password of " + options.user + " on " + options.host,
                                        false)
            : kp::programs::passwordFromFile(options.passwordFile);
    std::FILE* const output = ownOutput();
    kp::admin::Client client(options.host, options.port, std::chrono::seconds(options.timeout));
    client.logIn(options.user, password);
    if (app.got_subcommand("status")) {
        print(output, client.status());
    } else if (app.got_subcommand("watch")) {
        watch(client, output, options.count);
    } else {
        KP_Config config;
        client.readConfig(config);
        if (app.got_subcommand("set")) {
            changes.apply(config);
            if (changes.has("network") && !options.force)
                refuseLockOut(client, config);
            client.writeConfig(config);
        } else {
            print(output, kp::admin::describe(config));
        }
    }
    client.quit();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Administers a running kp-capture through its front end.", "kp-admin");
    Options options;
    addOptions(app, options);
    if (const auto status = kp::programs::readCommandLine(app, argc, argv))
        return *status;
    // What the engine says of a refusal is in it, too.
    const auto complain = [](const std::exception& error, int status) {
        std::fprintf(stderr, "kp-admin: %s\n", kp::programs::printable(error.what()).c_str());
        return status;
    };
    try {
        return run(app, options);
    } catch (const kp::admin::UsageError& error) {
        return complain(error, kUsage);
    } catch (const kp::admin::Unreachable& error) {
        return complain(error, kUnreachable);
    } catch (const std::exception& error) {
        return complain(error, kFailure);
    }
}
