// Connections beyond the memory limit, and times that decide.
#include "tcp/stream_follower.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

namespace {

using kp::capture::ConnectionSink;
using kp::capture::Endpoint;
using kp::capture::kOneSecond;
using kp::capture::Segment;
using kp::capture::Side;
using kp::capture::StreamFollower;

/// Writes down what happens: the connection's port, then bytes, "(n)" for missing ones, "." at the
/// end.
class Sink : public ConnectionSink {
public:
    Sink(std::string& story, int port) : story_(story), name_(std::to_string(port)) {}
    bool data(Side, KP_BufferStream& bytes) override {
        story_ += name_ + ":";
        for (bool more = bytes.firstRun(); more; more = bytes.nextRun())
            story_ += bytes.run();
        story_ += ' ';
        return true;
    }
    void missing(Side, std::uint64_t count) override {
        story_ += "(" + std::to_string(count) + ") ";
    }
    std::size_t memory() const override { return 1000; }
    void ended(Side) override {}
    void closed() override { story_ += name_ + ". "; }

private:
    std::string& story_;
    std::string name_;
};

class FollowerTest : public testing::Test, public kp::capture::ConnectionListener {
protected:
    std::unique_ptr<ConnectionSink> opened(Endpoint first, Endpoint, bool, std::uint64_t) override {
        ++sinks_;
        return std::make_unique<Sink>(story_, first.port);
    }
    void send(StreamFollower& follower, int port, std::uint32_t sequence, const std::string& bytes,
              std::int64_t seconds, std::uint8_t flags = Segment::kAck) {
        pass(follower, {1, static_cast<std::uint16_t>(port)}, {2, 80}, sequence, 0, bytes, seconds,
             flags);
    }
    void answer(StreamFollower& follower, std::uint32_t sequence, std::uint32_t acknowledgement,
                const std::string& bytes, std::int64_t seconds) {
        pass(follower, {2, 80}, {1, 1}, sequence, acknowledgement, bytes, seconds, Segment::kAck);
    }
    static void pass(StreamFollower& follower, Endpoint source, Endpoint destination,
                     std::uint32_t sequence, std::uint32_t acknowledgement,
                     const std::string& bytes, std::int64_t seconds, std::uint8_t flags) {
        Segment segment;
        segment.source = source;
        segment.destination = destination;
        segment.sequence = sequence;
        segment.acknowledgement = acknowledgement;
        segment.flags = flags;
        segment.payload = bytes;
        segment.time = {seconds, 0};
        segment.clock = seconds * kOneSecond;
        follower.segment(segment);
    }

