// libkp: the configuration that an engine can be set back to.
#pragma once

#include "kp/config/config.h"

/// The default configuration: a general configuration file of its own, and no installation file.
/// Its database directory, device, port and ranges stay empty.
class KP_API KP_ConfigDef : public KP_Config {
public:
    KP_ConfigDef() = default;
    KP_ConfigDef(const KP_ConfigDef&) = default;
    KP_ConfigDef& operator=(const KP_ConfigDef&) = default;
    ~KP_ConfigDef() override;

    /// Reads `admin/<name>_prvtDef.cfg`; returns 0. Faults end the process.
    int init() override;

    /// A new configuration with an empty name, on which init() has run ("_prvtDef.cfg"); null when
    /// memory runs out.
    static KP_ConfigDef* create();
};
