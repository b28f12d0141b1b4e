#include "kp/text/string.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "kp/core/no_more_memory_exception.h"
#include "support/child.h"
#include "support/failing_malloc.h"
#include "support/installation.h"
#include "support/socket_pair.h"

namespace {

using kp::test::FailingMalloc;
using kp::test::SocketPair;

const char* textOf(const KP_String& s) {
    return s;
}

// Whether the string has just this text, and says so by its length too.
::testing::AssertionResult holds(const KP_String& s, const std::string& text) {
    const bool same = s.view() == text && std::strlen(s) == text.size();
    return (same ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
           << "'" << s << "', length " << s.getLength();
}

TEST(StringTest, StartsWithTheTextAndTheRoomOfItsConstructor) {
    const char* const none = nullptr;
    const KP_String source("abc", 7U);
    KP_String empty[] = {KP_String(),        KP_String(5),       KP_String(-5),      KP_String(6U),
                         KP_String(none, 0), KP_String(none, 1), KP_String(none, 3U)};
    KP_String abc[] = {KP_String("abc", 2), KP_String("abc", 9U),         KP_String("abc", 1),
                       KP_String(source),   KP_String(source, 8U),        KP_String(source, -8),
                       KP_String("abc"),    KP_String(std::string("abc"))};
    const auto check = [](KP_String& s, const char* text, std::size_t room) {
        EXPECT_TRUE(holds(s, text));
        EXPECT_EQ(!s, *text == '\0' ? 1 : 0);
        EXPECT_EQ(s.getElement(), &s);
        EXPECT_EQ(s.countChain(), 1);
        EXPECT_EQ(s.getKey(), 0xFFFFFFFF);
        const std::string filling(room, 'x');
        const FailingMalloc counting;
        s &= filling.c_str();
        EXPECT_EQ(counting.allocations(), 0) << room;
    };
    const std::size_t emptyRoom[] = {32, 5, 0, 6, 1, 1, 3};
    const std::size_t abcRoom[] = {0, 9, 0, 8, 16, 8, 0, 0};
    for (std::size_t i = 0; i < std::size(empty); ++i) {
        check(empty[i], "", emptyRoom[i]);
    }
    for (std::size_t i = 0; i < std::size(abc); ++i) {
        check(abc[i], "abc", abcRoom[i]);
    }
}

const KP_String& same(const KP_String& s) {
    return s;
}

void release(KP_Object* object) {
    if (object != nullptr) {
        object->release();
    }
}

// What changes the text "ababc", most of it with own text as operand, and what comes of it.
struct Change {
    void (*change)(KP_String&);
    const char* result;
};
const Change kChanges[] = {
    {[](KP_String& s) { s &= same(s); }, "ababcababc"},
    {[](KP_String& s) { s &= textOf(s) + 2; }, "ababcabc"},
    {[](KP_String& s) { s << same(s); }, "ababcababc"},
    {[](KP_String& s) { s << 'x'; }, "ababcx"},
    {[](KP_String& s) { s << 1e15; }, "ababc1000000000000000.000000"},
    {[](KP_String& s) { s << 1234567890123456789; }, "ababc1234567890123456789"},
    {[](KP_String& s) { s %= same(s); }, ""},
    {[](KP_String& s) { s %= textOf(s) + 3; }, "aba"},
    {[](KP_String& s) { s.extractSubString(textOf(s) + 4, 2); }, "abab"},
    {[](KP_String& s) { s.extractSubString("ab", 2); }, "c"},
    {[](KP_String& s) { s = textOf(s) + 3; }, "bc"},
    {[](KP_String& s) { s = s.view().substr(1, 2); }, "ba"},
    {[](KP_String& s) { s = "another text"; }, "another text"},
    {[](KP_String& s) { s = nullptr; }, ""},
    {[](KP_String& s) { s = KP_String(textOf(s) + 1, 1); }, "babc"},
    {[](KP_String& s) { s &= KP_String(textOf(s) + 1, 1); }, "ababcbabc"},
    {[](KP_String& s) { s.setSubString(s, 2, 0); }, "abababcabc"},
    {[](KP_String& s) { s.setSubString(textOf(s) + 1, 3, 3); }, "abababbc"},
    {[](KP_String& s) { s.setSubString(s, 5, 2); }, "ababcab"},
    {[](KP_String& s) { s.hexify(textOf(s) + 3, 2); }, "6263"},
    {[](KP_String& s) { s = (s & s) % "abc" & s.getSubString(3, 1); }, "abababcb"},
    {[](KP_String& s) { s = "12" & s; }, "12ababc"},
    {[](KP_String& s) { s = std::move(const_cast<KP_String&>(same(s))); }, "ababc"},
    {[](KP_String& s) { s.toUpper(); }, "ABABC"},
    {[](KP_String& s) { s.stpcvt(32); }, "ABABC"},
    {[](KP_String& s) { s.truncateString(2); }, "ab"},
    {[](KP_String& s) { s.grow(300); }, "ababc"},
    {[](KP_String& s) { s.grow(1); }, "ababc"},
    {[](KP_String& s) { release(s.copy()); }, "ababc"},
    {[](KP_String&) { release(KP_String::create()); }, "ababc"},
};

TEST(StringTest, ChangesOwnAndBorrowedTextAndIsAsItWasWithoutMemory) {
    for (std::size_t i = 0; i < std::size(kChanges); ++i) {
        SCOPED_TRACE(i);
        for (const unsigned int extra : {0U, 3U, 100U}) {
            KP_String s("ababc", extra);
            kChanges[i].change(s);
            EXPECT_TRUE(holds(s, kChanges[i].result)) << extra;
        }
        for (const int borrows : {0, 1}) {
            char lent[] = "ababc";
            kp::test::failEachAllocation([&] {
                const char* expected = lent;
                try {
                    KP_String s(lent, borrows);
                    try {
                        kChanges[i].change(s);
                        expected = kChanges[i].result;
                    } catch (const KP_NoMoreMemoryException&) {
                    }
                    return s.view() == expected && std::strcmp(s, expected) == 0 &&
                           std::strcmp(lent, "ababc") == 0;
                } catch (const KP_NoMoreMemoryException&) {
                    return borrows == 0;
                }
            });
        }
    }
}

TEST(StringTest, HandsOutTheMemoryItselfAndCopiesNothing) {
    char lent[] = "abc";
    KP_String borrowed(lent, 1);
    const KP_String& same = borrowed;
    EXPECT_EQ(static_cast<char*>(borrowed), lent);
    EXPECT_EQ(static_cast<char*>(same), lent);
    EXPECT_EQ(&borrowed[0], lent);
    borrowed[1] = 'x';
    EXPECT_STREQ(lent, "axc");
    borrowed << 'd';
    EXPECT_NE(static_cast<char*>(borrowed), lent);
    EXPECT_STREQ(lent, "axc");
    KP_String own("abc", 0);
    char* const buffer = own;
    buffer[0] = 'x';
    EXPECT_TRUE(holds(own, "xbc"));
    EXPECT_EQ(static_cast<const char*>(own), buffer);
}

TEST(StringTest, JoinsAndRemoves) {
    const char* const none = nullptr;
    const KP_String abc("abc", 0);
    EXPECT_TRUE(holds(abc & KP_String("def", 0), "abcdef"));
    EXPECT_TRUE(holds(abc & "def", "abcdef"));
    EXPECT_TRUE(holds("ab" & KP_String("c", 0), "abc"));
    EXPECT_TRUE(holds((abc & none) & (none & abc), "abcabc"));
    EXPECT_TRUE(holds(KP_String("a-b-c", 0) % "-", "ab-c"));
    EXPECT_TRUE(holds(abc % KP_String("x", 0) % none, "abc"));
    EXPECT_TRUE(holds("xabcx" % abc, "xx"));
    EXPECT_TRUE(holds(none % KP_String("x", 0), "x"));
    KP_String s("abc", 1);
    EXPECT_TRUE(holds((s &= none) %= none, "abc"));
    EXPECT_TRUE(holds((s << 'd' << std::string_view("ef") << none) %= "cd", "abef"));
    // Every length around the sizes in which blocks come.
    std::string model;
    KP_String grown(0);
    for (std::size_t i = 0; i < 200; ++i) {
        const std::string piece(i % 19, static_cast<char>('a' + i % 26));
        ASSERT_TRUE(holds(grown &= piece.c_str(), model += piece)) << i;
        ASSERT_TRUE(holds(KP_String(model.c_str()) & grown, model + model)) << i;
    }
}

TEST(StringTest, AppendsNumbersAsTheRuntimePrintsThem) {
    KP_String s;
    s << -5L << ' ' << static_cast<unsigned short>(65535) << ' ' << static_cast<short>(-32768)
      << ' ' << 4294967295UL << ' ' << std::numeric_limits<int>::min() << ' ' << 7U << ' '
      << std::numeric_limits<long long>::min() << ' ' << ~0ULL << ' ' << 2.5F << -0.0;
    EXPECT_TRUE(holds(s,
                      "-5 65535 -32768 4294967295 -2147483648 7 -9223372036854775808 "
                      "18446744073709551615 2.500000-0.000000"));
    std::mt19937_64 random(42);
    for (int i = 0; i < 4000; ++i) {
        // Bits of every kind, infinities and what is no number among them; and plain amounts.
        std::uint64_t bits = random();
        bits = i % 16 == 0 ? 0x7FFULL << 52 | bits >> 63 << 51 | bits << 63 : bits;
        double value = static_cast<double>(static_cast<std::int64_t>(bits)) / 1e9;
        if (i % 2 == 0) {
            std::memcpy(&value, &bits, sizeof value);
        }
        std::setlocale(LC_NUMERIC, i % 4 < 2 ? "C" : "C.UTF-8");
        char expected[400];
        std::snprintf(expected, sizeof expected, "%f", value);
        EXPECT_TRUE(holds(KP_String(0) << value, expected));
    }
    std::setlocale(LC_NUMERIC, "C");
}

TEST(StringTest, WritesTheDecimalPointOfTheThreadsLocale) {
    kp::test::Installation site;
    site.write(
        "comma.src",
        "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n");
    const std::string make = "localedef --no-archive -c -i " + site.path("comma.src") + " " +
                             site.path("comma") + " >/dev/null 2>&1";
    EXPECT_NE(std::system(make.c_str()), -1);  // Complains about what it leaves out.
    // In a child, since the runtime never gives back what it keeps of LOCPATH.
    const kp::test::Outcome outcome = kp::test::runInChild([&] {
        setenv("LOCPATH", site.path().c_str(), 1);
        const locale_t comma = newlocale(LC_NUMERIC_MASK, "comma", nullptr);
        if (comma == nullptr) {
            return 1;
        }
        uselocale(comma);
        KP_String here;
        here << 1.5;
        KP_String there;
        std::thread([&] { there << 1.5; }).join();
        return here == "1,500000" && there == "1.500000" ? 7 : 2;
    });
    EXPECT_EQ(outcome.status, 7) << outcome.err;
}

TEST(StringTest, StaysInItsBufferWhenLengthAndTerminatorDisagree) {
    KP_String s("abcdef", 0);
    const KP_String& fixed = s;
    EXPECT_EQ(&s[std::size_t{9}], static_cast<char*>(s) + 6);
    EXPECT_EQ(&s[-1], static_cast<char*>(s));
    EXPECT_EQ(fixed[6U], '\0');
    EXPECT_EQ(fixed[~0ULL], '\0');
    EXPECT_EQ(fixed[-7], 'a');
    void (*const uses[])(KP_String&) = {
        [](KP_String& t) { EXPECT_TRUE(t == "abcdef"); },
        [](KP_String& t) { EXPECT_TRUE(holds(t.getSubString(4, 9), "ef")); },
        [](KP_String& t) { EXPECT_STREQ(textOf(t & "g"), "abcdefg"); },
        [](KP_String& t) { EXPECT_TRUE(holds(KP_String(t), "abcdef")); },
        [](KP_String& t) { EXPECT_STREQ(t.stpcvt(32), "ABCDEF"); }};
    for (const auto& use : uses) {
        s[6] = 'x';  // the terminator, at the end of the block
        use(s);
    }
    s[2] = '\0';  // shorter than its length
    EXPECT_EQ(s.findSubString("EF", 0), 4);
    EXPECT_TRUE(s == "AB");
    EXPECT_EQ((s & "!").getLength(), 7U);
    EXPECT_STREQ(textOf(s.getSubString(0, 4)), "AB");
    s.stpcvt(0);
    EXPECT_TRUE(holds(s, "AB"));
    KP_String written(10);  // longer than its length
    std::strcpy(written, "0123456789");
    EXPECT_EQ(!written, 1);
    EXPECT_EQ(written.findSubString("1", 0), -1);
    EXPECT_TRUE(written == "0123456789");
    written.stpcvt(0);
    EXPECT_TRUE(holds(written, "0123456789"));
}

TEST(StringTest, ComparesByCollation) {
    for (const char* left : {"", "A", "a", "aa", "ab", "\xE9"}) {
        for (const char* right : {"", "A", "a", "aa", "ab", "\xE9"}) {
            SCOPED_TRACE(std::string(left) + "|" + right);
            const int o = std::strcoll(left, right);
            KP_String a(left, 1);
            KP_String b(right, 1);
            const int expected[] = {o == 0, o != 0, o<0, o> 0, o <= 0, o >= 0};
            const int both[] = {a == b, a != b, a<b, a> b, a <= b, a >= b};
            const int own[] = {a == right, a != right, a<right, a> right, a <= right, a >= right};
            const int free[] = {left == b, left != b, left<b, left> b, left <= b, left >= b};
            for (const int* results : {both, own, free}) {
                EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), results));
            }
            EXPECT_EQ(a.compare(&b, 1), (o > 0) - (o < 0));
        }
    }
    KP_Link<KP_Object> noString;
    EXPECT_EQ(KP_String("a").compare(&noString, 0), -1);
    EXPECT_EQ(KP_String("a").compare(nullptr, 0), -1);
}

