// libkp: the configuration that an engine can be set back to.
#pragma once

#include "kp/config/config.h"

/// The default configuration: a general configuration file of its own, and no installation file.
/// Its database directory, device, port and ranges stay empty. save() does not write its own file
/// but that of the KP_ConfigAdmin of the same name: so an engine is set back, from its next start
/// on.
class KP_API KP_ConfigDef : public KP_Config {
public:
    KP_ConfigDef() = default;
    KP_ConfigDef(const KP_ConfigDef&) = default;
    KP_ConfigDef& operator=(const KP_ConfigDef&) = default;
    ~KP_ConfigDef() override;

    /// Reads `admin/<name>_prvtDef.cfg`; returns 0. Faults end the process (KP_Config).
    int init() override;

    /// A new configuration with an empty name, on which init() has run ("_prvtDef.cfg"); null when
    /// memory runs out. For another name use `new`, setName() and init().
    static KP_ConfigDef* create();
};
