#include "stream_follower.h"

#include <algorithm>
#include <limits>

namespace kp::capture {

namespace {

std::uint64_t number(Endpoint end) {
    return std::uint64_t{end.address} << 16 | end.port;
}

}  // namespace

std::size_t StreamFollower::KeyHash::operator()(const Key& key) const {
    const std::uint64_t mixed = (key.low ^ (key.high << 16 | key.high >> 48)) * 0x9e3779b97f4a7c15U;
    return static_cast<std::size_t>(mixed ^ mixed >> 32);
}

StreamFollower::Key StreamFollower::keyOf(const Segment& segment) {
    const auto [low, high] = std::minmax({number(segment.source), number(segment.destination)});
    return {low, high};
}

// The connection that a segment belongs to, a new one if it begins one; null when it tells nothing.
StreamFollower::Connection* StreamFollower::find(const Segment& segment) {
    const bool isStart = segment.has(Segment::kSyn);
    const bool isReset = segment.has(Segment::kReset);
    const Key key = keyOf(segment);
    const auto found = connections_.find(key);
    if (found == connections_.end()) {
        if (isReset || (segment.payload.empty() && !isStart))
            return nullptr;
        return &open(segment, connections_[key]);
    }
    Connection& connection = found->second;
    const bool isNew = isStart && !segment.has(Segment::kAck) && !isReset &&
                       !(connection.sawStart && connection.start == segment.sequence);
    // The SYN itself may come behind the answer to it, and then belongs to what has begun.
    const bool isLate = isNew && !connection.sawStart && connection.sink &&
                        connection.directions[0].isAt(segment.sequence + 1);
    if (isNew && !isLate) {
        close(connection);
        return &open(segment, connection);
    }
    return &connection;
}

StreamFollower::Connection& StreamFollower::open(const Segment& segment, Connection& connection) {
    const bool isStart = segment.has(Segment::kSyn);
    const bool isAnswer = isStart && segment.has(Segment::kAck);
    connection = Connection();
    connection.opened = ++opened_;
    connection.first = isAnswer ? segment.destination : segment.source;
    const Endpoint second = isAnswer ? segment.source : segment.destination;
    if (isStart && !isAnswer) {
        connection.start = segment.sequence;
        connection.sawStart = true;
    }
    const Side sender = isAnswer ? Side::kSecond : Side::kFirst;
    connection.directions[static_cast<int>(sender)].begin(segment.sequence + (isStart ? 1 : 0));
    if (segment.has(Segment::kAck))
        connection.directions[static_cast<int>(otherSide(sender))].begin(segment.acknowledgement);
    connection.sink = listener_.opened(connection.first, second, isStart);
    return connection;
}

void StreamFollower::segment(const Segment& segment) {
    Connection* const connection = find(segment);
    if (connection == nullptr)
        return;
    connection->lastSeen = segment.time.seconds;
    if (!connection->sink)
        return;
    if (segment.has(Segment::kReset)) {
        close(*connection);
        return;
    }
    const bool isFirst = number(segment.source) == number(connection->first);
    take(*connection, isFirst ? Side::kFirst : Side::kSecond, segment);
    if (connection->directions[0].isOverfull() || connection->directions[1].isOverfull() ||
        (connection->directions[0].hasEnded() && connection->directions[1].hasEnded())) {
        close(*connection);
    }
}

void StreamFollower::take(Connection& connection, Side side, const Segment& segment) {
    Reassembly& direction = connection.directions[static_cast<int>(side)];
    const std::uint32_t sequence = segment.sequence + (segment.has(Segment::kSyn) ? 1 : 0);
    if (direction.hasEnded())
        return;
    const std::string_view bytes = direction.add(sequence, segment.payload, segment.time);
    if (!bytes.empty()) {
        due_.reset();  // what a fault may have left there
        inPlace_.borrow(bytes, segment.time);
        due_.add(&inPlace_);
        direction.moveDue(due_);
        due_.setFirst();
        if (connection.isWanted)
            connection.isWanted = connection.sink->data(side, due_);
        due_.reset();
    }
    if (segment.has(Segment::kFin))
        direction.setEnd(sequence + static_cast<std::uint32_t>(segment.payload.size()));
    if (direction.hasEnded())
        connection.sink->ended(side);
}

void StreamFollower::close(Connection& connection) {
    const std::unique_ptr<ConnectionSink> sink = std::move(connection.sink);
    for (Reassembly& direction : connection.directions)
        direction.drop();
    if (sink)
        sink->closed();
}

// The open connections that were last seen before a time, in the order in which they were opened.
std::vector<StreamFollower::Connections::iterator> StreamFollower::silentSince(
    std::int64_t before) {
    std::vector<Connections::iterator> result;
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        if (it->second.sink && it->second.lastSeen < before)
            result.push_back(it);
    }
    std::sort(result.begin(), result.end(),
              [](const auto& a, const auto& b) { return a->second.opened < b->second.opened; });
    return result;
}

void StreamFollower::expire(Timestamp now) {
    for (const auto& connection : silentSince(now.seconds - kIdleSeconds)) {
        close(connection->second);
    }
    for (auto it = connections_.begin(); it != connections_.end();) {
        const bool isOver = !it->second.sink && it->second.lastSeen < now.seconds - kAfterSeconds;
        it = isOver ? connections_.erase(it) : std::next(it);
    }
}

void StreamFollower::finish() {
    for (const auto& connection : silentSince(std::numeric_limits<std::int64_t>::max()))
        close(connection->second);
    connections_.clear();
}

}  // namespace kp::capture
