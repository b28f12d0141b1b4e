#include "support/socket_pair.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kp::test {

SocketPair::SocketPair() {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
}

SocketPair::~SocketPair() {
    ::close(ends_[0]);
    closeTheirs();
}

void SocketPair::send(const std::string& bytes) const {
    EXPECT_EQ(::send(ends_[1], bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

void SocketPair::closeTheirs() {
    if (ends_[1] >= 0) {
        ::close(ends_[1]);
        ends_[1] = -1;
    }
}

std::string SocketPair::unread(int socket) {
    char bytes[256];
    const ssize_t length = ::recv(socket, bytes, sizeof bytes, MSG_DONTWAIT);
    return length > 0 ? std::string(bytes, static_cast<std::size_t>(length)) : std::string();
}

OwnPort::OwnPort() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    socklen_t size = sizeof any;
    auto* address = reinterpret_cast<sockaddr*>(&any);
    EXPECT_EQ(::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    EXPECT_EQ(::bind(socket_, address, size), 0);
    EXPECT_EQ(::getsockname(socket_, address, &size), 0);
    number_ = ntohs(any.sin_port);
}

OwnPort::~OwnPort() {
    ::close(socket_);
}

void OwnPort::take() const {
    EXPECT_EQ(::listen(socket_, 1), 0);
}

}  // namespace kp::test
