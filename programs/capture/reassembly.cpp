#include "reassembly.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kp::capture {

namespace {

void dropFront(std::string_view& bytes, Arrival& arrival, std::size_t count) {
    bytes.remove_prefix(count);
    arrival.sequence += static_cast<std::uint32_t>(count);
}

}  // namespace

void Reassembly::begin(std::uint32_t sequence) {
    if (!hasBegun_)
        next_ = sequence;
    hasBegun_ = true;
}

// Those of the bytes that stand before the end, if that was told.
std::string_view Reassembly::upToEnd(std::string_view bytes, std::uint32_t sequence) const {
    if (!knowsEnd_)
        return bytes;
    const auto room = static_cast<std::int32_t>(end_ - sequence);
    return bytes.substr(0, room > 0 ? static_cast<std::size_t>(room) : 0);
}

std::string_view Reassembly::add(std::string_view bytes, Arrival& arrival) {
    begin(arrival.sequence);
    bytes = upToEnd(bytes, arrival.sequence);
    const std::int32_t distance = ahead(arrival.sequence);
    if (distance > 0) {
        holdBack(bytes, arrival);
        return {};
    }
    const std::size_t known = std::size_t{0} - static_cast<std::size_t>(distance);
    if (known >= bytes.size())
        return {};
    dropFront(bytes, arrival, known);
    // What is held back came first.
    if (!pieces_.empty()) {
        const auto room = static_cast<std::size_t>(ahead(pieces_.front().sequence));
        if (bytes.size() > room) {
            std::string_view rest = bytes;
            Arrival later = arrival;
            dropFront(rest, later, room);
            holdBack(rest, later);
            bytes = bytes.substr(0, room);
        }
    }
    next_ += static_cast<std::uint32_t>(bytes.size());
    movedOn_ = arrival.clock;
    return bytes;
}

void Reassembly::hold(std::string_view bytes, Arrival arrival) {
    begin(arrival.sequence);
    bytes = upToEnd(bytes, arrival.sequence);
    const std::int32_t distance = ahead(arrival.sequence);
    if (distance < 0) {
        const std::size_t known = std::size_t{0} - static_cast<std::size_t>(distance);
        if (known >= bytes.size())
            return;
        dropFront(bytes, arrival, known);
    }
    holdBack(bytes, arrival);
}

Reassembly::Kept Reassembly::kept(std::string_view bytes, const Arrival& arrival) {
    Kept piece(new Piece);
    if (!piece)
        throw std::bad_alloc();
    piece->keep(bytes, arrival);
    return piece;
}

// Stores those of the bytes that are not held back yet.
void Reassembly::holdBack(std::string_view bytes, Arrival arrival) {
    if (ahead(arrival.sequence) > kWindow)
        return;
    // The first piece that ends behind the new bytes' beginning.
    auto place = std::partition_point(pieces_.begin(), pieces_.end(), [&](const Held& held) {
        return ahead(held.sequence + held.size()) <= ahead(arrival.sequence);
    });
    while (!bytes.empty()) {
        const std::int32_t room =
            place == pieces_.end() ? INT32_MAX
                                   : static_cast<std::int32_t>(place->sequence - arrival.sequence);
        std::size_t done = 0;
        if (room > 0) {
            done = std::min(bytes.size(), static_cast<std::size_t>(room));
            Kept piece = kept(bytes.substr(0, done), arrival);
            held_ += done;
            place = pieces_.insert(place, Held{arrival.sequence, std::move(piece)}) + 1;
        } else {
            done = std::min(bytes.size(), place->size() - static_cast<std::size_t>(-room));
            ++place;
        }
        dropFront(bytes, arrival, done);
    }
}

void Reassembly::moveFirst(KP_BufferStream& stream) {
    Held& held = pieces_.front();
    const std::uint32_t size = held.size();
    stream.add(held.piece.get());
    static_cast<void>(held.piece.release());  // the stream's now
    held_ -= size;
    next_ += size;
    pieces_.erase(pieces_.begin());
}

void Reassembly::acknowledge(std::uint32_t sequence) {
    begin(sequence);
    if (!knowsAcknowledged_ || static_cast<std::int32_t>(sequence - acknowledged_) > 0)
        acknowledged_ = sequence;
    knowsAcknowledged_ = true;
}

bool Reassembly::isGapDue(std::int64_t now) const {
    if (pieces_.empty())
        return false;
    if (isFull())
        return true;
    const std::int64_t since = firstHeld().clock;
    return isHeldAcknowledged() ? now - since > kPatience
                                : now - std::max(since, movedOn_) > kLongPatience;
}

std::uint32_t Reassembly::skipGap() {
    const std::uint32_t missing = pieces_.front().sequence - next_;
    next_ = pieces_.front().sequence;
    return missing;
}

std::uint32_t Reassembly::skipCut(std::uint32_t end) {
    if (knowsEnd_ && ahead(end_) < ahead(end))
        end = end_;
    if (!pieces_.empty() && ahead(pieces_.front().sequence) < ahead(end))
        end = pieces_.front().sequence;
    const std::uint32_t missing = ahead(end) > 0 ? end - next_ : 0;
    next_ += missing;
    return missing;
}

std::uint32_t Reassembly::skipToEnd() {
    if (!knowsEnd_ || ahead(end_) <= 0)
        return 0;
    const std::uint32_t missing = end_ - next_;
    next_ = end_;
    return missing;
}

void Reassembly::setEnd(std::uint32_t sequence) {
    if (knowsEnd_ || ahead(sequence) < 0 || ahead(sequence) > kWindow)
        return;
    end_ = sequence;
    knowsEnd_ = true;
    // What is held back from behind the end was never sent.
    while (!pieces_.empty()) {
        Held& last = pieces_.back();
        const std::size_t size = last.size();
        const std::size_t good = upToEnd(last.piece->bytes(), last.sequence).size();
        held_ -= size - good;
        if (good != 0) {
            last.piece->copyBuffer(last.piece->getBuffer(), good);
            break;
        }
        pieces_.pop_back();
    }
}

void Reassembly::passOver(std::uint32_t end) {
    if (hasBegun_ && ahead(end) > 0)
        next_ = end;
}

bool Reassembly::isPlausible(std::uint32_t sequence) const {
    return !hasBegun_ || (ahead(sequence) > -kMuch && ahead(sequence) <= kWindow);
}

bool Reassembly::isLate(std::uint32_t sequence) const {
    const auto distance = static_cast<std::int32_t>(sequence - (knowsEnd_ ? end_ : next_));
    return distance > -kMuch && distance <= (knowsEnd_ ? 0 : kMuch);
}

void Reassembly::drop() {
    std::vector<Held>().swap(pieces_);
    held_ = 0;
}

}  // namespace kp::capture
