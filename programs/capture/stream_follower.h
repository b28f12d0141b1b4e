// kp-capture: TCP connections put together from segments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "connection_sink.h"
#include "reassembly.h"
#include "segment.h"

namespace kp::capture {

/// Hands the bytes of TCP connections to sinks, each direction in order.
///
/// A connection whose start was not seen is followed from its first segment with data on. It ends
/// when both sides have finished, when one resets it, when another one begins between the same
/// ends, when nothing came for kIdleSeconds, or when too much is held back behind a gap. For
/// kAfterSeconds after its end late copies of its segments are known as such.
class StreamFollower {
public:
    static constexpr std::int64_t kIdleSeconds = 600;
    static constexpr std::int64_t kAfterSeconds = 60;

    /// @p listener must outlive the follower.
    explicit StreamFollower(ConnectionListener& listener) : listener_(listener) {}

    /// Takes the next segment.
    void segment(const Segment& segment);

    /// Closes the connections that were silent until @p now, in the order in which they were
    /// opened, and forgets those that ended long enough ago.
    void expire(Timestamp now);

    /// Closes the connections that are still open, in the order in which they were opened.
    void finish();

    /// Connections seen so far.
    std::uint64_t connections() const { return opened_; }
    /// Connections kept now, those that ended a moment ago included.
    std::size_t open() const { return connections_.size(); }

private:
    struct Key {
        std::uint64_t low;
        std::uint64_t high;
        bool operator==(const Key& other) const { return low == other.low && high == other.high; }
    };
    struct KeyHash {
        std::size_t operator()(const Key& key) const;
    };
    struct Connection {
        Endpoint first;
        std::unique_ptr<ConnectionSink> sink;  // null when the connection has ended
        std::uint64_t opened = 0;              // counts up
        std::int64_t lastSeen = 0;
        std::uint32_t start = 0;  // sequence number of the first side's SYN
        bool sawStart = false;
        bool isWanted = true;  // the sink wants more data
        Reassembly directions[2];
    };
    using Connections = std::unordered_map<Key, Connection, KeyHash>;

    static Key keyOf(const Segment& segment);
    Connection* find(const Segment& segment);
    Connection& open(const Segment& segment, Connection& connection);
    void take(Connection& connection, Side side, const Segment& segment);
    static void close(Connection& connection);
    std::vector<Connections::iterator> silentSince(std::int64_t before);

    ConnectionListener& listener_;
    Connections connections_;
    std::uint64_t opened_ = 0;

    // What a segment makes due: its own bytes, which stay where they are, and what was held back.
    struct InPlace : Piece {
        void release() override {}
    } inPlace_;
    KP_BufferStream due_;
};

}  // namespace kp::capture
