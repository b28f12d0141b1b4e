// kp-capture: watches web traffic on a device or in a capture file.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "common/printable.h"
#include "control/installation.h"
#include "control/signals.h"
#include "engine.h"
#include "options.h"

namespace kp::capture {
namespace {

// A standard stream that whoever started us has closed must not become the log or the capture: the
// place is taken by something that cannot be written.
void fillStandardStreams() {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0)
            open("/dev/null", O_RDONLY);
    }
}

// What is to be said when no address ranges are configured; null when that changes nothing.
const char* warningWithoutRanges(const Options& options) {
    if (!options.print || !options.all) {
        return "no address ranges are configured, nothing is watched; "
               "--print --all prints all transactions";
    }
    return options.isRecorded() ? "no address ranges are configured, nothing is recorded" : nullptr;
}

int run(const Options& options) {
    holdSignals();
    fillStandardStreams();
    const EnginePointer engine =
        startInstallation(options.directory, options.name, options.verbose);
    const char* const warning = warningWithoutRanges(options);
    if (configurationOf(*engine).numOfIPRanges == 0 && warning != nullptr)
        std::fprintf(stderr, "kp-capture: warning: %s\n", warning);
    // The library writes to standard output when a peer vanishes. Lines have a descriptor of their
    // own, so that nothing gets between them.
    const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (output < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        std::perror("kp-capture: standard output");
        return 1;
    }
    const int status = runEngine(*engine, options, output);
    close(output);
    return status;
}

}  // namespace
}  // namespace kp::capture

int main(int argc, char** argv) {
    int result = 1;
    try {
        kp::capture::Options options;
        if (const auto status = kp::capture::readOptions(argc, argv, options))
            return *status;
        result = kp::capture::run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kp-capture: %s\n", kp::programs::printable(error.what()).c_str());
    }
    kp::capture::installationEnds();
    return result;
}
