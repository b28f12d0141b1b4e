// Any bytes as an installation file: it is read, or the process ends with a word in the log; and
// kp-capture, which reads it again while it runs, takes from it what the library took.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "control/installation.h"
#include "control/installation_file.h"
#include "kp/kp.h"
#include "support/support.h"

namespace {

class Reader : public KP_ConfigAdmin {
public:
    using KP_ConfigAdmin::readAdminConfigFile;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return setenv("KP_INSTALLDIR", "/", 1);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using kp::fuzz::require;
    static const kp::fuzz::MemoryFile file;
    file.put({reinterpret_cast<const char*>(data), size});
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(
        std::fopen(file.path().c_str(), "r"), std::fclose);
    Reader config;
    const bool isRead = !kp::fuzz::endsProcess([&] { config.readAdminConfigFile(stream.get()); });
    require(config.numOfIPRanges <= KP_Config::kMaxIPRanges);
    for (int i = 0; i < config.numOfIPRanges; ++i)
        require(config.ipRanges[i].min <= config.ipRanges[i].max);
    try {
        const auto again = kp::capture::readInstallationFile(file.path());
        if (!isRead)  // The device or the port may have been what the library ends for.
            return 0;
        require(again.ranges.size() == config.numOfIPRanges);
        for (std::size_t i = 0; i < again.ranges.size(); ++i) {
            require(again.ranges[i].min == config.ipRanges[i].min);
            require(again.ranges[i].max == config.ipRanges[i].max);
        }
    } catch (const kp::capture::InstallationError&) {
        require(!isRead);
    }
    return 0;
}
