// kp-capture: TCP connections put together from packets.
#pragma once

#include <cstdint>
#include <memory>

#include "connection_sink.h"
#include "packet_source.h"

namespace kp::capture {

/// Decodes packets and hands the bytes of their TCP connections to sinks, in order.
///
/// IPv4 over every link that ipv4Packet() knows; fragments are not put together. A connection
/// whose start was not seen is followed from its first packet with data on. It ends when both
/// sides have finished, when one resets it, when nothing came for ten minutes, or when too much is
/// held back behind a gap (512 segments or 3 MB).
class StreamFollower {
public:
    /// @p listener must outlive the follower.
    explicit StreamFollower(ConnectionListener& listener);
    StreamFollower(const StreamFollower&) = delete;
    StreamFollower& operator=(const StreamFollower&) = delete;
    ~StreamFollower();

    /// Takes the next packet; what is no IPv4 TCP, or malformed, is dropped.
    void packet(const Packet& packet);

    /// Closes the connections that are still open, in the order in which they were opened.
    void finish();

    /// Connections seen so far.
    std::uint64_t connections() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kp::capture
