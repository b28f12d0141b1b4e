// libkp: what every configuration of an engine has.
#pragma once

#include <cstdint>

#include "kp/core/object.h"

/// The base of the configurations: where the data lives and where the front end connects.
/// The fields are the interface: host programs read and set them. At first they are empty and 0.
class KP_API KP_ConfigBase : public virtual KP_Object {
public:
    KP_ConfigBase() = default;
    KP_ConfigBase(const KP_ConfigBase&) = default;
    KP_ConfigBase& operator=(const KP_ConfigBase&) = default;
    ~KP_ConfigBase() override;

    /// Directory of the engine's database, as terminated text.
    char databaseDir[1024] = {};
    /// TCP port on which the engine accepts the front end.
    std::uint32_t connectionPort = 0;
    /// Version of the configuration; reading a general configuration file sets it to 1, a message
    /// of the front end to what that says.
    std::uint32_t configVersion = 0;
};
