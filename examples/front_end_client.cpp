// Logs in to a running kp-capture --serve and prints its status:
//     front_end_client HOST PORT PASSWORD
// A program for everyday use asks for the password: other users of the machine see command lines.
#include <kp/kp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

bool sendText(int peer, const std::string& text) {
    const int size = static_cast<int>(text.size());
    return writeJ_n_chars(peer, text.data(), size) == size;
}

// The whole conversation; what went wrong, or null.
const char* talk(int peer, const std::string& password) {
    timeval patience{};
    patience.tv_sec = 60;
    ::setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    unsigned char answer = 0;
    if (!sendText(peer, "root\n" + password + "\n") || readJ_UInt8(peer, &answer) != 0)
        return "no answer to the login";
    if (answer != 1)
        return "the engine refuses the password";
    unsigned short lines = 0;
    if (!sendText(peer, "GET_STATUS\n") || readJ_UInt8(peer, &answer) != 0 || answer != 1 ||
        readJ_UInt16(peer, &lines) != 0)
        return "the engine does not tell its status";
    for (char line[4096]; lines > 0; --lines) {
        if (readJ_line(peer, line, sizeof line) <= 0)  // No line of a status is empty.
            return "the status is cut off";
        std::puts(line);
    }
    sendText(peer, "QUIT\n");  // All that matters is here, whoever has gone.
    return nullptr;
}

int fail(const char* why) {
    std::fprintf(stderr, "front_end_client: %s\n", why);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: front_end_client HOST PORT PASSWORD\n", stderr);
        return 2;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int unknown = ::getaddrinfo(argv[1], argv[2], &hints, &found);
    if (unknown != 0)
        return fail(::gai_strerror(unknown));
    const int peer = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;  // Each value is a send of its own; without this some wait 40 ms.
    ::setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const bool isConnected = peer >= 0 && ::connect(peer, found->ai_addr, found->ai_addrlen) == 0;
    const char* const fault = isConnected ? talk(peer, argv[3]) : std::strerror(errno);
    ::freeaddrinfo(found);
    ::close(peer);
    return fault == nullptr ? 0 : fail(fault);
}
