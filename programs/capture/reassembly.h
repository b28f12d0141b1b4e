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
/// Of bytes that come twice the first copy counts, held back or not. Sequence numbers wrap. Bytes
/// that never come are stepped over by skipGap(), which is due when
///   - the other side has acknowledged what is missing, and kPatience has passed since it was
///     missed: packets may be captured in another order than they were sent;
///   - kLongPatience has passed without that and without anything in order: the other side may not
///     be in the capture;
///   - as much is held back as may be.
class Reassembly {
public:
    /// What may be held back behind a gap.
    static constexpr std::size_t kMostPieces = 512;
    static constexpr std::size_t kMostBytes = std::size_t{1024} * 1024;
    /// Seconds of capture time.
    static constexpr std::int64_t kPatience = 1;
    static constexpr std::int64_t kLongPatience = 5;
    /// No window is larger, so what is farther away from what is expected belongs to nothing.
    static constexpr std::int32_t kWindow = 1 << 30;

    /// Fixes the number of the first byte; only the first call counts.
    void begin(std::uint32_t sequence);
    /// Whether the byte that is due next has this number; false before begin().
    bool isAt(std::uint32_t sequence) const { return hasBegun_ && next_ == sequence; }

    /// Takes bytes. What is due now, and was not held back, is returned and points into @p bytes;
    /// @p arrival is then that of its first byte, and what follows it is handed over by
    /// moveFirst(). Throws std::bad_alloc.
    std::string_view add(std::string_view bytes, Arrival& arrival);
    /// Takes bytes and holds them back, whether they are due or not. Throws std::bad_alloc.
    void hold(std::string_view bytes, Arrival arrival);
    /// Adds to @p stream the first piece that was held back; it must be due.
    void moveFirst(KP_BufferStream& stream);

    /// The other side has everything before @p sequence.
    void acknowledge(std::uint32_t sequence);
    /// Whether some of what is held back is due.
    bool isDue() const { return !pieces_.empty() && ahead(pieces_.front().sequence) <= 0; }
    bool isHoldingBack() const { return !pieces_.empty(); }
    /// Whether a byte before @p sequence has not come yet.
    bool isMissing(std::uint32_t sequence) const { return hasBegun_ && ahead(sequence) > 0; }
    /// How the first of what is held back came.
    const Arrival& firstHeld() const { return pieces_.front().piece->arrival(); }
    /// Whether it is time to step over the gap in front of what is held back.
    bool isGapDue(std::int64_t now) const;
    /// Whether more is held back than may be.
    bool isFull() const { return pieces_.size() > kMostPieces || held_ > kMostBytes; }
    /// Whether there is a gap, and the other side is seen and has not got what stands behind it
    /// either: it is sent again, or was never meant for this connection.
    bool isUnconfirmed() const { return !isDue() && knowsAcknowledged_ && !isHeldAcknowledged(); }
    /// Steps over that gap; returns how many bytes are missing, 0 when there is none.
    std::uint32_t skipGap();
    /// Steps over bytes before @p end of which a packet has only told the number, as far as none of
    /// them is held back; returns how many.
    std::uint32_t skipCut(std::uint32_t end);
    /// Steps to the end that was told; returns how many bytes are missing, or 0.
    std::uint32_t skipToEnd();

    /// Says that the direction ends with the byte before @p sequence; only the first call counts.
    void setEnd(std::uint32_t sequence);
    /// Goes on behind bytes before @p end that nobody needs.
    void passOver(std::uint32_t end);
    /// Whether its end was told, and everything before it has come.
    bool hasEnded() const { return knowsEnd_ && next_ == end_; }

    /// Whether bytes with this number can belong to it.
    bool isPlausible(std::uint32_t sequence) const;
    /// Whether bytes with this number can be late copies of what was sent before it ended, or was
    /// broken off; else they are another connection's.
    bool isLate(std::uint32_t sequence) const;
    /// Whether the other side has everything up to its end, captured or not.
    bool isComplete() const {
        return hasEnded() || (knowsEnd_ && knowsAcknowledged_ &&
                              static_cast<std::int32_t>(acknowledged_ - end_) > 0);
    }

    /// Bytes of memory in what is held back.
    std::size_t memory() const { return held_ + pieces_.size() * kPieceSize; }
    /// Gives that back.
    void drop();

private:
    static constexpr std::size_t kPieceSize = 160;  // of a piece and its place, about

    struct Release {
        void operator()(Piece* piece) const { piece->release(); }
    };
    using Kept = std::unique_ptr<Piece, Release>;
    struct Held {
        std::uint32_t sequence;
        Kept piece;

        std::uint32_t size() const { return static_cast<std::uint32_t>(piece->bytes().size()); }
    };

    static constexpr std::int32_t kMuch = 1 << 24;  // more than is on its way at a time

    bool isHeldAcknowledged() const {
        return knowsAcknowledged_ && ahead(acknowledged_) >= ahead(pieces_.front().sequence);
    }
    // How far a sequence number lies behind what is expected next; negative when it has come.
    std::int32_t ahead(std::uint32_t sequence) const {
        return static_cast<std::int32_t>(sequence - next_);
    }
    std::string_view upToEnd(std::string_view bytes, std::uint32_t sequence) const;
    static Kept kept(std::string_view bytes, const Arrival& arrival);
    void holdBack(std::string_view bytes, Arrival arrival);

    bool hasBegun_ = false;
    bool knowsEnd_ = false;
    bool knowsAcknowledged_ = false;
    std::uint32_t next_ = 0;
    std::uint32_t end_ = 0;
    std::uint32_t acknowledged_ = 0;
    std::int64_t movedOn_ = 0;  // when bytes came in order last, seconds
    std::vector<Held> pieces_;  // by sequence number, without overlap
    std::size_t held_ = 0;      // bytes in them
};

}  // namespace kp::capture
