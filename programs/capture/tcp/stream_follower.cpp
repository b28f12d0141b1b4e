#include "tcp/stream_follower.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kp::capture {

namespace {

std::uint64_t number(Endpoint end) {
    return std::uint64_t{end.address} << 16 | end.port;
}

// Marks the key of a connection after which another one began; the numbers of ends have 48 bits.
constexpr std::uint64_t kPredecessor = std::uint64_t{1} << 63;

Arrival arrivalOf(const Segment& segment) {
    Arrival arrival;
    arrival.time = segment.time;
    arrival.clock = segment.clock;
    arrival.sequence = segment.sequence + (segment.has(Segment::kSyn) ? 1 : 0);
    arrival.acknowledged = segment.acknowledgement;
    arrival.hasAcknowledged = segment.has(Segment::kAck);
    return arrival;
}

}  // namespace

std::size_t StreamFollower::KeyHash::operator()(const Key& key) const {
    return static_cast<std::size_t>(mixHash(key.low, key.high));
}

StreamFollower::Key StreamFollower::keyOf(const Segment& segment) {
    const auto [low, high] = std::minmax({number(segment.source), number(segment.destination)});
    return {low, high};
}

Side StreamFollower::sideOf(const Connection& connection, const Segment& segment) {
    return number(segment.source) == number(connection.first) ? Side::kFirst : Side::kSecond;
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
        return &open(segment, connections_.try_emplace(key).first);
    }
    Connection& connection = found->second;
    if (connection.hasPredecessor) {
        Connection* const predecessor = predecessorOf(connection);
        if (predecessor != nullptr && isNearer(*predecessor, connection, segment))
            return predecessor;
    }
    const Side side = sideOf(connection, segment);
    const bool isNext = isStart ? isStartOfNext(connection, segment)
                                : !segment.payload.empty() && isOfNext(connection, side, segment);
    return isNext && !isReset ? &replace(found, segment) : &connection;
}

// Whether a start is that of the next connection between the same ends.
bool StreamFollower::isStartOfNext(Connection& connection, const Segment& segment) {
    if (!segment.has(Segment::kAck))
        return !(connection.sawStart && connection.start == segment.sequence);
    // The answer to a start that is captured later.
    return connection.sawStart
               ? connection.start + 1 != segment.acknowledgement
               : !connection.direction(sideOf(connection, segment)).isPlausible(segment.sequence);
}

// The connection that was between the same ends before; null when it was forgotten.
StreamFollower::Connection* StreamFollower::predecessorOf(Connection& connection) {
    const auto found =
        connections_.find({connection.key->low | kPredecessor, connection.key->high});
    connection.hasPredecessor = found != connections_.end();
    return connection.hasPredecessor ? &found->second : nullptr;
}

// Whether the numbers of a segment are nearer to what the predecessor expects.
bool StreamFollower::isNearer(Connection& predecessor, Connection& connection,
                              const Segment& segment) {
    if (segment.has(Segment::kSyn) && predecessor.sawStart)
        return !isStartOfNext(predecessor, segment);
    const Side side = sideOf(connection, segment);
    std::int64_t nearer = 0;  // by so much
    const auto compare = [&](Side of, std::uint32_t sequence) {
        // The two need not agree about who is first.
        const Reassembly& now = connection.direction(of);
        const Reassembly& before = predecessor.direction(
            number(predecessor.first) == number(connection.first) ? of : otherSide(of));
        if (now.hasBegun() && before.hasBegun())
            nearer += now.distance(sequence) - before.distance(sequence);
    };
    compare(side, segment.sequence);
    if (segment.has(Segment::kAck))
        compare(otherSide(side), segment.acknowledgement);
    return nearer > 0;
}

// Opens the next connection in the place of one. What is still that one's may be captured later.
StreamFollower::Connection& StreamFollower::replace(Connections::iterator place,
                                                    const Segment& segment) {
    Connection& old = place->second;
    const Key key = place->first;
    const bool isKept = !old.hasEnded && (old.sink || old.isWaiting());
    // One may be left of a connection that was forgotten, too.
    if (Connection* const predecessor = predecessorOf(old)) {
        if (!predecessor->hasEnded)
            close(*predecessor);
        forget(*predecessor);
    }
    if (isKept) {
        auto node = connections_.extract(place);
        node.key().low |= kPredecessor;
        connections_.insert(std::move(node));
        old.isSuperseded = true;
        old.superseded = segment.clock;
        waiting_.insert(&old);
    } else {
        if (!old.hasEnded)
            close(old);
        forget(old);
    }
    Connection& connection = open(segment, connections_.try_emplace(key).first);
    connection.hasPredecessor = isKept;
    return connection;
}

