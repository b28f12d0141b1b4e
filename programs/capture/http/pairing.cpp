#include "http/pairing.h"

#include <algorithm>
#include <utility>

namespace kp::capture {

namespace {

std::size_t textSize(const Transaction& transaction) {
    return transaction.method.size() + transaction.host.size() + transaction.target.size() +
           transaction.referer.size();
}

// How far one sequence number lies behind another.
std::int32_t behind(std::uint32_t number, std::uint32_t other) {
    return static_cast<std::int32_t>(number - other);
}

}  // namespace

void Pairing::request(Transaction&& request, const Arrival& first, std::uint32_t end,
                      std::uint32_t read) {
    if (first.hasAcknowledged) {
        // The client has got nothing since its last request, or not all of the answer to it.
        const bool isUnanswered = certain_ == kAll && (isAnswering_ || size() != 0);
        if (lastRequest_ == first.acknowledged ||
            (isUnanswered && behind(read, first.acknowledged) >= 0))
            isPipelined_ = true;
        lastRequest_ = first.acknowledged;
    }
    if (lostTo_)
        lost_ += first.sequence - *lostTo_;
    lostTo_.reset();
    smallest_ = std::min(smallest_, end - first.sequence);
    if (!waiting_)
        waiting_ = std::make_unique<Waiting>();
    waitingText_ += textSize(request);
    waiting_->push_back({std::move(request), first, end, isMissing(first.acknowledged)});
    if (certain_ == 0 && !isJoined_ && isPipelined_) {
        giveUp();
        return;
    }
    while (size() > kMostWaiting || waitingText_ > kMostWaitingText) {
        handOut();
        if (certain_ == kAll)
            ++givenUp_;
    }
}

Transaction Pairing::takeFirst() {
    Transaction first = std::move(waiting_->front().transaction);
    waiting_->pop_front();
    waitingText_ -= textSize(first);
    if (certain_ != kAll && certain_ != 0)
        --certain_;
    return first;
}

// Whether an answer is in the right place for the first request that waits.
bool Pairing::mayBelongToFirst(const Arrival& answer) const {
    const Request& request = waiting_->front();
    if (answer.hasAcknowledged && behind(answer.acknowledged, request.first.sequence) <= 0)
        return false;
    if (!request.first.hasAcknowledged)
        return true;
    if (behind(answer.sequence, request.first.acknowledged) < 0)
        return false;
    // One that seems to be sent before the last answer had ended, and whose own does not begin
    // there: what looked like the end of the last answer may have been the beginning of this one.
    return !answered_ || answer.sequence == *answered_ ||
           behind(request.first.acknowledged, *answered_) >= 0;
}

// Whether an answer that begins where that to the first request should is a different one's, of an
// earlier request; or may be, when that was lost and no other answer to it came.
bool Pairing::isOfEarlier(const Arrival& answer) const {
    if (!answer.hasAcknowledged || behind(answer.acknowledged, waiting_->front().end) < 0)
        return true;
    return areRequestsLost_ && (!unpaired_ || (lostFrom_ && behind(*unpaired_, *lostFrom_) <= 0));
}

// Finds out whether the answer shows the order again. Requests whose own should have begun before it
// get none any more.
void Pairing::findStep(const Arrival& answer) {
    while (size() != 0) {
        const Request& request = waiting_->front();
        const std::int32_t since = behind(answer.sequence, request.first.acknowledged);
        if (request.first.hasAcknowledged && since < 0)
            break;
        const bool isInPlace = request.first.hasAcknowledged && since == 0;
        if (isInPlace && isOfEarlier(answer)) {
            isPipelined_ = true;
        } else if (isInPlace) {
            // Requests of one client are of like sizes.
            const bool hadRoom = lost_ * 2 >= smallest_ * std::uint64_t{3};
            if (isJoined_ || !(isPipelined_ || (areRequestsLost_ && hadRoom))) {
                certain_ = kAll;
                isJoined_ = areRequestsLost_ = false;
                lost_ = 0;
                return;
            }
        } else if (!request.mayBeAnswered) {
            isPipelined_ = true;  // there was something else where its own should have begun
        }
        handOut();
    }
    isJoined_ = false;
}

bool Pairing::answer(const Arrival& first, Transaction& request) {
    if (certain_ == 0)
        findStep(first);
    const bool isStep = certain_ != 0;
    if (isStep && givenUp_ > 0) {
        --givenUp_;
    } else if (isStep && size() != 0 && mayBelongToFirst(first)) {
        request = takeFirst();
        isAnswering_ = true;
        return true;
    } else if (isStep) {
        loseStep();
    }
    if (first.hasAcknowledged)
        unpaired_ = first.acknowledged;
    return false;
}

void Pairing::interim(const Arrival& first) {
    if (certain_ == 0)
        findStep(first);
}

void Pairing::answerEnded(std::uint32_t end) {
    isAnswering_ = false;
    answered_ = end;
}

void Pairing::loseStep() {
    certain_ = 0;
    givenUp_ = 0;
    isJoined_ = false;
    answered_.reset();
    if (isPipelined_)
        giveUp();
}

void Pairing::requestsLost(std::optional<std::uint32_t> from, std::uint64_t count) {
    areRequestsLost_ = true;
    lostFrom_ = from;
    lost_ += count;
    if (from)
        lostTo_ = *from + static_cast<std::uint32_t>(count);
    // Those before the lost ones still get their answers.
    if (certain_ == kAll && givenUp_ == 0)
        certain_ = size();
    if (certain_ == 0)
        loseStep();
}

void Pairing::answersLost(std::optional<std::uint32_t> from, std::uint64_t count) {
    if (from) {
        missingFrom_ = *from;
        missing_ = static_cast<std::uint32_t>(count);
    }
    for (std::size_t i = 0; i < size(); ++i) {
        Request& request = (*waiting_)[i];
        request.mayBeAnswered |= !from || isMissing(request.first.acknowledged);
    }
    loseStep();
}

void Pairing::giveUp() {
    while (size() != 0)
        handOut();
}

void Pairing::clear() {
    waiting_.reset();
    waitingText_ = 0;
}

}  // namespace kp::capture
