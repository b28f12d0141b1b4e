// kp-capture: what a stream follower calls while it puts TCP connections together.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kp/kp.h"
#include "packet/traffic.h"

namespace kp::capture {

/// One of the two ends of a connection: kFirst has opened it, or sent the first packet that was
/// seen.
///
/// That is the client when the start of the connection was seen, and may be either end otherwise.
enum class Side { kFirst = 0, kSecond = 1 };

/// The end that a side talks to.
constexpr Side otherSide(Side side) {
    return side == Side::kFirst ? Side::kSecond : Side::kFirst;
}

/// Receives the bytes of one connection, in order and without repetition in each direction.
class ConnectionSink {
public:
    virtual ~ConnectionSink() = default;

    /// Takes the next bytes that @p side sent, a stream of Pieces with its cursor at the front;
    /// they are gone after the call.
    /// Returns false when it needs nothing more of this connection; the follower may then stop
    /// calling, and still calls closed().
    virtual bool data(Side side, KP_BufferStream& bytes) = 0;

    /// Says that so many bytes that @p side sent were lost before those that come next.
    virtual void missing(Side side, std::uint64_t count) = 0;

    /// Bytes of memory that it uses, about.
    virtual std::size_t memory() const = 0;

    /// Says that @p side has sent everything; told at most once a side, after the last byte.
    virtual void ended(Side side) = 0;

    /// Says that the connection is over, or that nothing more of it will be seen; the last call.
    virtual void closed() = 0;
};

/// Hears of every new connection that carries data.
class ConnectionListener {
public:
    virtual ~ConnectionListener() = default;

    /// Makes the sink of a new connection; the follower owns it and destroys it after closed().
    /// @p fromStart tells whether the very first byte of both directions is going to be seen;
    /// @p number is that of the packet with which it began.
    virtual std::unique_ptr<ConnectionSink> opened(Endpoint first, Endpoint second, bool fromStart,
                                                   std::uint64_t number) = 0;
};

}  // namespace kp::capture
