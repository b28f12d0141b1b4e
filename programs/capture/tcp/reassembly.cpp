#include "tcp/reassembly.h"

#include <algorithm>
#include <iterator>
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
    if (isHoldingBack()) {
        const auto room = static_cast<std::size_t>(ahead(firstSequence()));
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
    if (bytes.empty() || ahead(arrival.sequence) > kWindow)
        return;
    // The first piece that ends behind the new bytes' beginning.
    if (!pieces_)
        pieces_ = std::make_unique<Pieces>();
    auto place = pieces_->upper_bound(arrival.sequence);
    if (place != pieces_->begin() && ahead(endOf(*std::prev(place))) > ahead(arrival.sequence))
        --place;
    while (!bytes.empty()) {
        const std::int32_t room = place == pieces_->end()
                                      ? INT32_MAX
                                      : static_cast<std::int32_t>(place->first - arrival.sequence);
        std::size_t done = 0;
        if (room > 0) {
            done = std::min(bytes.size(), static_cast<std::size_t>(room));
            pieces_->emplace_hint(place, arrival.sequence, kept(bytes.substr(0, done), arrival));
            held_ += done;
        } else {
            done = std::min<std::size_t>(bytes.size(), endOf(*place) - arrival.sequence);
            ++place;
        }
        dropFront(bytes, arrival, done);
    }
}

void Reassembly::moveFirst(KP_BufferStream& stream) {
    Kept& piece = pieces_->begin()->second;
    const std::size_t size = piece->bytes().size();
    stream.add(piece.get());
    static_cast<void>(piece.release());  // the stream's now
    held_ -= size;
    next_ += static_cast<std::uint32_t>(size);
    pieces_->erase(pieces_->begin());
    dropIfEmpty();
}

void Reassembly::waive(std::uint32_t sequence) {
    if (!isWaived_ || static_cast<std::int32_t>(sequence - waived_) > 0)
        waived_ = sequence;
    isWaived_ = true;
}

void Reassembly::acknowledge(std::uint32_t sequence) {
    begin(sequence);
    if (!knowsAcknowledged_ || static_cast<std::int32_t>(sequence - acknowledged_) > 0)
        acknowledged_ = sequence;
    knowsAcknowledged_ = true;
}

bool Reassembly::isGapDue(CaptureTime now) const {
    if (!isHoldingBack())
        return false;
    if (isFull())
        return true;
    const CaptureTime since = firstHeld().clock;
    return isHeldAcknowledged() ? now - since > kPatience
                                : now - std::max(since, movedOn_) > kLongPatience;
}

std::uint32_t Reassembly::skipGap() {
    const std::uint32_t missing = firstSequence() - next_;
    next_ = firstSequence();
    return missing;
}

std::uint32_t Reassembly::skipCut(std::uint32_t end) {
    if (knowsEnd_ && ahead(end_) < ahead(end))
        end = end_;
    if (isHoldingBack() && ahead(firstSequence()) < ahead(end))
        end = firstSequence();
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
    while (isHoldingBack()) {
        const auto last = std::prev(pieces_->end());
        Piece& piece = *last->second;
        const std::size_t size = piece.bytes().size();
        const std::size_t good = upToEnd(piece.bytes(), last->first).size();
        held_ -= size - good;
        if (good != 0) {
            piece.copyBuffer(piece.getBuffer(), good);
            break;
        }
        pieces_->erase(last);
        dropIfEmpty();
    }
}

void Reassembly::passOver(std::uint32_t end) {
    if (hasBegun_ && ahead(end) > 0)
        next_ = end;
}

bool Reassembly::isLate(std::uint32_t sequence) const {
    const auto distance = static_cast<std::int32_t>(sequence - (knowsEnd_ ? end_ : next_));
    return distance > -kWindow && distance <= (knowsEnd_ ? 0 : kWindow);
}

void Reassembly::drop() {
    pieces_.reset();
    held_ = 0;
}

}  // namespace kp::capture
