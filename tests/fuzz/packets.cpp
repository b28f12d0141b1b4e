// Frames of any link and any bytes, decoded, followed and read.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "http/http_connection.h"
#include "packet/segment.h"
#include "tcp/stream_follower.h"

namespace {

using namespace kp::capture;

class Listener : public ConnectionListener, public TransactionSink {
    std::unique_ptr<ConnectionSink> opened(Endpoint first, Endpoint second, bool fromStart,
                                           std::uint64_t number) override {
        return std::make_unique<HttpConnection>(first, second, fromStart, *this, number);
    }
    void transaction(Transaction&&) override {}
};

}  // namespace

// The first byte is the link type; then frames, each behind its length in two bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr int kLinks[] = {1, 113, 276, 101, 0, 108, 228};
    if (size == 0)
        return 0;
    Listener listener;
    StreamFollower follower(listener, 100000);
    SegmentReader reader;
    const int link = kLinks[data[0] % 7];
    std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    Timestamp time{1700000000, 0};
    while (rest.size() >= 2) {
        const std::size_t length =
            static_cast<unsigned char>(rest[0]) * 256U + static_cast<unsigned char>(rest[1]);
        rest.remove_prefix(2);
        const std::string_view frame = rest.substr(0, length);
        rest.remove_prefix(frame.size());
        Segment segment;
        if (reader.read(link, frame, time, segment)) {
            segment.clock = time.seconds * kOneSecond;
            follower.segment(segment);
        }
        if (++time.seconds % 10 == 0)
            follower.expire(time.seconds * kOneSecond);
    }
    follower.finish();
    return 0;
}
