// Any bytes as a general configuration file: what our check accepts, the library reads without
// ending the process, and what it takes for the password stands in the file as one.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "common/general_file.h"
#include "kp/kp.h"
#include "support/support.h"

namespace {

class Reader : public KP_ConfigDef {
public:
    using KP_Config::readGeneralConfigFile;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::istringstream stream(text);
    const std::string fault = kp::programs::generalFileFault(stream);
    for (const char c : fault)
        kp::fuzz::require(c >= 0x20 && c < 0x7F);

    const kp::fuzz::File file = kp::fuzz::fileOf(text);
    Reader config;
    const bool isRead = !kp::fuzz::endsProcess([&] { config.readGeneralConfigFile(file.get()); });
    if (!fault.empty())
        return 0;
    kp::fuzz::require(isRead && config.password[0] != '\0');
    kp::fuzz::require(config.numOfNets <= KP_Config::kMaxNets);
    const std::string line = "\npassword{" + std::string(config.password) + "}";
    kp::fuzz::require(text.find(line) != std::string::npos);
    return 0;
}
