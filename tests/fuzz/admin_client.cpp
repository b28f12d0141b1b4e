// Any bytes as what a server answers kp-admin: it ends, with a result or with one of its two
// faults, and nothing that it shows does anything to a terminal.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "client.h"
#include "common/printable.h"
#include "settings_text.h"
#include "support/support.h"

namespace {

using kp::fuzz::require;

// A port of this machine that says what it is told to.
class Server {
public:
    Server() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        require(bind(listener_, generic, size) == 0 && listen(listener_, 8) == 0);
        require(getsockname(listener_, generic, &size) == 0);
        port_ = ntohs(address.sin_port);
    }
    std::uint16_t port() const { return port_; }
    int answer(const void* bytes, std::size_t size) const {
        const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        require(client >= 0);
        const ssize_t sent = send(client, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        static_cast<void>(sent);
        shutdown(client, SHUT_WR);
        return client;
    }

private:
    int listener_;
    std::uint16_t port_ = 0;
};

void show(const std::string& text) {
    for (const char c : kp::programs::printable(text))
        require(kp::programs::isPrintable(c));
}

void talk(kp::admin::Client& client, unsigned what) {
    client.logIn("root", "secret");
    for (; what != 0; what /= 4) {
        if (what % 4 == 1) {
            for (const std::string& line : client.status())
                show(line);
        } else {
            KP_Config config;
            client.readConfig(config);
            for (const std::string& line : kp::admin::describe(config))
                show(line);
            if (what % 4 == 3)
                client.writeConfig(config);
        }
    }
    client.quit();
}

}  // namespace

// The first byte says what is asked, the rest is the answer.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    static const Server server;
    kp::admin::Client client("127.0.0.1", server.port(), std::chrono::seconds(10));
    const int peer = server.answer(data + 1, size - 1);
    try {
        talk(client, data[0]);
    } catch (const kp::admin::Refused& refused) {
        show(refused.what());
    } catch (const kp::admin::Unreachable& unreachable) {
        show(unreachable.what());
    }
    // Reset, so that no run leaves a connection behind for a minute.
    const linger none{1, 0};
    setsockopt(peer, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    close(peer);
    return 0;
}
