// Whole conversations through HttpConnection, in pieces of every size.
#include "http/http_connection.h"
#include "tcp/piece.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using kp::capture::HttpConnection;
using kp::capture::HttpParser;
using kp::capture::Pairing;
using kp::capture::Side;
using kp::capture::Transaction;
using testing::ElementsAre;
using testing::IsEmpty;
using Rows = std::vector<std::string>;

constexpr Side A = Side::kFirst;
constexpr Side B = Side::kSecond;

// What one side sends at a time; empty text means that it has finished.
struct Turn {
    Side side;
    std::string bytes;
};
using Turns = std::vector<Turn>;

class RowSink : public kp::capture::TransactionSink {
public:
    void transaction(Transaction&& t) override {
        const auto text = [](const std::string& s) { return s.empty() ? "-" : s; };
        rows.push_back(t.method + ' ' + text(t.host) + ' ' + t.target + ' ' +
                       std::to_string(t.status) + ' ' + text(t.contentType) + ' ' +
                       std::to_string(t.bodyBytes) + " @" + std::to_string(t.time.seconds) + " :" +
                       std::to_string(t.client.port));
    }
    Rows rows;
};

// Plays the turns in pieces of at most @p size bytes, the first one of @p first bytes (0: as the
// others). The time of a turn is its index; the ends have the ports 1 (A) and 2 (B).
Rows play(const Turns& turns, std::size_t size = std::string::npos, std::size_t first = 0,
          bool fromStart = true) {
    RowSink sink;
    HttpConnection connection({10, 1}, {20, 2}, fromStart, sink);
    std::uint32_t sent[] = {1000, 5000};
    for (std::size_t i = 0; i < turns.size(); ++i) {
        std::string_view rest = turns[i].bytes;
        if (rest.empty())
            connection.ended(turns[i].side);
        while (!rest.empty()) {
            const std::size_t now = std::min(rest.size(), first != 0 ? first : size);
            // A copy with an end of its own, so that the sanitizer sees a step beyond the piece.
            auto* const piece = new kp::capture::Piece;
            kp::capture::Arrival arrival;
            arrival.time = {static_cast<long>(i), 0};
            const int side = turns[i].side == A ? 0 : 1;
            arrival.sequence = sent[side];
            arrival.acknowledged = sent[1 - side];
            arrival.hasAcknowledged = true;
            sent[side] += static_cast<std::uint32_t>(now);
            piece->keep(rest.substr(0, now), arrival);
            KP_BufferStream stream;
            stream.add(piece);
            stream.setFirst();
            connection.data(turns[i].side, stream);
            rest.remove_prefix(now);
            first -= std::min(first, now);
        }
    }
    connection.closed();
    return sink.rows;
}

const std::string kGet = "GET / HTTP/1.1\r\nHost: h\r\n\r\n";
const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

TEST(HttpConnectionTest, PairsAPipelineInOrderWithAHeadInTheMiddle) {
    EXPECT_THAT(
        play({{A, "GET /1 HTTP/1.1\r\nHost: h\r\n\r\nHEAD /2 HTTP/1.1\r\nHost: h\r\n\r\n" + kGet +
                      "POST /4 HTTP/1.1\r\nContent-Length: 18\r\n\r\nGET /x HTTP/1.1\r\n\n" + kGet},
              {B, kOk +
                      "HTTP/1.1 200 OK\r\nContent-Length: 9999\r\nContent-Type: a/b ; c=d\r\n\r\n" +
                      "HTTP/1.1 304 Not Modified\r\nContent-Length: 7\r\n\r\n" + kOk}}),
        ElementsAre("GET h /1 200 - 2 @0 :1", "HEAD h /2 200 a/b 0 @0 :1", "GET h / 304 - 0 @0 :1",
                    "POST - /4 200 - 2 @0 :1", "GET h / 0 - 0 @0 :1"));
}

