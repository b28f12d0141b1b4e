#include <cstdint>

#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"
#include "wire/socket_error.h"

namespace {

// Logs the last socket error behind @p what.
void logFailure(const char* what) {
    KP_Log::ret("%s: %s", what, kp::detail::socketErrorText(kp::platform::lastSocketError()));
}

}  // namespace

int KP_Tools::testSocket(int port) {
    const int socket = kp::platform::createTcpSocket();
    if (socket < 0) {
        logFailure("socket");
        return 0;
    }
    bool bound = false;
    if (kp::platform::setReuseAddress(socket) != 0) {
        logFailure("can't set SO_REUSEADDR");
    } else if (kp::platform::bindToPort(socket, static_cast<std::uint16_t>(port)) != 0) {
        logFailure("bind");
    } else {
        bound = true;
    }
    kp::platform::closeSocket(socket);
    return bound ? 1 : 0;
}
