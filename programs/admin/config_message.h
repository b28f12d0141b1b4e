// kp-admin: the configuration on the wire, as the front end's side of it has to be.
//
// The message is the same in both directions but for applyNetAddress, which an engine sends as two
// bytes and wants back as one; KP_Config::writeJ() and readJ() are the engine's side.
#pragma once

#include "kp/kp.h"

namespace kp::admin {

/// Receives what KP_Config::writeJ() sends, netAddress computed. False when the connection fails or
/// the message is none; @p config may be half changed then.
bool receiveConfig(int socket, KP_Config& config);

/// Sends what KP_Config::readJ() receives. False when the connection fails.
bool sendConfig(int socket, const KP_Config& config);

}  // namespace kp::admin
