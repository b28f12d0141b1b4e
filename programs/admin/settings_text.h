// kp-admin: an engine's configuration as KEY=VALUE texts, with the keys of kp-configure's options.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "kp/kp.h"

namespace kp::admin {

/// A text that is no change; what() is a sentence for the user.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What is to be changed.
///
/// The keys that kp-configure takes several times replace the whole list by what is given of them;
/// with an empty value the list becomes empty.
class Changes {
public:
    /// Throws UsageError for a text that is not KEY=VALUE, and for a key that cannot be set here.
    explicit Changes(const std::vector<std::string>& texts);

    /// Throws programs::SettingError or PasswordError for a value that cannot be.
    void apply(KP_Config& config) const;

    /// Whether @p key is to be changed.
    bool has(const std::string& key) const;

private:
    struct Change {
        std::string key;
        std::vector<std::string> values;
    };
    std::vector<Change> changes_;
};

/// The lines KEY=VALUE of a configuration. The password is not among them.
std::vector<std::string> describe(const KP_Config& config);

}  // namespace kp::admin
