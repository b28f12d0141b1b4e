// The settings of a configuration as people write them, checked: whatever the library would refuse
// is refused here.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "kp/kp.h"

namespace kp::programs {

/// A setting that cannot be; what() is a sentence for the user.
class SettingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// All of these throw SettingError, and then leave the configuration as it was or without the
// entries that they set.

/// Refuses a text that its place in a file cannot hold; @p what names it in the sentence.
void checkText(const std::string& what, const std::string& text, std::size_t longest);

/// The range LOW-HIGH or A.B.C.D/BITS.
KP_Config::IPRange parseRange(const std::string& text);
/// Each LOW-HIGH or A.B.C.D/BITS; at most 64.
void setRanges(KP_Config& config, const std::vector<std::string>& texts);
/// Whether it is a filter program is not looked at.
void setFilter(KP_Config& config, const std::string& filter);
void setDays(KP_Config& config, std::uint32_t days);
/// Each TYPE=EXT,EXT.
void setMimeTypes(KP_Config& config, const std::vector<std::string>& texts);
/// Each ADDRESS/MASK or ADDRESS/BITS; at most 5. None: administration from everywhere.
void setNetworks(KP_Config& config, const std::vector<std::string>& texts);
void setPassword(KP_Config& config, const std::string& password);

}  // namespace kp::programs
