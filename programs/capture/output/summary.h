// kp-capture: what was counted, and the texts that tell it.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "http/transaction.h"
#include "output/judgement.h"
#include "output/losses.h"
#include "pipeline/packet_counts.h"

namespace kp::capture {

/// Counts packets, connections and transactions, these in all and inside the watched ranges.
///
/// Threads: any count packets, one adds transactions, any may ask.
class Summary {
public:
    /// The seconds count from here.
    Summary();

    /// For those who read packets.
    PacketCounts& packets() { return packets_; }
    void addTransaction(const Transaction& transaction, const Judgement& judgement);
    void setConnections(std::uint64_t connections) { connections_ = connections; }
    /// Connections that were given up because of the memory limit, and bytes that were never
    /// captured.
    void setLosses(std::uint64_t givenUp, std::uint64_t missingBytes) {
        givenUp_ = givenUp;
        missingBytes_ = missingBytes;
    }
    /// Transactions that were written into the database directory, and that should have been.
    void setRecorded(std::uint64_t recorded, std::uint64_t lost) {
        isRecorded_ = true;
        recorded_ = recorded;
        notRecorded_ = lost;
    }
    void setInterfaceDropped(std::uint64_t packets) { interfaceDropped_ = packets; }
    /// What of the losses it knows: packets.
    Lost droppedPackets() const { return {packets_.dropped, interfaceDropped_, 0, 0}; }
    /// What was not understood, in words.
    void setUnread(const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex_);
        unread_ = text;
    }

    /// A progress line without its line end; @p done is 0 to 1, negative when it is not known.
    std::string progressLine(double done) const;

    /// The lines of the front end's status that come from the counters.
    std::vector<std::pair<std::string, std::string>> status() const;

    /// What a run writes to standard error at its end.
    std::string text() const;

private:
    /// One column of the table.
    struct Counts {
        std::uint64_t all = 0;
        std::array<std::uint64_t, 10> byClass{};  // by the first digit of the status, 0: no answer
        std::uint64_t content = 0;
        std::uint64_t validPages = 0;
        std::uint64_t entryPoints = 0;
    };

    double seconds() const;
    static void count(Counts& counts, const Transaction& transaction, const Judgement& judgement);

    std::chrono::steady_clock::time_point start_;
    PacketCounts packets_;
    std::atomic<std::uint64_t> connections_{0};
    std::atomic<std::uint64_t> givenUp_{0};
    std::atomic<std::uint64_t> missingBytes_{0};
    std::atomic<bool> isRecorded_{false};
    std::atomic<std::uint64_t> recorded_{0};
    std::atomic<std::uint64_t> notRecorded_{0};
    std::atomic<std::uint64_t> interfaceDropped_{0};
    mutable std::mutex mutex_;  // guards the rest
    Counts seen_;
    Counts watched_;
    std::string unread_;
};

/// Shows a line on a terminal that is overwritten again and again, at most ten times a second.
class ProgressDisplay {
public:
    /// Shows nothing unless @p enabled, so that callers need not ask.
    explicit ProgressDisplay(bool enabled) : enabled_(enabled) {}
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;
    ~ProgressDisplay() { clear(); }

    /// Tells whether it is time for the next line.
    bool isDue() const;
    void show(const std::string& line);
    /// Takes the line off the terminal.
    void clear();

private:
    bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point last_;
};

}  // namespace kp::capture
