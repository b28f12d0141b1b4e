// kp-capture: the first stage, from a source of packets to the parsers.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kp/kp.h"
#include "packet/segment.h"
#include "pipeline/packet_counts.h"
#include "pipeline/pipeline.h"
#include "source/packet_source.h"

namespace kp::capture {

/// Reads a source, finds the TCP segments, hands them to the parsers, and ends rounds.
///
/// Threads: one reads. Of a device there may be several readers, each with a source of its own.
class Reader final : private PacketSink {
public:
    /// What readers of one device have in common.
    struct Shared {
        PacketCounts& counts;
        const std::vector<Parser*>& parsers;
        std::mutex sending;                   // of the dispatchers
        std::function<std::string()> filter;  // the configured one
        std::function<void(const std::string&)> log;
        std::atomic<unsigned> filterChanges{0};
    };

    /// @p start: the times are shifted so that the first packet arrives in this second.
    Reader(PacketSource& source, Shared& shared, std::optional<std::int64_t> start = {});

    /// Reads some thousand packets, or waits for a tenth of a second; false when that was the last
    /// time, and the last round is ended.
    bool turn();

    PacketSource& source() { return source_; }
    /// How reading ended: kEnd or kFault.
    PacketSource::Result end() const { return end_; }
    /// What could not be read; for any thread.
    const UnreadPackets& unread() const { return segments_.unread(); }

private:
    using Clock = std::chrono::steady_clock;

    void packet(const Packet& packet) override;
    void changeFilter();
    void count();

    PacketSource& source_;
    Shared& shared_;
    Dispatcher dispatcher_;
    SegmentReader segments_;
    Segment segment_;
    PacketSource::Result end_ = PacketSource::Result::kEnd;
    const bool isPaced_;  // packets come from outside, at their own rate
    const std::optional<std::int64_t> start_;
    std::optional<std::int64_t> shift_;  // seconds, since the first packet
    std::uint64_t packets_ = 0;          // of this turn
    std::uint64_t bytes_ = 0;
    std::uint64_t dropped_ = 0;  // as far as they were counted
    unsigned filterChanges_ = 0;
    Clock::time_point roundEnded_ = Clock::now();
    Clock::time_point counted_ = Clock::now();
};

/// A further reader of a device, beside that of the main thread.
class ReaderThread : public KP_Thread {
public:
    /// @p ended is called on its thread when it has come to an end: the others may not go on.
    ReaderThread(Reader& reader, std::function<void()> ended, Faults& faults)
        : reader_(reader), ended_(std::move(ended)), faults_(faults) {}
    ~ReaderThread() override;

    int doTask() override;

private:
    Reader& reader_;
    const std::function<void()> ended_;
    Faults& faults_;
};

}  // namespace kp::capture
