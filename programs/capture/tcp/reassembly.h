// kp-capture: one direction of a TCP connection, put in order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include "tcp/piece.h"

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
///
/// A direction may be captured later than the other one, by kLag at most: what it is known to have
/// sent is awaited for so long.
class Reassembly {
public:
    /// What may be held back, memory for its places included: all that a sender may have on its
    /// way behind one lost segment, with the windows that systems use by themselves.
    static constexpr std::size_t kMostBytes = std::size_t{4} * 1024 * 1024;
    static constexpr CaptureTime kPatience = kOneSecond;
    static constexpr CaptureTime kLongPatience = 5 * kOneSecond;
    static constexpr CaptureTime kLag = kOneSecond / 2;
    /// More than is on its way at a time: what is farther away from what is expected is no gap.
    static constexpr std::int32_t kWindow = 1 << 24;

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
    bool isDue() const { return isHoldingBack() && ahead(firstSequence()) <= 0; }
    bool isHoldingBack() const { return pieces_ && !pieces_->empty(); }
    /// Whether a byte before @p sequence has not come yet.
    bool isMissing(std::uint32_t sequence) const {
        return hasBegun_ && ahead(sequence) > 0 && !hasEnded();  // an end has a number, too
    }
    /// Whether one has not come that may still do.
    bool isAwaited(std::uint32_t sequence) const {
        return isMissing(sequence) &&
               (isHoldingBack() || !isWaived_ ||
                (wasSeen_ && static_cast<std::int32_t>(sequence - waived_) > 0));
    }
    /// Awaits nothing before @p sequence any more; of a direction that was never seen, nothing at
    /// all until it is.
    void waive(std::uint32_t sequence);
    /// Says that a segment of the direction was seen.
    void see() { wasSeen_ = true; }
    /// How the first of what is held back came.
    const Arrival& firstHeld() const { return pieces_->begin()->second->arrival(); }
    /// Whether it is time to step over the gap in front of what is held back.
    bool isGapDue(CaptureTime now) const;
    /// Whether more is held back than may be.
    bool isFull() const { return memory() > kMostBytes; }
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

    /// Whether two numbers with this difference can be of one direction at a time.
    static bool isWithinWindow(std::uint32_t distance) {
        const auto ahead = static_cast<std::int32_t>(distance);
        return ahead > -kWindow && ahead <= kWindow;
    }
    /// Whether bytes with this number can belong to it.
    bool isPlausible(std::uint32_t sequence) const {
        return !hasBegun_ || isWithinWindow(sequence - next_);
    }
    bool hasBegun() const { return hasBegun_; }
    /// How far a number is from what is expected, before or behind.
    std::int64_t distance(std::uint32_t sequence) const {
        const std::int64_t far = ahead(sequence);
        return far < 0 ? -far : far;
    }
    /// Whether the other side can acknowledge this number.
    bool isPlausibleAcknowledgement(std::uint32_t sequence) const {
        return hasBegun_ && isWithinWindow(sequence - (knowsAcknowledged_ ? acknowledged_ : next_));
    }
    /// Whether bytes with this number can be late copies of what was sent before it ended, or was
    /// broken off; else they are another connection's.
    bool isLate(std::uint32_t sequence) const;
    /// Whether the other side has everything up to its end, captured or not.
    bool isComplete() const {
        return hasEnded() || (knowsEnd_ && knowsAcknowledged_ &&
                              static_cast<std::int32_t>(acknowledged_ - end_) > 0);
    }

    /// Bytes of memory in what is held back.
    std::size_t memory() const { return held_ + (pieces_ ? pieces_->size() * kPieceSize : 0); }
    /// Gives that back.
    void drop();

private:
    static constexpr std::size_t kPieceSize = 320;  // of a piece and its place, about

    struct Release {
        void operator()(Piece* piece) const { piece->release(); }
    };
    using Kept = std::unique_ptr<Piece, Release>;
    // Numbers wrap, but those of one direction's pieces lie within a window.
    struct IsBefore {
        bool operator()(std::uint32_t a, std::uint32_t b) const {
            return static_cast<std::int32_t>(a - b) < 0;
        }
    };
    using Pieces = std::map<std::uint32_t, Kept, IsBefore>;

    static std::uint32_t endOf(const Pieces::value_type& held) {
        return held.first + static_cast<std::uint32_t>(held.second->bytes().size());
    }
    std::uint32_t firstSequence() const { return pieces_->begin()->first; }
    bool isHeldAcknowledged() const {
        return knowsAcknowledged_ && ahead(acknowledged_) >= ahead(firstSequence());
    }
    // How far a sequence number lies behind what is expected next; negative when it has come.
    std::int32_t ahead(std::uint32_t sequence) const {
        return static_cast<std::int32_t>(sequence - next_);
    }
    std::string_view upToEnd(std::string_view bytes, std::uint32_t sequence) const;
    static Kept kept(std::string_view bytes, const Arrival& arrival);
    void holdBack(std::string_view bytes, Arrival arrival);
    void dropIfEmpty() {
        if (pieces_->empty())
            pieces_.reset();
    }

    bool hasBegun_ = false;
    bool knowsEnd_ = false;
    bool knowsAcknowledged_ = false;
    std::uint32_t next_ = 0;
    std::uint32_t end_ = 0;
    std::uint32_t acknowledged_ = 0;
    bool wasSeen_ = false;
    bool isWaived_ = false;
    std::uint32_t waived_ = 0;
    CaptureTime movedOn_ = 0;         // when bytes came in order last
    std::unique_ptr<Pieces> pieces_;  // by sequence number, without overlap; null: none
    std::size_t held_ = 0;            // bytes in them
};

}  // namespace kp::capture
