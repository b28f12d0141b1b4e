#include "kp/wire/primitives.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kp/core/log.h"
#include "support/child.h"
#include "support/installation.h"
#include "support/socket_pair.h"

namespace {

using kp::test::Outcome;
using kp::test::runInChild;
using kp::test::SocketPair;

template <std::size_t N>
std::string bytes(const char (&literal)[N]) {
    return {literal, N - 1};
}

struct Reader {
    std::string name;
    std::function<int(int, std::int64_t&)> read;
    std::string wire;
    std::int64_t value;
};

// The destination holds something else before, so that a zero in it was put there.
template <class Value>
Reader reader(const char* name, int (*read)(int, Value*), const std::string& wire,
              std::int64_t value) {
    return {name,
            [read](int socket, std::int64_t& result) {
                Value got = 77;
                const int status = read(socket, &got);
                result = static_cast<std::int64_t>(got);
                return status;
            },
            wire, value};
}

const Reader kReaders[] = {
    reader("readJ_Boolean", readJ_Boolean, bytes("\x02"), 2),
    reader("readJ_Boolean", readJ_Boolean, bytes("\xFF"), 255),
    reader("readJ_UInt8", readJ_UInt8, bytes("\x12\x34"), 0x34),
    reader("readJ_SInt16", readJ_SInt16, bytes("\x12\x34"), 0x1234),
    reader("readJ_SInt16", readJ_SInt16, bytes("\x80\x00"), -32768),
    reader("readJ_UInt16", readJ_UInt16, bytes("\x12\x34\x56\x78"), 0x5678),
    reader("readJ_UInt16", readJ_UInt16, bytes("\xFF\xFF\xFF\xFE"), 0xFFFE),
    reader("readJ_SInt32", readJ_SInt32, bytes("\xFF\xFF\xFF\xFE"), -2),
    reader("readJ_SInt32", readJ_SInt32, bytes("\x7F\x00\x80\x01"), 0x7F008001),
    reader("readJ_UInt32", readJ_UInt32, bytes("\x01\x02\x03\x04\x89\xAB\xCD\xEF"), 0x89ABCDEF),
    reader<std::int64_t>("readJ_SInt64", readJ_SInt64, bytes("\x01\x02\x03\x04\x05\x06\x07\x80"),
                         0x0102030405060780),
    reader<long long>("readJ_SInt64", readJ_SInt64, bytes("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"), -1),
};

struct Writer {
    std::string name;
    std::function<int(int)> write;
    std::string wire;
};

const Writer kWriters[] = {
    {"writeJ_UInt8", [](int s) { return writeJ_Boolean(s, 1); }, bytes("\x00\x01")},
    {"writeJ_UInt8", [](int s) { return writeJ_Boolean(s, 256); }, bytes("\x00\x00")},
    {"writeJ_UInt8", [](int s) { return writeJ_UInt8(s, 0xAB); }, bytes("\x00\xAB")},
    {"writeJ_UInt16", [](int s) { return writeJ_UInt16(s, 0x1234); }, bytes("\x00\x00\x12\x34")},
    {"writeJ_SInt32", [](int s) { return writeJ_SInt32(s, -2); }, bytes("\xFF\xFF\xFF\xFE")},
    {"writeJ_UInt32", [](int s) { return writeJ_UInt32(s, 0x89ABCDEF); },
     bytes("\x00\x00\x00\x00\x89\xAB\xCD\xEF")},
    {"writeJ_SInt64", [](int s) { return writeJ_SInt64(s, 0x0102030405060780); },
     bytes("\x01\x02\x03\x04\x05\x06\x07\x80")},
    {"writeJ_SInt64", [](int s) { return writeJ_SInt64(s, -1); },
     bytes("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF")},
};

class WireTest : public kp::test::InstallationTest {
protected:
    void SetUp() override { site_.openLog(); }
};

TEST_F(WireTest, ReadersDecodeAndTakeNoByteBeyondTheValue) {
    for (const Reader& each : kReaders) {
        SocketPair pair;
        std::int64_t value = 0;
        pair.send(each.wire + "next");
        EXPECT_EQ(each.read(pair.ours(), value), 0) << each.name;
        EXPECT_EQ(value, each.value) << each.name;
        EXPECT_EQ(SocketPair::unread(pair.ours()), "next") << each.name;
    }
}

TEST_F(WireTest, ReadersGiveNoValueThatDidNotArriveWhole) {
    for (const Reader& each : kReaders) {
        for (std::size_t size = 0; size < each.wire.size(); ++size) {
            SCOPED_TRACE(each.name + " after " + std::to_string(size));
            for (const bool broken : {false, true}) {
                SocketPair pair;
                std::int64_t value = 5;
                pair.send(each.wire.substr(0, size));
                if (broken) {  // what the peer leaves unread makes a failure of its end
                    EXPECT_EQ(writeJ_UInt8(pair.ours(), 0), 0);
                }
                pair.closeTheirs();
                EXPECT_EQ(each.read(pair.ours(), value), -1);
                EXPECT_EQ(value, 0);
                EXPECT_EQ(site_.newLog(),
                          broken ? "TIME - " + each.name + ": error reading from stream\n" : "");
            }
        }
        std::int64_t value = 5;
        EXPECT_EQ(each.read(-1, value), -1);
        EXPECT_EQ(value, 0);
        EXPECT_EQ(site_.newLog(), "TIME - " + each.name + ": error reading from stream\n");
    }
}

TEST_F(WireTest, WritersEncodeAndTellWhatWasNotSent) {
    for (const Writer& each : kWriters) {
        SocketPair pair;
        EXPECT_EQ(each.write(pair.ours()), 0) << each.name;
        EXPECT_EQ(SocketPair::unread(pair.theirs()), each.wire) << each.name;
        EXPECT_EQ(site_.newLog(), "");
        pair.closeTheirs();
        const std::string line = "TIME - " + each.name + ": Data not sent properly.\n";
        EXPECT_EQ(each.write(pair.ours()), -1) << each.name;  // and no signal ended us
        EXPECT_EQ(site_.newLog(), line);
        EXPECT_EQ(each.write(-1), -1) << each.name;
        EXPECT_EQ(site_.newLog(), line);
    }
}

TEST_F(WireTest, LinesEndAtALineFeedAtTheSizeOrWithThePeer) {
    SocketPair pair;
    std::vector<char> buffer;
    const auto line = [&](int size) {
        buffer.assign(static_cast<std::size_t>(size), '#');
        return readJ_line(pair.ours(), buffer.data(), size);
    };
    pair.send(bytes("ab\r\n\nabcde\nc\0d"));
    EXPECT_EQ(line(10), 3);
    EXPECT_STREQ(buffer.data(), "ab\r");
    EXPECT_EQ(line(1), 0);
    EXPECT_STREQ(buffer.data(), "");
    EXPECT_EQ(readJ_line(pair.ours(), nullptr, 0), 0);
    EXPECT_EQ(readJ_line(pair.ours(), nullptr, -1), 0);
    EXPECT_EQ(line(10), 0);
    EXPECT_STREQ(buffer.data(), "");
    for (const char* part : {"ab", "cd", "e"}) {
        EXPECT_EQ(line(3), static_cast<int>(std::string(part).size()));
        EXPECT_STREQ(buffer.data(), part);
    }
    pair.closeTheirs();
    EXPECT_EQ(line(10), 3);
    EXPECT_EQ(std::string(buffer.data(), 4), bytes("c\0d\0"));
    EXPECT_EQ(line(10), 0);
    EXPECT_STREQ(buffer.data(), "");
    EXPECT_EQ(readJ_line(-1, buffer.data(), 10), -1);
    EXPECT_EQ(site_.newLog(), "");
}

TEST_F(WireTest, BlocksTravelWholeWhateverTheSocketTakesAtOnce) {
    SocketPair pair;
    std::string sent(1 << 20, '\0');
    for (std::size_t i = 0; i < sent.size(); ++i) {
        sent[i] = static_cast<char>(i * i >> 7);
    }
    const int n = static_cast<int>(sent.size());
    std::thread peer([&] {
        EXPECT_EQ(writeJ_n_chars(pair.theirs(), sent.data(), n), n);
        EXPECT_EQ(writeJ_n_chars(pair.theirs(), "last", 4), 4);
        pair.closeTheirs();
    });
    std::vector<char> got(sent.size());
    EXPECT_EQ(readJ_n_chars(pair.ours(), got.data(), n), n);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), sent.begin()));
    EXPECT_EQ(readJ_n_chars(pair.ours(), got.data(), 10), 4);
    peer.join();
    EXPECT_EQ(std::string(got.data(), 4), "last");
    EXPECT_EQ(readJ_n_chars(pair.ours(), got.data(), 10), 0);
    EXPECT_EQ(readJ_n_chars(-1, got.data(), 10), -1);
    for (const int none : {0, -1}) {
        EXPECT_EQ(readJ_n_chars(-1, nullptr, none), 0);
        EXPECT_EQ(writeJ_n_chars(-1, nullptr, none), 0);
    }
    EXPECT_EQ(site_.newLog(), "");
}

TEST_F(WireTest, ABlockThatCannotBeSentIsToldTwiceOnStandardOutput) {
    SocketPair pair;
    pair.closeTheirs();
    const std::string big(1 << 20, 'x');
    EXPECT_EQ(::fcntl(pair.ours(), F_SETFL, O_NONBLOCK), 0);
    const SocketPair full;  // takes a part and no more
    EXPECT_EQ(::fcntl(full.ours(), F_SETFL, O_NONBLOCK), 0);
    for (const int socket : {pair.ours(), full.ours(), -1}) {
        // Standard output goes to the log as well, to see in which order the lines come.
        const Outcome outcome = runInChild([&] {
            ::dup2(::fileno(KP_Log::getFD()), STDOUT_FILENO);
            return writeJ_n_chars(socket, big.data(), static_cast<int>(big.size())) == -1 ? 7 : 0;
        });
        EXPECT_EQ(outcome.status, 7);
        EXPECT_EQ(site_.newLog(),
                  "writeJ_n_chars: BEFORE\nTIME - writeJ_n_chars: Data not sent properly.\n"
                  "writeJ_n_chars: AFTER\n");
    }
}

}  // namespace
