// What an installation is to be like.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kp/kp.h"

namespace kp::configure {

/// An installation as it was asked for on the command line.
struct Plan {
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

/// Fills in the fields of @p config that the general configuration file holds, and its ranges.
/// Checks everything, also what only the installation file holds. Throws programs::SettingError.
void apply(const Plan& plan, KP_Config& config);

}  // namespace kp::configure
