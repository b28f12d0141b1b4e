// kp-capture: the stages between the packets and the lines.
//
//   reader --batches--> parser 0..N-1 --rows--> output
//
// A reader cuts the capture into rounds. Of every round each parser gets the segments of its
// connections, and the output puts the rows of all parsers in the order of the packets that
// completed them: what comes out does not depend on the number of parsers. Of several readers each
// has rounds of its own.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "http/transaction.h"
#include "kp/kp.h"
#include "packet/segment.h"
#include "pipeline/bounded_queue.h"
#include "tcp/stream_follower.h"

namespace kp::capture {

/// One parser's part of a round.
struct Batch {
    static constexpr std::size_t kMostBytes = std::size_t{512} * 1024;
    static constexpr std::size_t kMostSegments = 4096;

    // Before the segment in this place, what was silent until then is closed.
    struct Expiry {
        std::size_t place;
        std::uint64_t number;  // of the packet before it
        CaptureTime time;
    };

    bool hasRoomFor(const Segment& segment) const {
        return segments.size() < kMostSegments && used + segment.payload.size() <= kMostBytes;
    }
    /// Copies the segment, payload included; there must be room for it.
    void add(const Segment& segment);
    void clear();

    std::vector<Segment> segments;
    std::unique_ptr<char[]> bytes;  // the payloads
    std::size_t used = 0;           // of bytes
    std::uint64_t lastNumber = 0;   // of the last packet of the round
    std::vector<Expiry> expiries;
    bool isLast = false;
};

/// A transaction with its place in the output.
struct Row {
    std::uint64_t number;  // of the packet that completed it
    bool isClosing;        // it was completed by the end of its connection in that place
    Transaction transaction;
};

/// What one parser made of a round.
struct RowBatch {
    std::size_t parser = 0;
    std::vector<Row> rows;
    std::uint64_t connections = 0;  // seen by this parser so far
    std::size_t open = 0;           // of them, kept now
    std::uint64_t givenUp = 0;      // of them, because of the memory
    std::uint64_t missing = 0;      // bytes that were never captured
    std::uint64_t notHttp = 0;      // connections with something else, so far
    bool isLast = false;
};

using BatchQueue = BoundedQueue<std::unique_ptr<Batch>>;
using RowQueue = BoundedQueue<RowBatch>;

/// Faults of any stage; the first one is kept. Threads: any.
class Faults {
public:
    void add(const std::string& text);
    /// Empty while there is none.
    std::string first() const;
    bool any() const { return any_; }

private:
    mutable std::mutex mutex_;
    std::string first_;
    std::atomic<bool> any_{false};
};

/// Follows the connections that fall to it, and reads their HTTP.
class Parser : public KP_Thread, private ConnectionListener, private TransactionSink {
public:
    /// @p memoryLimit: bytes that its connections may use. @p answersAlone: answers without a
    /// request become rows. @p readers: dispatchers that feed it.
    Parser(std::size_t place, std::size_t memoryLimit, bool answersAlone, std::size_t readers,
           RowQueue& output, Faults& faults);
    ~Parser() override;

    BatchQueue& input() { return input_; }
    /// Batches that were worked off, for the reader to fill again.
    BatchQueue& emptied() { return emptied_; }

    int doTask() override;

private:
    std::unique_ptr<ConnectionSink> opened(Endpoint first, Endpoint second, bool fromStart,
                                           std::uint64_t number) override;
    void transaction(Transaction&& transaction) override;
    void notHttp() override { ++notHttp_; }
    void work(Batch& batch);
    void expire(const Batch::Expiry& expiry);

    BatchQueue input_;
    BatchQueue emptied_;
    RowQueue& output_;
    Faults& faults_;
    const bool answersAlone_;
    StreamFollower follower_;
    RowBatch made_;
    std::uint64_t number_ = 0;  // of the packet that is being read
    CaptureTime clock_ = 0;     // readers may differ a little
    bool isClosing_ = false;
    std::uint64_t notHttp_ = 0;
};

/// Hands segments to the parsers, in rounds.
///
/// Threads: the reader's alone. Each of several readers has its own.
class Dispatcher {
public:
    /// @p sending: shared by the dispatchers of all readers, so that every parser gets the rounds in
    /// the same order.
    Dispatcher(const std::vector<Parser*>& parsers, std::mutex& sending);

    /// Takes the next segment; waits while its parser has enough to do.
    void segment(const Segment& segment);
    /// Ends the round, so that what was taken so far is worked off.
    void endRound() { send(false); }
    bool hasCollected() const { return hasCollected_; }
    /// Ends the last round; the parsers close what is open.
    void finish() { send(true); }

private:
    /// Between two looks for connections that are silent, or wait for what does not come.
    static constexpr CaptureTime kExpiryPeriod = kOneSecond;

    void setClock(Timestamp time);
    void expire();
    void send(bool isLast);
    std::unique_ptr<Batch> emptyBatch(std::size_t parser);

    const std::vector<Parser*>& parsers_;
    std::mutex& sending_;
    std::vector<std::unique_ptr<Batch>> batches_;
    std::uint64_t number_ = 0;
    CaptureTime clock_ = 0;
    CaptureTime jump_ = 0;  // where the last segment would have set the clock, if far ahead
    CaptureTime lookedAt_ = 0;
    bool hasCollected_ = false;
};

/// Puts the parsers' rows in order.
class Output : public KP_Thread {
public:
    using RowFunction = std::function<void(Transaction&&)>;
    using IdleFunction = std::function<void(bool isLast)>;

    /// @p row gets each transaction, in order; @p idle is called when nothing is left to be done at
    /// the moment, and at the end. Both run on the output's thread.
    Output(std::size_t parsers, RowFunction row, IdleFunction idle, Faults& faults);
    ~Output() override;

    RowQueue& input() { return input_; }
    bool isFinished() const { return isFinished_; }
    std::uint64_t connections() const { return connections_; }
    std::size_t openConnections() const { return open_; }
    std::uint64_t givenUp() const { return givenUp_; }
    std::uint64_t missingBytes() const { return missing_; }
    std::uint64_t notHttp() const { return notHttp_; }
    /// Waits until everything was written.
    void waitUntilFinished();

    int doTask() override;

private:
    bool isRoundComplete() const;
    void writeRound();
    void finish();

    RowQueue input_;
    RowFunction row_;
    IdleFunction idle_;
    Faults& faults_;
    std::vector<std::deque<RowBatch>> waiting_;  // By parser.
    bool sawLast_ = false;
    std::atomic<std::uint64_t> connections_{0};
    std::atomic<std::size_t> open_{0};
    std::atomic<std::uint64_t> givenUp_{0};
    std::atomic<std::uint64_t> missing_{0};
    std::atomic<std::uint64_t> notHttp_{0};
    std::atomic<bool> isFinished_{false};
    std::mutex mutex_;
    std::condition_variable finished_;
};

}  // namespace kp::capture
