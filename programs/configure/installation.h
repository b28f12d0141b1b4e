// Writing an installation to the disk.
#pragma once

#include <string>
#include <vector>

#include "plan.h"

namespace kp::configure {

/// Writes the installation that @p plan and @p config (filled by apply()) describe.
/// Makes the directories that are missing; each file appears whole or not at all. Returns the paths
/// of the files. Throws SettingError when a file exists and plan.force is not set, and
/// std::system_error when the disk refuses; files of before are untouched then.
std::vector<std::string> writeInstallation(const Plan& plan, KP_Config& config);

}  // namespace kp::configure
