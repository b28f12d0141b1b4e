// A client of a front end, byte by byte.
#pragma once

#include <string>

namespace kp::test {

/// A TCP connection to a port of this machine.
class Dialog {
public:
    /// Connects from the address @p from; waits for somebody to listen, at most two minutes.
    explicit Dialog(int port, const char* from = "127.0.0.1");
    ~Dialog();
    Dialog(const Dialog&) = delete;
    Dialog& operator=(const Dialog&) = delete;

    /// Sends @p bytes; false when the peer has gone.
    bool send(const std::string& bytes) const;
    /// Sends what the peer takes of @p bytes without being waited for.
    void sendWithoutWaiting(const std::string& bytes) const;
    /// The next @p count bytes; fewer when the peer has closed, or is silent for two minutes.
    std::string receive(std::size_t count) const;
    /// Whether the peer closes next.
    bool isClosed() const { return receive(1).empty(); }

private:
    int socket_ = -1;
};

/// @p value as the front end's messages have it: so many bytes, the most significant one first.
std::string bigEndian(unsigned long value, int bytes);

}  // namespace kp::test
