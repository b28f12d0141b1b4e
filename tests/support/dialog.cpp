#include "support/dialog.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace kp::test {

namespace {

sockaddr_in addressOf(const char* text, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    ::inet_pton(AF_INET, text, &address.sin_addr);
    return address;
}

template <class Address>
const sockaddr* generic(const Address& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace

Dialog::Dialog(int port, const char* from) {
    const sockaddr_in ours = addressOf(from, 0);
    const sockaddr_in theirs = addressOf("127.0.0.1", port);
    std::string fault;
    for (int tries = 0; tries < 12000; ++tries) {
        socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const timeval limit{120, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (::bind(socket_, generic(ours), sizeof ours) == 0 &&
            ::connect(socket_, generic(theirs), sizeof theirs) == 0) {
            return;
        }
        fault = std::strerror(errno);
        ::close(socket_);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("nobody listens: " + fault);
}

Dialog::~Dialog() {
    ::close(socket_);
}

bool Dialog::send(const std::string& bytes) const {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t part =
            ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (part <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(part);
    }
    return true;
}

void Dialog::sendWithoutWaiting(const std::string& bytes) const {
    if (::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
        return;
    }
}

std::string Dialog::receive(std::size_t count) const {
    std::string bytes(count, '\0');
    std::size_t received = 0;
    while (received < count) {
        const ssize_t part = ::recv(socket_, &bytes[received], count - received, 0);
        if (part <= 0) {
            break;
        }
        received += static_cast<std::size_t>(part);
    }
    bytes.resize(received);
    return bytes;
}

std::string bigEndian(unsigned long value, int bytes) {
    std::string result;
    for (int i = bytes - 1; i >= 0; --i) {
        result += static_cast<char>(i < 8 ? value >> (8 * i) & 0xFF : 0);
    }
    return result;
}

}  // namespace kp::test
