// kp-capture: the configuration while the engine runs and the front end changes it.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "kp/kp.h"

namespace kp::capture {

/// Message to the stages: LiveConfig::current() has changed.
constexpr const char* kConfigurationChanged = "configuration";
/// Message to the stages: a new local day has begun.
constexpr const char* kDayBegan = "reset";
/// Message to the stages: come to an end.
constexpr const char* kShutdown = "shutdown";

/// Path of the general configuration file of an installation, and of its last good state.
std::string generalFile(const std::string& name);
std::string keptFile(const std::string& name);

/// Gives every stage the configuration in force, and takes changed ones from the front end.
///
/// What current() gave never changes: a change makes a new object, one change at a time.
/// The file is replaced by one that is whole, so that a process that is killed leaves the old or
/// the new one.
/// Threads: any.
class LiveConfig {
public:
    /// @p config is the engine's and must outlive this; @p changed is called after each change, on
    /// the thread that made it.
    LiveConfig(KP_ConfigAdmin& config, std::function<void()> changed);

    /// Filters have to be ones for links of this type (libpcap's DLT_ number) from now on; Ethernet
    /// before.
    void setLinkType(int linkType) { linkType_ = linkType; }

    std::shared_ptr<KP_ConfigAdmin> current() const;

    /// Checks @p wanted, keeps the last good file, saves, and puts it in force. Returns why it was
    /// refused, and then nothing has changed; empty when it was taken.
    std::string change(const KP_ConfigAdmin& wanted);

private:
    std::string refusal(const KP_ConfigAdmin& wanted) const;

    KP_ConfigAdmin& config_;  // the engine's; what the next start would read
    const std::function<void()> changed_;
    std::atomic<int> linkType_;
    std::mutex changing_;
    mutable std::mutex mutex_;
    std::shared_ptr<KP_ConfigAdmin> current_;
};

}  // namespace kp::capture