TEST(HttpConnectionTest, StepsOverInterimAnswersWithoutShiftingThePairs) {
    EXPECT_THAT(
        play({{A, "PUT /1 HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n"},
              {B, "HTTP/1.1 100 Continue\r\nContent-Length: 5\r\n\r\n"},
              {A, "abc" + kGet},
              {B, "HTTP/1.1 103 Early Hints\r\n\r\nHTTP/1.1 204 No Content\r\n\r\n" + kOk}}),
        ElementsAre("PUT - /1 204 - 0 @0 :1", "GET h / 200 - 2 @2 :1"));
}

TEST(HttpConnectionTest, StopsReadingWhereAnotherProtocolBegins) {
    const std::string connect = "CONNECT h:443 HTTP/1.1\r\n\r\n";
    EXPECT_THAT(play({{A, kGet + kGet}, {B, "HTTP/1.1 101 Go\r\n\r\n" + kOk}}),
                ElementsAre("GET h / 101 - 0 @0 :1"));
    EXPECT_THAT(play({{A, connect + kGet}, {B, "HTTP/1.0 200 OK\r\n\r\n" + kOk}, {A, kGet}}),
                ElementsAre("CONNECT - h:443 200 - 0 @0 :1"));
    EXPECT_THAT(
        play({{A, connect + kGet}, {B, "HTTP/1.1 407 No\r\nContent-Length: 0\r\n\r\n" + kOk}}),
        ElementsAre("CONNECT - h:443 407 - 0 @0 :1", "GET h / 200 - 2 @0 :1"));
    EXPECT_THAT(play({{B, "220 mail.example ESMTP\r\n"}, {A, kGet}, {B, kOk}}), IsEmpty());
    EXPECT_THAT(play({{A, std::string("\x16\x03\x01\x02\x00", 5) + kGet}, {B, kOk}}), IsEmpty());
}

TEST(HttpConnectionTest, FindsTheClientByItsBytesAndReadsAnswersUntilTheyEnd) {
    const std::string page = "HTTP/1.0 200\r\nContent-Type:\r\n\ttext/html\r\n\r\n" + kGet;
    const std::string row = "GET h / 200 text/html " + std::to_string(kGet.size()) + " @0 :2";
    EXPECT_THAT(play({{B, kGet}, {A, page}}), ElementsAre(row));
    EXPECT_THAT(play({{B, kGet}, {A, page}, {A, ""}, {B, ""}, {A, kOk}}), ElementsAre(row));
    EXPECT_THAT(play({{B, kGet}, {A, "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nfour"}}),
                ElementsAre("GET h / 200 - 4 @0 :2"));
    EXPECT_THAT(play({{B, kGet}, {A, "HTTP/1.1 200 OK\r\nContent-Le"}}),
                ElementsAre("GET h / 0 - 0 @0 :2"));
}

TEST(HttpConnectionTest, FindsItsWayIntoAConnectionThatWasThereBefore) {
    const Turns turns = {{A, "the rest of a page http/1.1 of HHTTP/1.1"},
                         {A, "more binary \xff\xfe"},
                         {B, "tail of a form\nname=value\n" + kGet},
                         {A, kOk},
                         {B, kGet},
                         {A, kOk}};
    for (std::size_t size = 1; size < 60; ++size) {
        EXPECT_THAT(play(turns, size, 0, false),
                    ElementsAre("GET h / 200 - 2 @2 :2", "GET h / 200 - 2 @4 :2"))
            << size;
    }
    // Sent within an answer, so it is not known how many wait before it.
    EXPECT_THAT(play({{A, "one page"}, {B, kGet}, {A, " more" + kOk}}, std::string::npos, 0, false),
                ElementsAre("GET h / 0 - 0 @1 :2"));
    EXPECT_THAT(play({{A, kOk}, {B, kGet}, {A, kOk}}, std::string::npos, 0, false),
                ElementsAre("GET h / 200 - 2 @1 :2"));
}