// Whether bytes are those of the next connection between the same ends. Without its start in the
// capture, it shows in its numbers. Bytes from far away that acknowledge what the other side has
// sent here may be a single stray; two in a row are none.
bool StreamFollower::isOfNext(Connection& connection, Side side, const Segment& segment) {
    const Reassembly& direction = connection.direction(side);
    if (connection.hasEnded)
        return !direction.isLate(segment.sequence);
    if (direction.isPlausible(segment.sequence)) {
        if (connection.hasStray && connection.straySide == side)
            connection.hasStray = false;
        return false;
    }
    const Reassembly& other = connection.direction(otherSide(side));
    const bool mayBeStray =
        segment.has(Segment::kAck) && other.isPlausibleAcknowledgement(segment.acknowledgement);
    const bool isSecond = connection.hasStray && connection.straySide == side &&
                          Reassembly::isWithinWindow(segment.sequence - connection.strayEnd);
    if (!mayBeStray || isSecond)
        return true;
    connection.hasStray = true;
    connection.straySide = side;
    connection.strayEnd = segment.sequence + static_cast<std::uint32_t>(segment.payload.size());
    return false;
}

StreamFollower::Connection& StreamFollower::open(const Segment& segment,
                                                 Connections::iterator place) {
    const bool isStart = segment.has(Segment::kSyn);
    const bool isAnswer = isStart && segment.has(Segment::kAck);
    Connection& connection = place->second;
    connection.key = &place->first;
    connection.opened = ++opened_;
    connection.number = segment.number;
    connection.first = isAnswer ? segment.destination : segment.source;
    connection.second = isAnswer ? segment.source : segment.destination;
    // The SYN+ACK shows the start of a connection as well as the SYN, which may be captured later
    // or not at all.
    connection.sawStart = isStart;
    connection.isFromStart = isStart;
    connection.start = isAnswer ? segment.acknowledgement - 1 : segment.sequence;
    const Side sender = isAnswer ? Side::kSecond : Side::kFirst;
    connection.direction(sender).begin(segment.sequence + (isStart ? 1 : 0));
    if (segment.has(Segment::kAck))
        connection.direction(otherSide(sender)).begin(segment.acknowledgement);
    open_.append(connection);
    return connection;
}

void StreamFollower::segment(const Segment& segment) {
    Connection* const connection = find(segment);
    if (connection == nullptr)
        return;
    connection->lastSeen = segment.clock;
    (connection->hasEnded ? ended_ : open_).append(*connection);
    if (connection->hasEnded)
        return;
    const Side side = sideOf(*connection, segment);
    connection->direction(side).see();
    if (segment.has(Segment::kReset)) {
        if (!connection->reset)
            connection->reset = std::make_unique<Reset>(Reset{side, arrivalOf(segment)});
    } else {
        take(*connection, side, segment);
        if (segment.has(Segment::kAck))
            connection->direction(otherSide(side)).acknowledge(segment.acknowledgement);
    }
    settle(*connection, segment.clock);
    if (isOver(*connection, segment.clock)) {
        close(*connection);
        return;
    }
    // Without data, and with nothing that waited, nothing has changed.
    const bool isSame = segment.payload.empty() && waiting_.empty() && connection->memory != 0;
    if (connection->isWaiting()) {
        waiting_.insert(connection);
    } else if (!waiting_.empty()) {
        waiting_.erase(connection);
    }
    if (isSame && waiting_.empty())
        return;
    account(*connection);
    keepToLimit(connection);
}

void StreamFollower::take(Connection& connection, Side side, const Segment& segment) {
    Reassembly& direction = connection.direction(side);
    const Arrival arrival = arrivalOf(segment);
    const std::uint32_t end =
        arrival.sequence + static_cast<std::uint32_t>(segment.payload.size()) + segment.cut;
    if (direction.hasEnded())
        return;
    if (!connection.isWanted) {
        direction.passOver(end);
        if (segment.has(Segment::kFin))
            direction.setEnd(end);
        return;
    }
    if (!segment.payload.empty() && isTooEarly(connection, side, arrival)) {
        direction.hold(segment.payload, arrival);
    } else {
        Arrival first = arrival;
        const std::string_view bytes = direction.add(segment.payload, first);
        if (!bytes.empty()) {
            due_.reset();  // what a fault may have left there
            inPlace_.borrow(bytes, first);
            due_.add(&inPlace_);
            deliver(connection, side);
        }
    }
    drain(connection);
    if (segment.cut != 0 && direction.isAt(end - segment.cut)) {
        while (const std::uint32_t missing = direction.skipCut(end)) {
            lose(connection, side, missing);
            drain(connection);
        }
    }
    if (segment.has(Segment::kFin)) {
        direction.setEnd(end);
        drain(connection);  // what acknowledges the end
    }
}