TEST(StringTest, HashesAndHexifiesBytes) {
    EXPECT_EQ(KP_String("ab").calcHash(10), 7);
    EXPECT_EQ(KP_String("").calcHash(10), 0);
    EXPECT_EQ(KP_String("\xFF").calcHash(10), -1);
    EXPECT_EQ(KP_String("\x80\x80").calcHash(1000), -384);
    EXPECT_EQ(KP_String("abcde").calcHash(2147483647), -333422493);  // wraps at 32 bits
    EXPECT_EQ(KP_String("a").calcHash(0), -1);
    KP_String s("old", 0);
    s.hexify("\x00\xAB\x7F", 3);
    EXPECT_TRUE(holds(s, "00AB7F"));
    EXPECT_THROW(s.hexify("x", 0x80000000), KP_NoMoreMemoryException);
    s.hexify("x", 0);
    EXPECT_TRUE(holds(s, ""));
    (s = "old").hexify(nullptr, 3);
    EXPECT_TRUE(holds(s, ""));
}

TEST(StringTest, CleansItsText) {
    struct Case {
        int flags;
        const char* text;
        const char* result;
    };
    const Case cases[] = {{2 + 4 + 8, "  a   b  ", "a b"},
                          {1, "  a   b  ", "ab"},
                          {16 + 1, "a 'b c' d", "a'b c'd"},
                          {32, "a\xE9", "A\xE9"},
                          {128, "a\tb", "ab"},
                          {4, "   ", ""},
                          {32 + 64, "aB", "ab"},
                          {128 + 8, "a \t b", "a  b"},
                          {16 + 8, "a  'b  c", "a 'b  c"},
                          {16 + 2 + 8, "' ' '", "' ' '"}};
    for (const Case& each : cases) {
        KP_String s(each.text, 1);
        EXPECT_STREQ(s.stpcvt(each.flags), each.result);
        EXPECT_TRUE(holds(s, each.result));
    }
}

