// What kp-capture does not understand is counted, by reason.
#include <gtest/gtest.h>
#include <pcap/dlt.h>

#include <memory>
#include <string>

#include "http/http_connection.h"
#include "packet/segment.h"
#include "tcp/stream_follower.h"

namespace {

using kp::capture::Segment;
using kp::capture::SegmentReader;
using kp::capture::Unread;
using namespace std::string_literals;

// An IPv4 packet of 20 bytes of header; @p offset: the field of fragments.
std::string ipv4(unsigned protocol, const std::string& data, unsigned offset = 0, char id = 0) {
    const std::size_t size = 20 + data.size();
    std::string packet = "\x45\0\0\0\0\0\0\0\x40\0\0\0\x0A\0\0\1\x0A\0\0\2"s;
    packet[2] = static_cast<char>(size >> 8);
    packet[3] = static_cast<char>(size);
    packet[5] = id;
    packet[6] = static_cast<char>(offset >> 8);
    packet[7] = static_cast<char>(offset);
    packet[9] = static_cast<char>(protocol);
    return packet + data;
}

TEST(UnreadTest, PacketsAreCountedByTheReasonWhyTheyHoldNoSegment) {
    const std::string tcp = "\x30\x39\0\x50\0\0\0\1\0\0\0\0\x50\x02\xFF\xFF\0\0\0\0"s;
    constexpr unsigned kMore = 0x2000;
    SegmentReader reader;
    Segment segment;
    const auto read = [&](const std::string& packet, std::int64_t seconds) {
        return reader.read(DLT_RAW, packet, {seconds, 0}, segment);
    };
    EXPECT_TRUE(read(ipv4(6, tcp), 0));
    EXPECT_FALSE(read("\x60"s + std::string(60, '\0'), 0));  // IPv6
    EXPECT_FALSE(read(ipv4(17, tcp), 0));
    EXPECT_FALSE(read(ipv4(17, tcp), 0));
    EXPECT_FALSE(read(ipv4(6, tcp).substr(0, 30), 0));
    EXPECT_FALSE(read(ipv4(6, tcp).substr(0, 19), 0));
    EXPECT_FALSE(read(ipv4(6, tcp.substr(0, 12) + "\x10"s + tcp.substr(13)), 0));
    EXPECT_FALSE(read(ipv4(6, tcp.substr(0, 16), kMore, 1), 0));   // never whole
    EXPECT_FALSE(read(ipv4(6, tcp.substr(0, 16), kMore, 2), 31));  // the first one is given up
    EXPECT_TRUE(read(ipv4(6, tcp.substr(16), 2, 2), 31));
    EXPECT_FALSE(read(ipv4(6, tcp.substr(0, 16), kMore, 3), 31));  // nor this, until the end
    Unread unread;
    reader.unread().addTo(unread);
    EXPECT_EQ(unread.text(),
              "1 packets not IPv4, 2 not TCP, 3 truncated, "
              "1 given up as fragments are missing");
    reader.finish();
    Unread atTheEnd;
    reader.unread().addTo(atTheEnd);
    EXPECT_EQ(atTheEnd.fragments, 2U);
}

class Count : public kp::capture::TransactionSink {
public:
    void transaction(kp::capture::Transaction&&) override { ++transactions; }
    void notHttp() override { ++others; }
    int transactions = 0;
    int others = 0;
};

class OneConnection : public kp::capture::ConnectionListener {
public:
    explicit OneConnection(Count& count) : count_(count) {}
    std::unique_ptr<kp::capture::ConnectionSink> opened(kp::capture::Endpoint first,
                                                        kp::capture::Endpoint second,
                                                        bool fromStart,
                                                        std::uint64_t number) override {
        return std::make_unique<kp::capture::HttpConnection>(first, second, fromStart, count_,
                                                             number);
    }

private:
    Count& count_;
};

// What a connection that begins with @p data counts; @p fromStart: its SYN is seen.
Count follow(const std::string& data, bool fromStart) {
    Count count;
    OneConnection listener(count);
    kp::capture::StreamFollower follower(listener, 1 << 20);
    Segment segment;
    segment.source = {1, 1000};
    segment.destination = {2, 80};
    segment.sequence = 100;
    if (fromStart) {
        segment.flags = Segment::kSyn;
        follower.segment(segment);
        ++segment.sequence;
    }
    segment.flags = Segment::kAck;
    segment.payload = data;
    follower.segment(segment);
    follower.finish();
    return count;
}

TEST(UnreadTest, ConnectionsWithSomethingElseThanHttpCountOnce) {
    for (const bool fromStart : {false, true}) {
        EXPECT_EQ(follow("\x16\x03\x01\x02\0\x01\0\x01\xFC\x03\x03 and so on"s, fromStart).others,
                  1);
        const Count http = follow("GET / HTTP/1.1\r\nHost: a\r\n\r\n", fromStart);
        EXPECT_EQ(http.others, 0);
        EXPECT_EQ(http.transactions, 1);
    }
}

}  // namespace
