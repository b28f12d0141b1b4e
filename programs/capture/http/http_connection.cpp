#include "http/http_connection.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "http/http_fields.h"

namespace kp::capture {

namespace {

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
                               TransactionSink& sink, std::uint64_t number, bool answersAlone)
    : sink_(sink),
      number_(number),
      firstEnd_(first),
      secondEnd_(second),
      first_(*this, fromStart),
      second_(*this, fromStart),
      isAloneWanted_(answersAlone),
      pairing_(sink, fromStart) {}

bool HttpConnection::data(Side side, KP_BufferStream& bytes) {
    reading_ = side;
    parser(side).data(bytes);
    return !(first_.stopped() && second_.stopped());
}

void HttpConnection::missing(Side side, std::uint64_t count) {
    reading_ = side;
    HttpParser& sender = parser(side);
    const std::optional<std::uint32_t> from = sender.position();
    const std::optional<std::uint32_t> headFrom = sender.headPosition();
    if (!sender.missing(count))
        return;
    // Who is the client may not be known yet: then either may have been lost.
    if (!isHttp_ || side == client_)
        pairing_.requestsLost(from, count);
    if (!isHttp_ || side != client_)
        pairing_.answersLost(headFrom, count + (from ? *from - *headFrom : 0));
}

std::size_t HttpConnection::memory() const {
    return sizeof *this + first_.memory() + second_.memory() + pairing_.memory() +
           (answered_ ? sizeof *answered_ : 0);
}

void HttpConnection::ended(Side side) {
    parser(side).finish();
}

void HttpConnection::closed() {
    first_.finish();
    second_.finish();
    if (!isHttp_ && !isNotHttp_)
        sink_.notHttp();  // it was joined in its middle, and nobody could tell before
    pairing_.giveUp();
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

// What the connection and the beginning of a message say.
Transaction HttpConnection::transactionOf(const MessageHead& head) const {
    Transaction transaction;
    transaction.connection = number_;
    transaction.time = head.arrival.time;
    transaction.client = client_ == Side::kFirst ? firstEnd_ : secondEnd_;
    transaction.server = client_ == Side::kFirst ? secondEnd_ : firstEnd_;
    return transaction;
}

void HttpConnection::request(MessageHead& head) {
    Transaction transaction = transactionOf(head);
    transaction.method = std::move(head.method);
    transaction.host = std::move(head.host);
    transaction.target = std::move(head.target);
    transaction.referer = std::move(head.referer);
    const std::optional<std::uint32_t> read = parser(otherSide(client_)).position();
    pairing_.request(std::move(transaction), head.arrival, head.end,
                     read.value_or(head.arrival.acknowledged));
}

BodyRule HttpConnection::answer(MessageHead& head) {
    const bool isSwitch = head.status == 101;
    if (head.status < 200 && !isSwitch) {
        pairing_.interim(head.arrival);
        return BodyRule::kNone;
    }
    if (!answered_)
        answered_ = std::make_unique<Transaction>();
    Transaction& transaction = *answered_;
    bool isHead = false;
    bool isTunnel = isSwitch;
    if (pairing_.answer(head.arrival, transaction)) {
        isAnswering_ = true;
        transaction.responseTime = microsecondsBetween(transaction.time, head.arrival.time);
        isHead = transaction.method == "HEAD";
        if (transaction.method == "CONNECT" && head.status < 300)
            isTunnel = true;
    } else if (isAloneWanted_) {
        isAnswering_ = true;
        transaction = transactionOf(head);
        transaction.method = transaction.target = "-";
        transaction.hasRequest = false;
        transaction.responseTime = 0;
    }
    transaction.status = head.status;
    transaction.contentType = withoutParameters(head.contentType);
    if (isTunnel) {
        end(MessageKind::kResponse, 0);
        pairing_.clear();
        leaveHttp();
        return BodyRule::kStop;
    }
    const bool isEmpty = isHead || head.status == 204 || head.status == 304;
    return isEmpty ? BodyRule::kNone : BodyRule::kAsHeadersSay;
}

void HttpConnection::end(MessageKind kind, std::uint64_t bodyBytes) {
    if (kind == MessageKind::kRequest)
        return;
    if (const auto end = parser(otherSide(client_)).position())
        pairing_.answerEnded(*end);
    if (!isAnswering_)
        return;
    isAnswering_ = false;
    answered_->bodyBytes = bodyBytes;
    sink_.transaction(std::move(*answered_));
}

}  // namespace kp::capture
