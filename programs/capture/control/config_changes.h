// kp-capture: what is different between two configurations, in words.
#pragma once

#include <string>

#include "kp/config/config.h"

namespace kp::capture {

/// What makes @p now another configuration than @p before, for the log: "days=30 instead of 7,
/// password changed". The password itself is never in it. "nothing" when both say the same.
std::string changesBetween(const KP_Config& before, const KP_Config& now);

}  // namespace kp::capture