void StreamFollower::deliver(Connection& connection, Side side) {
    due_.setFirst();
    if (connection.isWanted)
        connection.isWanted = sinkOf(connection).data(side, due_);
    if (!connection.isWanted) {
        for (Reassembly& direction : connection.directions)
            direction.drop();
    }
    due_.reset();
}

// Whether a segment acknowledges bytes of the other side that were not handed out yet and may still
// come: that direction has a gap, or is captured later. They were sent before it, so they are handed
// out before it.
bool StreamFollower::isTooEarly(Connection& connection, Side side, const Arrival& arrival) {
    return arrival.hasAcknowledged &&
           connection.direction(otherSide(side)).isAwaited(arrival.acknowledged);
}

// The side whose first held back piece may be handed out, the older one; none: kNobody.
int StreamFollower::nextDue(Connection& connection) {
    int next = kNobody;
    for (const Side side : {Side::kFirst, Side::kSecond}) {
        const Reassembly& direction = connection.direction(side);
        if (!direction.isDue() || isTooEarly(connection, side, direction.firstHeld()))
            continue;
        if (next == kNobody || isOlder(direction, connection.directions[next]))
            next = static_cast<int>(side);
    }
    return next;
}

// Hands out what was held back and is due, in the order in which it came.
void StreamFollower::drain(Connection& connection) {
    if (!connection.isHoldingBack())
        return;
    for (int side = nextDue(connection); side != kNobody; side = nextDue(connection)) {
        due_.reset();
        int next = side;
        for (; next == side; next = nextDue(connection))
            connection.directions[side].moveFirst(due_);
        deliver(connection, static_cast<Side>(side));
    }
}

bool StreamFollower::isOlder(const Reassembly& a, const Reassembly& b) {
    const auto since = [](const Reassembly& direction) {
        const Timestamp& time = direction.firstHeld().time;
        return std::make_pair(time.seconds, time.microseconds);
    };
    return since(a) < since(b);
}

// Does what the time has made due.
void StreamFollower::settle(Connection& connection, CaptureTime now) {
    if (connection.isHoldingBack()) {
        waiveDue(connection, now);
        stepOverDue(connection, now);
    }
    tellEnds(connection);
}

// Hands out what has waited long enough for bytes of the other side of which nothing was seen. Where
// that side has a gap, it waits until that is stepped over.
void StreamFollower::waiveDue(Connection& connection, CaptureTime now) {
    for (const Side side : {Side::kFirst, Side::kSecond}) {
        Reassembly& direction = connection.direction(side);
        Reassembly& other = connection.direction(otherSide(side));
        while (direction.isDue() && now - direction.firstHeld().clock > Reassembly::kLag &&
               !other.isHoldingBack()) {
            other.waive(direction.firstHeld().acknowledged);
            drain(connection);
        }
    }
}

// Steps over the gaps for which it is time, the older one first: what one direction holds back may
// wait for the other.
void StreamFollower::stepOverDue(Connection& connection, CaptureTime now) {
    while (Reassembly* const direction = oldestGap(connection)) {
        const bool isFull = connection.directions[0].isFull() || connection.directions[1].isFull();
        if (!isFull && !direction->isGapDue(now))
            break;
        if (!isFull && direction->isUnconfirmed()) {
            direction->drop();
            drain(connection);  // the other side need not wait for it any more
            continue;
        }
        stepOver(connection, direction == connection.directions ? Side::kFirst : Side::kSecond);
    }
}

// Whether nothing more will come: both sides have ended, a reset has nothing before it that may
// still come, or the next connection began long enough ago.
bool StreamFollower::isOver(Connection& connection, CaptureTime now) {
    const Reassembly& first = connection.directions[0];
    const Reassembly& second = connection.directions[1];
    if ((first.hasEnded() && second.hasEnded()) ||
        (connection.isSuperseded && now - connection.superseded > Reassembly::kLag))
        return true;
    if (!connection.reset)
        return false;
    const Arrival& reset = connection.reset->arrival;
    if (now - reset.clock > Reassembly::kLag)
        return true;
    return !first.isHoldingBack() && !second.isHoldingBack() &&
           !connection.direction(connection.reset->side).isMissing(reset.sequence) &&
           !isTooEarly(connection, connection.reset->side, reset);
}

// The direction that has waited longest for what it misses; null when none does.
Reassembly* StreamFollower::oldestGap(Connection& connection) {
    Reassembly& first = connection.directions[0];
    Reassembly& second = connection.directions[1];
    if (!first.isHoldingBack())
        return second.isHoldingBack() ? &second : nullptr;
    return second.isHoldingBack() && isOlder(second, first) ? &second : &first;
}

void StreamFollower::stepOver(Connection& connection, Side side) {
    lose(connection, side, connection.direction(side).skipGap());
    due_.reset();
    if (connection.direction(side).isDue()) {
        connection.direction(side).moveFirst(due_);
        deliver(connection, side);
    }
    drain(connection);
}

