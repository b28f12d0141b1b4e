// kp-capture: reading the installation file again while the engine runs.
#pragma once

#include <string>
#include <vector>

#include "kp/kp.h"

namespace kp::capture {

/// What an installation file says.
struct InstallationFile {
    std::string port = "default";
    std::string device = "default";
    std::string databaseDir = "default";
    std::vector<KP_Config::IPRange> ranges;
};

/// Reads it as KP_ConfigAdmin::readAdminConfigFile() does, which ends the process when the file is
/// wrong. Here a wrong file throws InstallationError, with the reason for the user. Whether the
/// port is free is not looked at: it is the engine's own.
InstallationFile readInstallationFile(const std::string& path);

}  // namespace kp::capture
