// One program at a time changes the files of an installation.
#pragma once

#include <string>

namespace kp::programs {

/// Locks the directory of an installation's configuration files while it lives.
///
/// The lock is the system's, on the directory itself: it leaves no file behind, and goes with a
/// process that is killed. Whoever writes several files holds it alone, whoever reads them shares it.
class InstallationLock {
public:
    enum class Kind { kShared, kAlone };

    /// Waits for others, at most ten seconds. Throws std::system_error.
    InstallationLock(const std::string& directory, Kind kind);
    ~InstallationLock();
    InstallationLock(const InstallationLock&) = delete;
    InstallationLock& operator=(const InstallationLock&) = delete;

    /// What was renamed in the directory stays so after a loss of power. Throws std::system_error.
    void sync() const;

private:
    int descriptor_ = -1;
};

}  // namespace kp::programs