void StreamFollower::lose(Connection& connection, Side side, std::uint32_t missing) {
    if (missing == 0)
        return;
    missingBytes_ += missing;
    if (connection.isWanted)
        sinkOf(connection).missing(side, missing);
}

void StreamFollower::tellEnds(Connection& connection) {
    for (const Side side : {Side::kFirst, Side::kSecond}) {
        bool& wasTold = connection.wasToldEnd[static_cast<int>(side)];
        if (wasTold || !connection.direction(side).hasEnded())
            continue;
        wasTold = true;
        if (connection.sink)
            connection.sink->ended(side);
    }
}

ConnectionSink& StreamFollower::sinkOf(Connection& connection) {
    if (!connection.sink)
        connection.sink = listener_.opened(connection.first, connection.second,
                                           connection.isFromStart, connection.number);
    return *connection.sink;
}

void StreamFollower::close(Connection& connection) {
    while (const Reassembly* const direction = oldestGap(connection))
        stepOver(connection, direction == connection.directions ? Side::kFirst : Side::kSecond);
    for (const Side side : {Side::kFirst, Side::kSecond}) {
        const std::uint32_t missing = connection.direction(side).skipToEnd();
        if (missing != 0)
            lose(connection, side, missing);
    }
    tellEnds(connection);
    connection.hasEnded = true;
    const std::unique_ptr<ConnectionSink> sink = std::move(connection.sink);
    for (Reassembly& direction : connection.directions)
        direction.drop();
    waiting_.erase(&connection);
    ended_.append(connection);
    account(connection);
    if (sink)
        sink->closed();
}

// Closes the open connections that were last seen before a time, in the order in which they were
// opened.
void StreamFollower::closeSilentSince(CaptureTime before) {
    std::vector<Connection*> silent;
    for (Connection* each = open_.oldest(); each != nullptr && each->lastSeen < before;
         each = each->newer) {
        silent.push_back(each);
    }
    std::sort(silent.begin(), silent.end(),
              [](const Connection* a, const Connection* b) { return a->opened < b->opened; });
    for (Connection* each : silent) {
        close(*each);
        forget(*each);  // a late copy would have come long ago
    }
}

void StreamFollower::expire(CaptureTime now) {
    closeSilentSince(now - kIdle);
    const std::vector<Connection*> waiting(waiting_.begin(), waiting_.end());
    for (Connection* each : waiting) {
        settle(*each, now);
        account(*each);
        // What is still missing of a complete one was lost: both sides have all.
        if (isOver(*each, now) ||
            (each->isComplete() && now - each->lastSeen > Reassembly::kPatience)) {
            each->lastSeen = now;  // those that have ended stand in the order of their ends
            close(*each);
        } else if (!each->isWaiting()) {
            waiting_.erase(each);
        }
    }
    while (ended_.oldest() != nullptr && ended_.oldest()->lastSeen < now - kAfter)
        forget(*ended_.oldest());
}

void StreamFollower::finish() {
    closeSilentSince(std::numeric_limits<CaptureTime>::max());
    while (ended_.oldest() != nullptr)
        forget(*ended_.oldest());
}

void StreamFollower::List::append(Connection& connection) {
    if (newest_ == &connection)
        return;
    remove(connection);
    connection.list = this;
    connection.older = newest_;
    (newest_ != nullptr ? newest_->newer : oldest_) = &connection;
    newest_ = &connection;
}

void StreamFollower::List::remove(Connection& connection) {
    List* const list = connection.list;
    if (list == nullptr)
        return;
    (connection.older != nullptr ? connection.older->newer : list->oldest_) = connection.newer;
    (connection.newer != nullptr ? connection.newer->older : list->newest_) = connection.older;
    connection.older = connection.newer = nullptr;
    connection.list = nullptr;
}

// Brings what is known of a connection's memory up to date.
void StreamFollower::account(Connection& connection) {
    constexpr std::size_t kNode = sizeof(Connections::value_type) + 4 * sizeof(void*);
    const std::size_t now = kNode + connection.directions[0].memory() +
                            connection.directions[1].memory() +
                            (connection.sink ? connection.sink->memory() : 0);
    memory_ += now - connection.memory;
    connection.memory = now;
}

void StreamFollower::forget(Connection& connection) {
    memory_ -= connection.memory;
    List::remove(connection);
    connections_.erase(*connection.key);
}

void StreamFollower::keepToLimit(const Connection* current) {
    while (memory_ > memoryLimit_) {
        Connection* oldest = ended_.oldest();
        if (oldest == nullptr) {
            oldest = open_.oldest();
            if (oldest == current)
                break;
            ++givenUp_;
            close(*oldest);
        }
        forget(*oldest);
    }
}

}  // namespace kp::capture