TEST(HttpConnectionTest, GivesTheSameForCutsAnywhere) {
    const Turns turns = {
        {A,
         "\r\n\nget  http://x/a b\tHTTP/1.0 \r\nhOST : first\r\n\t , folded \r\n  \r\nHost: "
         "second\r\n"
         "no colon\r\n\r\n"},
        {B,
         "http/1.1 200 ok\nTransfer-Encoding: gzip,\n CHUNKED\nContent-Length: 3\ncontent-type: "
         "TEXT/x;y=z\n\n"
         "0004;ext=\"GET / HTTP/1.1\"\r\nHTTP\r\n1A\nHTTP/1.1 200 OK 0123456789\n0\r\n"
         "Trailer: x\r\n : HTTP/1.1 500 no\r\n\r\n"},
        {A,
         "M-SEARCH * HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nGET\r\n0\r\n\r\n" + kGet},
        {B, "garbage between HTTP/1.1 x\r\nHTTHTTP/1.1 404\r\nContent-Length: 0, 0\r\n\r\n"},
        {B, "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 299 \r\n\r\nuntil the end"},
        {B, ""},
        {A, kGet}};
    const Rows whole = play(turns);
    EXPECT_THAT(whole, ElementsAre("get first , folded http://x/a b 200 TEXT/x 30 @0 :1",
                                   "M-SEARCH - * 404 - 0 @2 :1", "GET h / 299 - 13 @2 :1",
                                   "GET h / 0 - 0 @6 :1"));
    std::size_t total = 0;
    for (const Turn& turn : turns)
        total += turn.bytes.size();
    for (std::size_t cut = 1; cut < total; ++cut) {
        ASSERT_EQ(play(turns, cut), whole) << "pieces of " << cut;
        ASSERT_EQ(play(turns, 1, cut), whole) << "single bytes behind " << cut;
    }
}

TEST(HttpConnectionTest, MakesNothingOfWhatHasNoCounterpart) {
    EXPECT_THAT(play({{A, kGet}, {B, kOk + kOk + kOk}, {A, kGet}, {B, kOk}}),
                ElementsAre("GET h / 200 - 2 @0 :1", "GET h / 200 - 2 @2 :1"));
    EXPECT_THAT(play({{A, kGet}, {B, kGet + kOk}}), ElementsAre("GET h / 200 - 2 @0 :1"));
    EXPECT_THAT(play({{A, "GET / HTTP/1.1\r\nHost: h\r\n"}, {B, kOk}}), IsEmpty());
}

TEST(HttpConnectionTest, TakesNoLengthThatItCannotTrust) {
    const auto rowFor = [](const std::string& fields) {
        const Rows rows = play({{A, kGet}, {B, "HTTP/1.1 200 OK\r\n" + fields + "\r\n\r\n" + kOk}});
        return rows.size() == 1 ? rows[0] : std::to_string(rows.size()) + " rows";
    };
    const std::string untilClose = "GET h / 200 - " + std::to_string(kOk.size()) + " @0 :1";
    for (const char* value : {"x", "-1", "+3", "3x", "0x3", "3,4", "3, ", "18446744073709551616",
                              "99999999999999999999999", "3\r\nContent-Length: 4"}) {
        EXPECT_EQ(rowFor("Content-Length: " + std::string(value)), untilClose) << value;
        // Behind such a request nothing is taken for another one.
        EXPECT_THAT(play({{A, "POST / HTTP/1.1\r\nContent-Length: " + std::string(value) +
                                  "\r\n\r\n" + kGet},
                          {B, kOk + kOk}}),
                    ElementsAre("POST - / 200 - 2 @0 :1"))
            << value;
    }
    EXPECT_EQ(rowFor("Transfer-Encoding: chunked, gzip\r\nContent-Length: 1"), untilClose);
    EXPECT_EQ(rowFor("Content-Length: 18446744073709551615"), untilClose);  // all that came
    EXPECT_EQ(rowFor("Content-Length: 3\r\nContent-Length: 3"), "GET h / 200 - 3 @0 :1");

    const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n2\r\nab\r\n";
    for (const std::string& size :
         {std::string("10000000000000000"), std::string("-1"), std::string(";"), std::string("x"),
          std::string(HttpParser::kHeadLimit + 1, '0'),
          "1;" + std::string(HttpParser::kHeadLimit, 'e')}) {
        EXPECT_EQ(rowFor(chunked + size + "\r\nabc"), "GET h / 200 - 2 @0 :1")
            << size.substr(0, 20);
    }
    EXPECT_EQ(rowFor(chunked + "FFFFFFFFFFFFFFFF\r\nabc"),
              "GET h / 200 - " + std::to_string(5 + 4 + kOk.size()) + " @0 :1");
    EXPECT_EQ(rowFor(chunked + "1\r\nabc"), "GET h / 200 - 3 @0 :1");
}