    std::string story_;
    int sinks_ = 0;
};

TEST_F(FollowerTest, GivesUpTheConnectionsThatWereSilentLongest) {
    StreamFollower follower(*this, 200000);
    send(follower, 1, 100, "first", 0);
    for (int port = 2; port < 5000; ++port) {
        send(follower, port, 100, "x", 0);
        send(follower, 1, 105, "", 0);  // never the most silent one
    }
    EXPECT_LT(follower.open(), 200U);
    EXPECT_EQ(follower.givenUp() + follower.open(), 4999U);
    EXPECT_NE(story_.find(" 2. "), std::string::npos);  // its end was told
    EXPECT_EQ(story_.find(" 1. "), std::string::npos);
    send(follower, 1, 105, "last", 0);
    EXPECT_NE(story_.find("1:last "), std::string::npos);

    // Starts without data cost little, and no sink at all.
    const int sinks = sinks_;
    for (int port = 5000; port < 9000; ++port)
        send(follower, port, 100, "", 0, Segment::kSyn);
    EXPECT_EQ(sinks_, sinks);
    EXPECT_LT(follower.open(), 1000U);
    // One connection alone cannot take everything.
    StreamFollower small(*this, 3000000);
    send(small, 1, 0, "a", 0);
    for (std::uint32_t at = 2; at < 5000; ++at)
        send(small, 1, at * 1000, std::string(900, 'b'), 0);
    EXPECT_GT(small.missingBytes(), 0U);
    EXPECT_EQ(small.givenUp(), 0U);
}

TEST_F(FollowerTest, StepsOverAGapInTimeAndClosesWhatIsSilent) {
    StreamFollower follower(*this, 1000000);
    send(follower, 1, 100, "ab", 0);
    send(follower, 1, 104, "ef", 1);  // two are missing
    send(follower, 1, 106, "gh", 4);
    EXPECT_EQ(story_, "1:ab ");
    send(follower, 1, 102, "c", 5);  // one came late
    EXPECT_EQ(story_, "1:ab 1:c ");
    follower.expire(10 * kOneSecond);
    EXPECT_EQ(story_, "1:ab 1:c ");
    follower.expire(11 * kOneSecond);  // five seconds after the last byte in order
    EXPECT_EQ(story_, "1:ab 1:c (1) 1:ef 1:gh ");
    follower.expire(5 * kOneSecond + StreamFollower::kIdle);
    EXPECT_EQ(follower.open(), 1U);
    follower.expire(6 * kOneSecond + StreamFollower::kIdle);
    EXPECT_EQ(story_, "1:ab 1:c (1) 1:ef 1:gh 1. ");
    EXPECT_EQ(follower.open(), 0U);
}

TEST_F(FollowerTest, WhatWaitedForStraysIsHandedOutWhenTheyAreDropped) {
    StreamFollower follower(*this, 1000000);
    send(follower, 1, 100, "ab", 0);
    answer(follower, 0, 102, "AB", 1);
    send(follower, 1, 104, "ef", 2);    // behind a gap, and never acknowledged
    answer(follower, 2, 103, "CD", 2);  // answers what was not captured
    follower.expire(7 * kOneSecond);
    EXPECT_EQ(story_, "1:ab 1:AB ");
    follower.expire(8 * kOneSecond);
    EXPECT_EQ(story_, "1:ab 1:AB 1:CD ");
    send(follower, 1, 102, "cd", 8);
    EXPECT_EQ(story_, "1:ab 1:AB 1:CD 1:cd ");
}

TEST_F(FollowerTest, WaitsHalfASecondForTheDirectionThatIsCapturedLater) {
    StreamFollower follower(*this, 1000000);
    const auto at = [](int milliseconds) { return milliseconds * (kOneSecond / 1000); };
    send(follower, 1, 100, "", 0, Segment::kSyn);
    answer(follower, 50, 104, "AB", 0);
    answer(follower, 52, 106, "CD", 0);
    follower.expire(at(500));
    EXPECT_EQ(story_, "");
    send(follower, 1, 101, "abc", 0);
    EXPECT_EQ(story_, "1:abc 1:AB ");
    follower.expire(at(501));  // and no longer
    EXPECT_EQ(story_, "1:abc 1:AB 1:CD ");
    answer(follower, 54, 106, "EF", 1);
    EXPECT_EQ(story_, "1:abc 1:AB 1:CD 1:EF ");  // that was waited for already

    // A reset does not overtake what was sent before it, and is no stray's.
    story_.clear();
    pass(follower, {2, 80}, {1, 1}, 56, 108, "", 1, Segment::kReset | Segment::kAck);
    EXPECT_EQ(story_, "");
    send(follower, 1, 104, "de", 1);
    EXPECT_EQ(story_, "1:de ");
    send(follower, 1, 106, "fg", 1);
    EXPECT_EQ(story_, "1:de 1:fg 1. ");

    // Of a direction that is never seen nothing is waited for any more.
    story_.clear();
    const std::uint32_t far = 100000000;
    answer(follower, far, far, "A", 100);
    answer(follower, far + 1, far + 10, "B", 100);
    EXPECT_EQ(story_, "80:A ");
    answer(follower, far + 2, far + 20, "C", 101);
    EXPECT_EQ(story_, "80:A 80:BC ");
}

TEST_F(FollowerTest, TellsAGapFromAnotherConnectionByTheWindow) {
    StreamFollower follower(*this, 10000000);
    send(follower, 1, 100, "ab", 0);
    answer(follower, 0, 102, "AB", 0);
    // Ports that are used again, both sides with other numbers; the starts were not captured.
    const std::uint32_t far = 100000000;
    pass(follower, {1, 1}, {2, 80}, far, far, "cd", 1, Segment::kAck);
    answer(follower, far, far + 2, "CD", 1);
    EXPECT_EQ(follower.connections(), 2U);
    // One stray does not end a connection, two segments in a row do.
    pass(follower, {1, 1}, {2, 80}, 3 * far, far + 2, "xx", 1, Segment::kAck);
    pass(follower, {1, 1}, {2, 80}, far + 2, far + 2, "ef", 1, Segment::kAck);
    EXPECT_EQ(follower.connections(), 2U);
    pass(follower, {1, 1}, {2, 80}, 3 * far, far + 2, "xx", 2, Segment::kAck);
    pass(follower, {1, 1}, {2, 80}, 3 * far + 2, far + 2, "gh", 2, Segment::kAck);
    EXPECT_EQ(follower.connections(), 3U);
    follower.finish();
    EXPECT_EQ(story_, "1:ab 1:AB 1:cd 1:CD 1:ef 1. 1:gh 1. 1. ");
    EXPECT_EQ(follower.missingBytes(), 0U);
}

TEST_F(FollowerTest, HoldsAWindowOfSegmentsBackBehindOneThatIsLate) {
    StreamFollower follower(*this, 10000000);
    const std::string bytes(1460, 'x');
    const auto place = [&](std::size_t number) {
        return static_cast<std::uint32_t>(number * bytes.size());
    };
    send(follower, 1, 0, bytes, 0);
    for (std::size_t number = 2; number < 2000; ++number)
        send(follower, 1, place(number), bytes, 0);
    send(follower, 1, place(1), bytes, 0);
    EXPECT_EQ(std::count(story_.begin(), story_.end(), 'x'), 2000 * 1460);
    EXPECT_EQ(follower.missingBytes(), 0U);
}

}  // namespace
