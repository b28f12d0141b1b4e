// Any bytes as an installation file: it is read, or the process ends with a word in the log.
#include <cstddef>
#include <cstdint>

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
    const kp::fuzz::File file = kp::fuzz::fileOf({reinterpret_cast<const char*>(data), size});
    Reader config;
    kp::fuzz::endsProcess([&] { config.readAdminConfigFile(file.get()); });
    kp::fuzz::require(config.numOfIPRanges <= KP_Config::kMaxIPRanges);
    for (int i = 0; i < config.numOfIPRanges; ++i)
        kp::fuzz::require(config.ipRanges[i].min <= config.ipRanges[i].max);
    return 0;
}
