// libkp: the configuration that an engine runs by.
#pragma once

#include <cstdio>

#include "kp/config/config.h"

/// The administrator configuration: a general configuration file and the installation file.
///
/// The installation file `admin/<name>Install.cfg` is keyed text (KP_Tools::readConfig()):
///
///     port    decimal TCP port from 255 to 65535; absent or "default": 8189
///     device  name of the Ethernet device; absent or "default": the empty name
///     dbpath  database directory; absent or "default": "db" in the installation directory
///     range   lowest and highest address of a watched range, a space between them; any number of
///             lines up to 64; absent: nothing is watched; "default": a fault
///
/// Faults end the process as those of a general file do (KP_Config). A port, device or dbpath of
/// more than 127 characters and a 65th range are faults: nothing is cut to something that was not
/// meant. 255.255.255.255 is no bound.
class KP_API KP_ConfigAdmin : public KP_Config {
public:
    KP_ConfigAdmin() = default;
    KP_ConfigAdmin(const KP_ConfigAdmin&) = default;
    KP_ConfigAdmin& operator=(const KP_ConfigAdmin&) = default;
    ~KP_ConfigAdmin() override;

    /// Reads `admin/<name>_prvt.cfg` and then the installation file, and checks against the machine
    /// what the latter says: the database directory exists, the port is free. A process that itself
    /// listens on the port finds it taken. Returns 0; a fault ends the process.
    int init() override;
    /// The second half of init(): reads an installation file from @p file, which is open and stays
    /// the caller's, and checks it. Sets port, device, database directory and ranges; returns 0.
    virtual int readAdminConfigFile(std::FILE* file);

    /// A new configuration with an empty name, on which init() has run ("_prvt.cfg" and
    /// "Install.cfg"); null when memory runs out. For another name use `new`, setName() and init().
    static KP_ConfigAdmin* create();
};
