// kp-capture: starting from an installation directory, with every failure told to the user.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "kp/kp.h"

namespace kp::capture {

/// Something that the library would end the process for without a word; what() is for the user.
class InstallationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct EngineReleaser {
    void operator()(KP_EngineMgr* engine) const { engine->release(); }
};
using EnginePointer = std::unique_ptr<KP_EngineMgr, EngineReleaser>;

/// Makes the engine manager, which opens the log, and loads its two configurations.
///
/// @p directory is exported as KP_INSTALLDIR; when it is empty the library finds the directory by
/// itself. The library ends the process with status 1 when the installation is not in order, and later
/// when it cannot go on, and tells why in the log only; here the reason is written to standard error
/// as well, until installationEnds(). A general configuration file that the library would misread
/// is refused. Throws InstallationError. Called once, before there are other threads.
EnginePointer startInstallation(const std::string& directory, const std::string& name,
                                bool isVerbose);

/// An end of the process from here on is ours, and needs no report.
void installationEnds();

/// The administrator configuration of an engine.
KP_ConfigAdmin& configurationOf(KP_EngineMgr& engine);

}  // namespace kp::capture
