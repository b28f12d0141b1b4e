// Writing an installation to the disk.
#pragma once

#include <string>
#include <vector>

#include "plan.h"

namespace kp::configure {

/// Writes the installation that @p plan and @p config (filled by apply()) describe.
/// Makes the directories that are missing. All files are replaced, or none, and by one writer at a
/// time. Returns the paths of the files. Throws SettingError when a file exists and plan.force is
/// not set, and std::runtime_error when the disk refuses; the files of before are as they were then.
std::vector<std::string> writeInstallation(const Plan& plan, KP_Config& config);

}  // namespace kp::configure
