#include "reassembly.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kp::capture {

void Reassembly::begin(std::uint32_t sequence) {
    if (!hasBegun_)
        next_ = sequence;
    hasBegun_ = true;
}

std::string_view Reassembly::add(std::uint32_t sequence, std::string_view bytes, Timestamp time) {
    begin(sequence);
    const std::int32_t distance = ahead(sequence);
    if (distance <= 0) {
        const std::size_t known = std::size_t{0} - static_cast<std::size_t>(distance);
        if (known >= bytes.size())
            return {};
        bytes.remove_prefix(known);
        // What is held back came first.
        if (!pieces_.empty()) {
            const std::int32_t room = ahead(pieces_.front().sequence);
            if (room >= 0 && bytes.size() > static_cast<std::size_t>(room)) {
                const std::string_view rest = bytes.substr(static_cast<std::size_t>(room));
                bytes = bytes.substr(0, static_cast<std::size_t>(room));
                holdBack(next_ + static_cast<std::uint32_t>(room), rest, time);
            }
        }
        next_ += static_cast<std::uint32_t>(bytes.size());
        return bytes;
    }
    holdBack(sequence, bytes, time);
    return {};
}

Reassembly::Kept Reassembly::kept(std::string_view bytes, Timestamp time) {
    Kept piece(new Piece);
    if (!piece)
        throw std::bad_alloc();
    piece->keep(bytes, time);
    return piece;
}

// Stores those of the bytes that are not held back yet.
void Reassembly::holdBack(std::uint32_t sequence, std::string_view bytes, Timestamp time) {
    const auto distance = [this](const Held& held) { return ahead(held.sequence); };
    // The first piece that ends behind the new bytes' beginning.
    auto place = std::partition_point(pieces_.begin(), pieces_.end(), [&](const Held& held) {
        return distance(held) + static_cast<std::int32_t>(held.size()) <= ahead(sequence);
    });
    while (!bytes.empty()) {
        const std::int32_t room =
            place == pieces_.end() ? INT32_MAX : distance(*place) - ahead(sequence);
        if (room > 0) {
            const std::string_view part =
                bytes.substr(0, std::min(bytes.size(), static_cast<std::size_t>(room)));
            held_ += part.size();
            place = pieces_.insert(place, Held{sequence, kept(part, time)}) + 1;
            sequence += static_cast<std::uint32_t>(part.size());
            bytes.remove_prefix(part.size());
        } else {
            const std::size_t covered =
                std::min(bytes.size(), place->size() - static_cast<std::size_t>(-room));
            sequence += static_cast<std::uint32_t>(covered);
            bytes.remove_prefix(covered);
            ++place;
        }
    }
}

void Reassembly::moveDue(KP_BufferStream& stream) {
    auto held = pieces_.begin();
    for (; held != pieces_.end() && ahead(held->sequence) <= 0; ++held) {
        held_ -= held->size();
        next_ += static_cast<std::uint32_t>(held->size());
        stream.add(held->piece.get());
        static_cast<void>(held->piece.release());  // the stream's now
    }
    pieces_.erase(pieces_.begin(), held);
}

void Reassembly::setEnd(std::uint32_t sequence) {
    if (!knowsEnd_)
        end_ = sequence;
    knowsEnd_ = true;
}

void Reassembly::drop() {
    std::vector<Held>().swap(pieces_);
    held_ = 0;
}

}  // namespace kp::capture
