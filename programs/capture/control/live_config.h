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

/// Paths of the general configuration file of an installation, of its last good state, and of the
/// installation file.
std::string generalFile(const std::string& name);
std::string keptFile(const std::string& name);
std::string installationFile(const std::string& name);

/// Gives every stage the configuration in force, and takes changed ones: from the front end, and
/// from the installation file.
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

    /// Checks @p wanted, keeps the last good file, saves, and puts it in force; the ranges stay those
    /// in force. Returns why it was refused, and then nothing has changed; empty when it was taken.
    /// The log gets who it was, @p client, and what has changed.
    std::string change(const KP_ConfigAdmin& wanted, const std::string& client);

    /// Reads the installation file again and puts its ranges in force; what else it says is for the
    /// next start. A file that is wrong changes nothing. The log says what has changed, or why not.
    void reload();
    /// What became of the last reload(), for the user; empty before the first.
    std::string reloaded() const;

private:
    std::string refusal(const KP_ConfigAdmin& wanted) const;
    std::string takeRanges();
    void putInForce(const std::shared_ptr<KP_ConfigAdmin>& next);

    KP_ConfigAdmin& config_;  // the engine's; what the next start would read
    const std::function<void()> changed_;
    std::atomic<int> linkType_;
    std::mutex changing_;
    mutable std::mutex mutex_;
    std::shared_ptr<KP_ConfigAdmin> current_;
    std::string reloaded_;
};

}  // namespace kp::capture
