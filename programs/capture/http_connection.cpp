#include "http_connection.h"

#include <algorithm>
#include <string>
#include <utility>

#include "http_fields.h"

namespace kp::capture {

namespace {

std::size_t textSize(const Transaction& transaction) {
    return transaction.method.size() + transaction.host.size() + transaction.target.size() +
           transaction.referer.size();
}

constexpr std::int64_t kLongestResponse = 86400;  // seconds; a longer one is a damaged time

std::string_view withoutParameters(std::string_view contentType) {
    return trim(contentType.substr(0, contentType.find(';')));
}

// Packets may be captured in another order than they were sent: then no time has passed.
std::int64_t microsecondsBetween(Timestamp start, Timestamp end) {
    const std::int64_t seconds =
        std::clamp<std::int64_t>(end.seconds - start.seconds, -1, kLongestResponse);
    const std::int64_t microseconds = std::int64_t{end.microseconds} - start.microseconds;
    return std::max<std::int64_t>(seconds * 1000000 + microseconds, 0);
}

}  // namespace

HttpConnection::HttpConnection(Endpoint first, Endpoint second, bool fromStart,
                               TransactionSink& sink, std::uint64_t number)
    : sink_(sink),
      number_(number),
      firstEnd_(first),
      secondEnd_(second),
      first_(*this, fromStart),
      second_(*this, fromStart) {}

bool HttpConnection::data(Side side, KP_BufferStream& bytes) {
    reading_ = side;
    parser(side).data(bytes);
    return !(first_.stopped() && second_.stopped());
}

void HttpConnection::missing(Side side, std::uint64_t count) {
    reading_ = side;
    if (parser(side).missing(count) && side != client_)
        mayHaveLostAnswers_ = true;
}

std::size_t HttpConnection::memory() const {
    return sizeof *this + first_.memory() + second_.memory() + waitingText_ +
           (waiting_ ? waiting_->size() * sizeof(Request) : 0);
}

void HttpConnection::ended(Side side) {
    parser(side).finish();
}

void HttpConnection::closed() {
    first_.finish();
    second_.finish();
    if (!isHttp_ && !isNotHttp_)
        sink_.notHttp();  // it was joined in its middle, and nobody could tell before
    if (!waiting_)
        return;
    for (Request& request : *waiting_)
        sink_.transaction(std::move(request.transaction));
    waiting_.reset();
}

void HttpConnection::kindFound(MessageKind kind) {
    isHttp_ = true;
    const bool isClient = kind == MessageKind::kRequest;
    client_ = isClient ? reading_ : otherSide(reading_);
    parser(otherSide(reading_)).expect(isClient ? MessageKind::kResponse : MessageKind::kRequest);
}

void HttpConnection::notHttp() {
    isNotHttp_ = true;
    sink_.notHttp();
    leaveHttp();
}

void HttpConnection::leaveHttp() {
    first_.stop();
    second_.stop();
}

BodyRule HttpConnection::head(MessageHead& head) {
    if (head.kind == MessageKind::kResponse)
        return answer(head);
    request(head);
    return BodyRule::kAsHeadersSay;
}

void HttpConnection::request(MessageHead& head) {
    Transaction transaction;
    transaction.connection = number_;
    transaction.time = head.arrival.time;
    transaction.client = client_ == Side::kFirst ? firstEnd_ : secondEnd_;
    transaction.server = client_ == Side::kFirst ? secondEnd_ : firstEnd_;
    transaction.method = std::move(head.method);
    transaction.host = std::move(head.host);
    transaction.target = std::move(head.target);
    transaction.referer = std::move(head.referer);

    if (!waiting_)
        waiting_ = std::make_unique<Waiting>();
    waitingText_ += textSize(transaction);
    waiting_->push_back({std::move(transaction), head.arrival});
    while (waiting_->size() > kMostWaiting || waitingText_ > kMostWaitingText)
        giveUpOldest();
}

void HttpConnection::giveUpOldest() {
    // One whose answer is being read is about to leave by itself.
    const auto oldest = waiting_->begin() + (answering_ ? 1 : 0);
    waitingText_ -= textSize(oldest->transaction);
    sink_.transaction(std::move(oldest->transaction));
    waiting_->erase(oldest);
    ++givenUp_;
}

// Finds out whether an answer is that of the first request that waits, and hands out the requests
// before its own, whose answers were lost.
bool HttpConnection::isAnswerOfFront(const Arrival& answer) {
    if (mayHaveLostAnswers_) {
        // Whoever sends a request when all answers have come has everything before its own answer.
        const auto own =
            std::find_if(waiting_->begin(), waiting_->end(), [&](const Request& request) {
                return request.arrival.hasAcknowledged &&
                       request.arrival.acknowledged == answer.sequence;
            });
        for (auto lost = own == waiting_->end() ? 0 : own - waiting_->begin(); lost > 0; --lost) {
            waitingText_ -= textSize(waiting_->front().transaction);
            sink_.transaction(std::move(waiting_->front().transaction));
            waiting_->pop_front();
        }
        mayHaveLostAnswers_ = false;
    }
    const Arrival& asked = waiting_->front().arrival;
    return !asked.hasAcknowledged ||
           static_cast<std::int32_t>(asked.acknowledged - answer.sequence) <= 0;
}

BodyRule HttpConnection::answer(MessageHead& head) {
    const bool isSwitch = head.status == 101;
    if (head.status < 200 && !isSwitch)
        return BodyRule::kNone;

    bool isHead = false;
    bool isTunnel = isSwitch;
    if (givenUp_ > 0) {
        --givenUp_;
    } else if (waiting_ && !waiting_->empty() && isAnswerOfFront(head.arrival)) {
        Transaction& transaction = waiting_->front().transaction;
        answering_ = true;
        transaction.status = head.status;
        transaction.responseTime = microsecondsBetween(transaction.time, head.arrival.time);
        transaction.contentType = withoutParameters(head.contentType);
        isHead = transaction.method == "HEAD";
        if (transaction.method == "CONNECT" && head.status < 300)
            isTunnel = true;
    }
    if (isTunnel) {
        end(MessageKind::kResponse, 0);
        if (waiting_)
            waiting_->clear();
        waitingText_ = 0;
        leaveHttp();
        return BodyRule::kStop;
    }
    const bool isEmpty = isHead || head.status == 204 || head.status == 304;
    return isEmpty ? BodyRule::kNone : BodyRule::kAsHeadersSay;
}

void HttpConnection::end(MessageKind kind, std::uint64_t bodyBytes) {
    if (kind == MessageKind::kRequest || !answering_)
        return;
    answering_ = false;
    Transaction& transaction = waiting_->front().transaction;
    transaction.bodyBytes = bodyBytes;
    waitingText_ -= textSize(transaction);
    sink_.transaction(std::move(transaction));
    waiting_->pop_front();
}

}  // namespace kp::capture