TEST(HttpConnectionTest, GivesUpAHeadWithoutAnEndAndNothingElse) {
    const auto headOf = [](const std::string& start, std::size_t size) {
        return start + "F: " + std::string(size - start.size() - 7, 'x') + "\r\n\r\n";
    };
    const std::string request = "GET /big HTTP/1.1\r\n";
    const std::string answer = "HTTP/1.1 201 Big\r\n";
    const std::string overlong = kGet + headOf(request, HttpParser::kHeadLimit + 1) + kGet;
    for (const std::size_t piece : {std::size_t{1}, std::size_t{1460}, std::string::npos}) {
        EXPECT_THAT(play({{A, headOf(request, HttpParser::kHeadLimit)},
                          {B, headOf(answer, HttpParser::kHeadLimit)}},
                         piece),
                    ElementsAre("GET - /big 201 - 0 @0 :1"));
        EXPECT_THAT(play({{A, overlong}, {B, kOk + kOk}}, piece),
                    ElementsAre("GET h / 200 - 2 @0 :1"));
        EXPECT_THAT(
            play({{A, kGet + kGet}, {B, kOk + headOf(answer, HttpParser::kHeadLimit + 1)}}, piece),
            ElementsAre("GET h / 200 - 2 @0 :1", "GET h / 0 - 0 @0 :1"));
        EXPECT_THAT(
            play({{A, "GET /" + std::string(HttpParser::kHeadLimit, 'x')}, {B, kOk}}, piece),
            IsEmpty());
    }
}

TEST(HttpConnectionTest, BoundsWhatWaitsWithoutShiftingThePairs) {
    constexpr std::size_t kMore = 3;
    std::string flood;
    for (std::size_t i = 0; i < Pairing::kMostWaiting + kMore; ++i) {
        flood += "GET /" + std::to_string(i) + " HTTP/1.1\r\n\r\n";
    }
    std::string answers;
    for (std::size_t i = 0; i < kMore + 1; ++i)
        answers += kOk;
    const Rows rows = play({{A, flood}, {B, answers}});
    ASSERT_EQ(rows.size(), Pairing::kMostWaiting + kMore);
    EXPECT_EQ(rows[kMore - 1], "GET - /2 0 - 0 @0 :1");
    EXPECT_EQ(rows[kMore], "GET - /3 200 - 2 @0 :1");
    EXPECT_EQ(rows[kMore + 1], "GET - /4 0 - 0 @0 :1");

    // Long texts: a megabyte of them holds 17 of these.
    std::string large;
    for (int i = 0; i < 20; ++i)
        large += "GET /" + std::string(60000, 'x') + " HTTP/1.1\n\n";
    EXPECT_EQ(play({{A, large}, {B, kOk + kOk + kOk}}, 1460).size(), 20U);
    EXPECT_THAT(play({{A, large}, {B, kOk + kOk + kOk}}).back(), testing::HasSubstr(" 0 - 0"));
}

}  // namespace
