// kp-capture: one direction of a TCP connection, put in order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "piece.h"

namespace kp::capture {

/// Orders the bytes of one direction: repetitions are dropped, what comes early is held back.
///
/// Of bytes that come twice the first copy counts, held back or not. Sequence numbers wrap.
class Reassembly {
public:
    /// What may be held back behind a gap.
    static constexpr std::size_t kMostPieces = 512;
    static constexpr std::size_t kMostBytes = 3 * 1024 * 1024;

    /// Fixes the number of the first byte; only the first call counts.
    void begin(std::uint32_t sequence);
    /// Whether the byte that is due next has this number; false before begin().
    bool isAt(std::uint32_t sequence) const { return hasBegun_ && next_ == sequence; }

    /// Takes the bytes at a sequence number. What is due now, and was not held back, is returned
    /// and points into @p bytes; what follows it is then handed over by moveDue().
    std::string_view add(std::uint32_t sequence, std::string_view bytes, Timestamp time);
    /// Adds to @p stream the pieces that were held back and are due.
    void moveDue(KP_BufferStream& stream);

    /// Says that the direction ends with the byte before @p sequence.
    void setEnd(std::uint32_t sequence);
    /// Whether its end was told, and everything before it has come.
    bool hasEnded() const { return knowsEnd_ && next_ == end_; }
    /// Whether more is held back than may be.
    bool isOverfull() const { return pieces_.size() > kMostPieces || held_ > kMostBytes; }

    /// Gives back what is held back.
    void drop();

private:
    struct Release {
        void operator()(Piece* piece) const { piece->release(); }
    };
    using Kept = std::unique_ptr<Piece, Release>;
    struct Held {
        std::uint32_t sequence;
        Kept piece;

        std::size_t size() const { return piece->bytes().size(); }
    };

    // How far a sequence number lies behind what is expected next; negative when it has come.
    std::int32_t ahead(std::uint32_t sequence) const {
        return static_cast<std::int32_t>(sequence - next_);
    }
    static Kept kept(std::string_view bytes, Timestamp time);
    void holdBack(std::uint32_t sequence, std::string_view bytes, Timestamp time);

    bool hasBegun_ = false;
    bool knowsEnd_ = false;
    std::uint32_t next_ = 0;
    std::uint32_t end_ = 0;
    std::vector<Held> pieces_;  // by sequence number, without overlap
    std::size_t held_ = 0;      // bytes in them
};

}  // namespace kp::capture
