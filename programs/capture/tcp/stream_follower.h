// kp-capture: TCP connections put together from segments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "packet/segment.h"
#include "tcp/connection_sink.h"
#include "tcp/reassembly.h"

namespace kp::capture {

/// Hands the bytes of TCP connections to sinks, each direction in order.
///
/// A connection whose start was not seen is followed from its first segment with data on. It ends
/// when both sides have finished, when one resets it, when another one begins between the same
/// ends, or when nothing came for kIdle. For kAfter after its end late copies of its segments are
/// known as such. Bytes that never come are stepped over, see Reassembly, at the latest when the
/// connection ends.
///
/// One direction may be captured later than the other. Bytes are handed out behind everything that
/// their sender had acknowledged when it sent them, or when that has not come for Reassembly::kLag.
/// As long, a connection gets what is still its own after another one began between the same ends.
///
/// Memory: at most about the limit for everything. Beyond it the connections that were silent
/// longest are given up: what is known of them is handed out.
class StreamFollower {
public:
    static constexpr CaptureTime kIdle = 600 * kOneSecond;
    static constexpr CaptureTime kAfter = 60 * kOneSecond;

    /// @p listener must outlive the follower; @p memoryLimit is in bytes.
    StreamFollower(ConnectionListener& listener, std::size_t memoryLimit)
        : listener_(listener), memoryLimit_(memoryLimit) {}
    StreamFollower(const StreamFollower&) = delete;
    StreamFollower& operator=(const StreamFollower&) = delete;

    /// Takes the next segment.
    void segment(const Segment& segment);

    /// Closes the connections that were silent long enough until @p now, in the order in which they
    /// were opened, steps over gaps, and forgets those that ended.
    void expire(CaptureTime now);

    /// Closes the connections that are still open, in the order in which they were opened.
    void finish();

    /// Connections seen so far.
    std::uint64_t connections() const { return opened_; }
    /// Connections kept now, those that ended a moment ago included.
    std::size_t open() const { return connections_.size(); }
    /// Connections that were given up because of the limit.
    std::uint64_t givenUp() const { return givenUp_; }
    /// Bytes that were never captured.
    std::uint64_t missingBytes() const { return missingBytes_; }

private:
    struct Key {
        std::uint64_t low;
        std::uint64_t high;
        bool operator==(const Key& other) const { return low == other.low && high == other.high; }
    };
    struct KeyHash {
        std::size_t operator()(const Key& key) const;
    };
    class List;
    // A reset, which may be captured before what was sent before it.
    struct Reset {
        Side side = Side::kFirst;
        Arrival arrival;
    };
    struct Connection {
        Endpoint first;
        Endpoint second;
        std::unique_ptr<ConnectionSink> sink;  // null before the first data
        std::uint64_t opened = 0;              // counts up
        std::uint64_t number = 0;              // of the packet that opened it
        CaptureTime lastSeen = 0;
        std::uint32_t start = 0;  // sequence number of the first side's SYN
        bool sawStart = false;
        bool isFromStart = false;
        bool hasEnded = false;
        bool isWanted = true;  // the sink wants more data
        bool wasToldEnd[2] = {false, false};
        std::unique_ptr<Reset> reset;  // that came, and waits
        bool hasPredecessor = false;   // there was one, which may be kept yet
        bool isSuperseded = false;
        bool hasStray = false;  // a side has sent bytes from far away, up to strayEnd
        Side straySide = Side::kFirst;
        std::uint32_t strayEnd = 0;
        CaptureTime superseded = 0;
        Reassembly directions[2];

        // Its place among the open or the ended ones, by the time of the last segment.
        const Key* key = nullptr;
        List* list = nullptr;
        Connection* older = nullptr;
        Connection* newer = nullptr;
        std::size_t memory = 0;

        Reassembly& direction(Side side) { return directions[static_cast<int>(side)]; }
        bool isHoldingBack() const {
            return directions[0].isHoldingBack() || directions[1].isHoldingBack();
        }
        bool isWaiting() const { return isHoldingBack() || reset || isSuperseded || isComplete(); }
        bool isComplete() const { return directions[0].isComplete() && directions[1].isComplete(); }
    };
    using Connections = std::unordered_map<Key, Connection, KeyHash>;

    /// Connections, the one that was silent longest first.
    class List {
    public:
        Connection* oldest() const { return oldest_; }
        /// Takes a connection out of the list that it is in, and adds it to this one.
        void append(Connection& connection);
        static void remove(Connection& connection);

    private:
        Connection* oldest_ = nullptr;
        Connection* newest_ = nullptr;
    };

    static constexpr int kNobody = -1;

    static Key keyOf(const Segment& segment);
    Connection* find(const Segment& segment);
    static Side sideOf(const Connection& connection, const Segment& segment);
    static bool isStartOfNext(Connection& connection, const Segment& segment);
    static bool isOfNext(Connection& connection, Side side, const Segment& segment);
    Connection* predecessorOf(Connection& connection);
    static bool isNearer(Connection& predecessor, Connection& connection, const Segment& segment);
    Connection& replace(Connections::iterator place, const Segment& segment);
    Connection& open(const Segment& segment, Connections::iterator place);
    void take(Connection& connection, Side side, const Segment& segment);
    void deliver(Connection& connection, Side side);
    static bool isTooEarly(Connection& connection, Side side, const Arrival& arrival);
    static bool isOlder(const Reassembly& a, const Reassembly& b);
    static int nextDue(Connection& connection);
    void drain(Connection& connection);
    void settle(Connection& connection, CaptureTime now);
    void waiveDue(Connection& connection, CaptureTime now);
    void stepOverDue(Connection& connection, CaptureTime now);
    static bool isOver(Connection& connection, CaptureTime now);
    static Reassembly* oldestGap(Connection& connection);
    void stepOver(Connection& connection, Side side);
    void lose(Connection& connection, Side side, std::uint32_t missing);
    void tellEnds(Connection& connection);
    ConnectionSink& sinkOf(Connection& connection);
    void close(Connection& connection);
    void closeSilentSince(CaptureTime before);
    void account(Connection& connection);
    void forget(Connection& connection);
    void keepToLimit(const Connection* current);

    ConnectionListener& listener_;
    const std::size_t memoryLimit_;
    Connections connections_;
    List open_;
    List ended_;
    std::unordered_set<Connection*> waiting_;  // for bytes that may never come
    std::size_t memory_ = 0;
    std::uint64_t opened_ = 0;
    std::uint64_t givenUp_ = 0;
    std::uint64_t missingBytes_ = 0;

    // What a segment makes due: its own bytes, which stay where they are, and what was held back.
    struct InPlace : Piece {
        void release() override {}
    } inPlace_;
    KP_BufferStream due_;
};

}  // namespace kp::capture
