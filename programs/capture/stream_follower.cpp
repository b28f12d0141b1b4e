#include "stream_follower.h"

#include <arpa/inet.h>
#include <tins/exceptions.h>
#include <tins/ip.h>
#include <tins/packet.h>
#include <tins/tcp_ip/stream_follower.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "link_layer.h"

namespace kp::capture {

namespace {

using Tins::TCPIP::Stream;

constexpr std::chrono::minutes kIdleLimit{10};
constexpr unsigned kProtocolTcp = 6;
constexpr unsigned kFlagFin = 1;

// The parts of the headers that are needed beside the library's own decoding.
struct Segment {
    Endpoint source;
    Endpoint destination;
    std::uint32_t endSequence = 0;  // behind its last byte of data
    bool isFin = false;
};

std::uint32_t read(std::string_view bytes, std::size_t at, int count) {
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(i)]);
    }
    return value;
}

// False when @p packet is no whole TCP segment.
bool readSegment(std::string_view packet, Segment& segment) {
    if (packet.size() < 20)
        return false;
    const std::size_t ipSize = std::size_t{read(packet, 0, 1) & 15} * 4;
    const bool isFragment = (read(packet, 6, 2) & 0x3fff) != 0;
    if (read(packet, 9, 1) != kProtocolTcp || isFragment || ipSize < 20)
        return false;
    if (packet.size() < ipSize + 20)
        return false;
    const std::string_view tcp = packet.substr(ipSize);
    const std::size_t tcpSize = std::size_t{read(tcp, 12, 1) >> 4} * 4;
    const std::size_t total = read(packet, 2, 2);
    if (tcpSize < 20 || (total != 0 && total < ipSize + tcpSize))
        return false;
    segment.source = {read(packet, 12, 4), static_cast<std::uint16_t>(read(tcp, 0, 2))};
    segment.destination = {read(packet, 16, 4), static_cast<std::uint16_t>(read(tcp, 2, 2))};
    segment.isFin = (read(tcp, 13, 1) & kFlagFin) != 0;
    const std::size_t size = total != 0 ? total : packet.size();
    segment.endSequence =
        read(tcp, 4, 4) + static_cast<std::uint32_t>(size - std::min(size, ipSize + tcpSize));
    return true;
}

// The two ends of a connection without regard to direction.
struct Key {
    std::uint64_t low;
    std::uint64_t high;
    bool operator==(const Key& other) const { return low == other.low && high == other.high; }
};

struct KeyHash {
    std::size_t operator()(const Key& key) const {
        std::uint64_t mixed = (key.low ^ (key.high << 16 | key.high >> 48)) * 0x9e3779b97f4a7c15U;
        return static_cast<std::size_t>(mixed ^ mixed >> 32);
    }
};

std::uint64_t number(Endpoint end) {
    return std::uint64_t{end.address} << 16 | end.port;
}

Key makeKey(Endpoint a, Endpoint b) {
    const auto [low, high] = std::minmax({number(a), number(b)});
    return {low, high};
}

struct Connection {
    Stream* stream = nullptr;  // owned by the library's follower
    std::unique_ptr<ConnectionSink> sink;
    std::uint64_t opened = 0;  // counts up
    bool hasEnded[2] = {false, false};
};

}  // namespace

class StreamFollower::Impl {
public:
    explicit Impl(ConnectionListener& listener) : listener_(listener) {
        follower_.follow_partial_streams(true);
        follower_.stream_keep_alive(kIdleLimit);
        follower_.new_stream_callback([this](Stream& stream) { open(stream); });
        follower_.stream_termination_callback(
            [this](Stream& stream, Tins::TCPIP::StreamFollower::TerminationReason) {
                close(stream);
            });
    }