TEST(StringTest, TravelsThroughFilesAndSockets) {
    const std::string longest(2030, 'x');
    const std::pair<std::string, std::string> lines[] = {
        {"label{a text}\n", "a text"},
        {"label{}\n", ""},
        {"text\n", ""},
        {"label{no line end", "no line end"},
        {"", ""},
        {"label{" + longest + "12 cut here, and the rest is not read}\n",
         longest + "12 cut here,"}};
    KP_String s;
    const auto newFile = [] {
        return std::unique_ptr<std::FILE, int (*)(std::FILE*)>(std::tmpfile(), std::fclose);
    };
    for (const auto& [line, text] : lines) {
        const auto file = newFile();
        std::fputs(line.c_str(), file.get());
        std::rewind(file.get());
        s = "before";
        EXPECT_EQ(s.read(file.get()), 0);
        EXPECT_TRUE(holds(s, text));
    }
    const auto file = newFile();
    s = "ab";
    EXPECT_EQ(s.write(file.get()) + s.print(file.get()), 0);
    std::rewind(file.get());
    char written[100] = "";
    EXPECT_EQ(std::fread(written, 1, sizeof written, file.get()), 14U);
    EXPECT_STREQ(written, "abvalue\t\t: ab\n");
    std::ostringstream out;
    out << std::setw(4) << s;
    EXPECT_EQ(out.str(), "  ab");

    const SocketPair sockets;
    EXPECT_EQ(s.writeJ(sockets.ours()) + KP_String().writeJ(sockets.ours()), 0);
    EXPECT_EQ(SocketPair::unread(sockets.theirs()), "ab\n\n");
    const std::string full(2048, 'x');
    sockets.send("first\n\n" + full + "rest\n");
    for (const std::string& line :
         {std::string("first"), std::string(), full, std::string("rest")}) {
        EXPECT_EQ(s.readJ(sockets.ours()), 0);
        EXPECT_TRUE(holds(s, line));
    }
    EXPECT_EQ(s.readJ(-1), -1);
    EXPECT_TRUE(holds(s, "rest"));
    EXPECT_EQ(s.writeJ(-1), -1);
}

}  // namespace
