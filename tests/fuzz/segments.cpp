// Segments of one connection in any order: whatever a sink gets is what was sent, in its place.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "tcp/stream_follower.h"

namespace {

using namespace kp::capture;

// The byte with this sequence number.
char byteAt(std::uint32_t sequence) {
    return static_cast<char>(sequence * 2654435761U >> 24);
}

void require(bool isTrue) {
    if (!isTrue)
        std::abort();
}

class Checker : public ConnectionSink {
    bool data(Side side, KP_BufferStream& bytes) override {
        for (bool more = bytes.firstRun(); more; more = bytes.nextRun()) {
            std::uint32_t sequence = Piece::at(bytes).arrival().sequence;
            Direction& direction = directions_[static_cast<int>(side)];
            require(!direction.isKnown || sequence == direction.next);
            for (const char c : bytes.run())
                require(c == byteAt(sequence++));
            direction = {true, direction.hasEnded, sequence};
            require(!direction.hasEnded);
        }
        return true;
    }
    void missing(Side side, std::uint64_t count) override {
        require(count > 0);
        directions_[static_cast<int>(side)].next += static_cast<std::uint32_t>(count);
    }
    std::size_t memory() const override { return sizeof *this; }
    void ended(Side side) override {
        Direction& direction = directions_[static_cast<int>(side)];
        require(!direction.hasEnded);
        direction.hasEnded = true;
    }
    void closed() override { require(!std::exchange(isClosed_, true)); }

    struct Direction {
        bool isKnown = false;
        bool hasEnded = false;
        std::uint32_t next = 0;
    } directions_[2];
    bool isClosed_ = false;
};

class Listener : public ConnectionListener {
    std::unique_ptr<ConnectionSink> opened(Endpoint, Endpoint, bool, std::uint64_t) override {
        return std::make_unique<Checker>();
    }
};

}  // namespace

// Six bytes a segment: side and flags, sequence, length, acknowledgement, time.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::uint32_t kStart = 0xFFFFFF00;  // wraps soon
    const Endpoint ends[] = {{0x0A000001, 4000}, {0x0A000002, 80}};
    Listener listener;
    StreamFollower follower(listener, 50000);
    CaptureTime clock = 1700000000 * kOneSecond;
    for (; size >= 6; data += 6, size -= 6) {
        const bool isBack = (data[0] & 0x80) != 0;
        Segment segment;
        segment.source = ends[isBack ? 1 : 0];
        segment.destination = ends[isBack ? 0 : 1];
        segment.flags = data[0] & 0x17;
        // A start now and then only, or nothing would last.
        if ((data[0] & 0x60) != 0)
            segment.flags &= Segment::kFin | Segment::kAck;
        const std::uint32_t scale = (data[0] & 0x08) != 0 ? 16 : 1;
        segment.sequence = kStart + data[1] * scale;
        segment.acknowledgement = kStart + data[3] * scale;
        const std::uint32_t first = segment.sequence + (segment.has(Segment::kSyn) ? 1 : 0);
        std::string payload;
        for (std::uint32_t i = 0; i < data[2] % 100U; ++i)
            payload += byteAt(first + i);
        segment.payload = payload;
        segment.cut = data[4] % 16 == 0 ? data[5] : 0;
        // Steps of seconds, or of quarters.
        clock += (data[5] % 4) * ((data[5] & 0x40) != 0 ? kOneSecond / 4 : kOneSecond);
        segment.time = {clock / kOneSecond, static_cast<std::uint32_t>(clock % kOneSecond)};
        segment.clock = clock;
        follower.segment(segment);
        if (data[5] > 250)
            follower.expire(clock);
    }
    follower.finish();
    return 0;
}