    void packet(const Packet& packet) {
        const std::string_view bytes = ipv4Packet(packet.linkType, packet.bytes);
        Segment segment;
        if (!readSegment(bytes, segment))
            return;
        now_ = packet.time;
        const std::chrono::microseconds time = std::chrono::seconds(packet.time.seconds) +
                                               std::chrono::microseconds(packet.time.microseconds);
        try {
            auto pdu =
                std::make_unique<Tins::IP>(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                           static_cast<std::uint32_t>(bytes.size()));
            Tins::Packet decoded(pdu.release(), Tins::Timestamp(time), Tins::Packet::own_pdu());
            follower_.process_packet(decoded);
        } catch (const Tins::exception_base&) {
            return;  // malformed: as if it had not been seen
        }
        if (segment.isFin)
            sawFin(segment);
    }

    void finish() {
        std::vector<Connection*> open;
        for (auto& [key, connection] : connections_)
            open.push_back(&connection);
        std::sort(open.begin(), open.end(),
                  [](const Connection* a, const Connection* b) { return a->opened < b->opened; });
        for (Connection* connection : open)
            connection->sink->closed();
        connections_.clear();
    }

    std::uint64_t opened() const { return opened_; }

private:
    static Endpoint clientOf(const Stream& stream) {
        return {ntohl(stream.client_addr_v4()), stream.client_port()};
    }
    static Endpoint serverOf(const Stream& stream) {
        return {ntohl(stream.server_addr_v4()), stream.server_port()};
    }
    static Key keyOf(const Stream& stream) { return makeKey(clientOf(stream), serverOf(stream)); }

    void open(Stream& stream) {
        Connection& connection = connections_[keyOf(stream)];
        connection.stream = &stream;
        connection.opened = ++opened_;
        connection.sink =
            listener_.opened(clientOf(stream), serverOf(stream), !stream.is_partial_stream());
        // The library empties the payload behind these calls.
        stream.client_data_callback(
            [this, &connection](Stream& s) { hand(connection, Side::kFirst, s.client_payload()); });
        stream.server_data_callback([this, &connection](Stream& s) {
            hand(connection, Side::kSecond, s.server_payload());
        });
        stream.stream_closed_callback([this](Stream& s) { close(s); });
    }

    void hand(Connection& connection, Side side, const Stream::payload_type& payload) {
        if (payload.empty())
            return;
        const std::string_view bytes(reinterpret_cast<const char*>(payload.data()), payload.size());
        if (connection.sink->data(side, bytes, now_))
            return;
        connection.stream->ignore_client_data();
        connection.stream->ignore_server_data();
    }

    // Only one side has finished, or the connection would be gone already.
    void sawFin(const Segment& segment) {
        const auto found = connections_.find(makeKey(segment.source, segment.destination));
        if (found == connections_.end())
            return;
        Connection& connection = found->second;
        const bool isFirst = number(segment.source) == number(clientOf(*connection.stream));
        const Tins::TCPIP::Flow& flow =
            isFirst ? connection.stream->client_flow() : connection.stream->server_flow();
        bool& hasEnded = connection.hasEnded[isFirst ? 0 : 1];
        if (hasEnded || flow.sequence_number() != segment.endSequence)
            return;
        hasEnded = true;
        connection.sink->ended(isFirst ? Side::kFirst : Side::kSecond);
    }

    void close(Stream& stream) {
        const auto found = connections_.find(keyOf(stream));
        if (found == connections_.end())
            return;
        const std::unique_ptr<ConnectionSink> sink = std::move(found->second.sink);
        connections_.erase(found);
        sink->closed();
    }

    ConnectionListener& listener_;
    std::unordered_map<Key, Connection, KeyHash> connections_;
    std::uint64_t opened_ = 0;
    Timestamp now_;
    Tins::TCPIP::StreamFollower follower_;
};

StreamFollower::StreamFollower(ConnectionListener& listener)
    : impl_(std::make_unique<Impl>(listener)) {}

StreamFollower::~StreamFollower() = default;

void StreamFollower::packet(const Packet& packet) {
    impl_->packet(packet);
}

void StreamFollower::finish() {
    impl_->finish();
}

std::uint64_t StreamFollower::connections() const {
    return impl_->opened();
}

}  // namespace kp::capture
