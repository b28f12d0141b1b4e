// kp-capture: which request of a connection an answer belongs to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>

#include "http/transaction.h"
#include "tcp/piece.h"

namespace kp::capture {

/// The requests of one connection that wait for their answers.
///
/// Answers belong to requests in their order, as long as it is known that none of either is
/// missing. Behind what may have been lost an answer belongs to a request only if all of this holds:
///   - When the client sent the request it had everything before the answer, and nothing of it; and
///     when the server sent the answer it had the head of the request.
///   - The client was never seen to send a request before it had the whole answer to the one before:
///     others might still have been unanswered.
///   - Where requests were lost, there was no room for two, and an answer came that can be theirs.
/// From then on the order is known again. A request that no answer can belong to any more is handed
/// out without one.
class Pairing {
public:
    /// What may wait; beyond it the oldest requests are handed out, and their answers stepped over.
    static constexpr std::size_t kMostWaiting = 1024;
    static constexpr std::size_t kMostWaitingText = 1048576;

    /// @p sink must outlive it, and gets the requests that stay without an answer. @p fromStart:
    /// no request and no answer came before those that are told.
    Pairing(TransactionSink& sink, bool fromStart)
        : sink_(sink), isJoined_(!fromStart), certain_(fromStart ? kAll : 0) {}

    /// The client has sent a request, its head from @p first up to before @p end; everything that
    /// the server has sent before @p read was read by then.
    void request(Transaction&& request, const Arrival& first, std::uint32_t end,
                 std::uint32_t read);
    /// The server has sent an answer, from @p first on. Moves the request that it belongs to into
    /// @p request; false: nobody knows which.
    bool answer(const Arrival& first, Transaction& request);
    /// The same for an interim one, which changes nothing for its request.
    void interim(const Arrival& first);
    /// The answer that was told last has ended before @p end.
    void answerEnded(std::uint32_t end);

    /// Requests may have been lost, in so many bytes from this number on, or from the beginning.
    void requestsLost(std::optional<std::uint32_t> from, std::uint64_t count);
    /// The same for answers.
    void answersLost(std::optional<std::uint32_t> from, std::uint64_t count);

    /// Hands out what waits.
    void giveUp();
    /// Forgets what waits: it was no request.
    void clear();

    /// Bytes of memory beside the object itself, about.
    std::size_t memory() const { return waitingText_ + size() * sizeof(Request); }

private:
    static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

    struct Request {
        Transaction transaction;
        Arrival first;
        std::uint32_t end;
        bool mayBeAnswered;  // where its answer should begin, bytes are missing
    };
    // Made when the first one comes: most connections of a network carry no HTTP that can be read.
    using Waiting = std::deque<Request>;

    std::size_t size() const { return waiting_ ? waiting_->size() : 0; }
    Transaction takeFirst();
    void handOut() { sink_.transaction(takeFirst()); }
    void loseStep();
    bool mayBelongToFirst(const Arrival& answer) const;
    bool isOfEarlier(const Arrival& answer) const;
    void findStep(const Arrival& answer);

    TransactionSink& sink_;
    bool isJoined_;        // nothing is known of what was before
    std::size_t certain_;  // so many answers belong to the first requests, in their order
    bool isPipelined_ = false;
    bool isAnswering_ = false;
    std::uint32_t smallest_ = UINT32_MAX;  // head of a request
    bool isMissing(std::uint32_t sequence) const { return sequence - missingFrom_ < missing_; }

    bool areRequestsLost_ = false;
    std::optional<std::uint32_t> lostFrom_;  // of requests, since the order was known last
    std::optional<std::uint32_t> lostTo_;    // until the next request comes
    std::uint64_t lost_ = 0;                 // bytes, what was not understood behind them included
    std::uint32_t missingFrom_ = 0;          // of answers, the last time
    std::uint32_t missing_ = 0;
    // What was acknowledged by the last request, and by the last answer without one; where the last
    // answer ended.
    std::optional<std::uint32_t> lastRequest_;
    std::optional<std::uint32_t> unpaired_;
    std::optional<std::uint32_t> answered_;
    std::unique_ptr<Waiting> waiting_;
    std::size_t waitingText_ = 0;  // bytes of all texts in waiting_
    std::uint64_t givenUp_ = 0;    // requests handed out early, whose answers may still come
};

}  // namespace kp::capture
