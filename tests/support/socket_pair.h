// Sockets for tests: a connected pair, and a TCP port of our own.
#pragma once

#include <string>

namespace kp::test {

/// Two connected sockets: ours for the library, theirs for the peer that the test plays.
class SocketPair {
public:
    SocketPair();
    ~SocketPair();
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    int ours() const { return ends_[0]; }
    int theirs() const { return ends_[1]; }
    /// The peer sends @p bytes.
    void send(const std::string& bytes) const;
    /// The peer goes. What it has not read makes a failure of ours, behind what it had sent.
    void closeTheirs();
    /// What lies unread at the end @p socket, without waiting for more.
    static std::string unread(int socket);

private:
    int ends_[2] = {-1, -1};
};

/// A port that nobody else gets while this lives. Bound, but not listening, it is still free to
/// whoever binds with SO_REUSEADDR; take() makes it a port in use.
class OwnPort {
public:
    OwnPort();
    ~OwnPort();
    OwnPort(const OwnPort&) = delete;
    OwnPort& operator=(const OwnPort&) = delete;

    int number() const { return number_; }
    void take() const;
    int socket() const { return socket_; }

private:
    int socket_ = -1;
    int number_ = 0;
};

}  // namespace kp::test
