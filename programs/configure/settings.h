// What an installation is to be like, checked: whatever the library would refuse is refused here.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "kp/kp.h"

namespace kp::configure {

/// A setting that cannot be; what() is a sentence for the user.
class SettingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The settings as they were given on the command line.
struct Settings {
    std::string directory;
    std::string name = "kp-capture";
    std::uint32_t port = 8189;
    std::string device;
    std::string databasePath;
    std::vector<std::string> ranges;
    std::string filter;
    std::uint32_t days = 7;
    std::vector<std::string> mimeTypes;
    std::vector<std::string> networks;
    std::string password;
    bool force = false;
};

/// The range LOW-HIGH or A.B.C.D/BITS. Throws SettingError.
KP_Config::IPRange parseRange(const std::string& text);

/// Fills in the fields of @p config that the general configuration file holds, and its ranges.
/// Checks everything, also what only the installation file holds. Throws SettingError.
void apply(const Settings& settings, KP_Config& config);

}  // namespace kp::configure
