// Looking inside a text: finding, removing, taking, inserting, cutting, wildcards.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "kp/text/string.h"
#include "kp/tools/tools.h"

namespace {

std::string text(const KP_String& s) {
    EXPECT_EQ(std::strlen(s), s.getLength());
    return std::string(s.view());
}

std::string randomText(std::mt19937& random, std::size_t longest, const char* letters) {
    std::string result(random() % (longest + 1), ' ');
    for (char& c : result) {
        c = letters[random() % std::strlen(letters)];
    }
    return result;
}

TEST(StringSearchTest, FindsTheFirstOccurrence) {
    KP_String abcb("abcb", 0);
    KP_String b("b", 0);
    KP_String empty;
    EXPECT_EQ(abcb.findSubString("b", 0), 1);
    EXPECT_EQ(abcb.findSubString(b, 2), 1);
    EXPECT_EQ(abcb.findSubString("abcbd", 0), -1);
    EXPECT_EQ(abcb.findSubString("", 0), -1);
    EXPECT_EQ(abcb.findSubString(static_cast<const char*>(nullptr), 0), -1);
    EXPECT_EQ(empty.findSubString("b", 0), -1);
    EXPECT_EQ(empty.findSubString(empty, 0), -1);
}

// Expects every search for a pattern to find what a simple one finds.
void expectFound(const std::string& haystack, const std::string& needle) {
    const std::size_t found = needle.empty() ? std::string::npos : haystack.find(needle);
    const int expected = found == std::string::npos ? -1 : static_cast<int>(found);
    KP_String s(haystack);
    ASSERT_EQ(s.findSubString(needle.c_str(), 0), expected) << haystack << "\n" << needle;
    const std::vector<char> exact(haystack.begin(), haystack.end());
    ASSERT_EQ(KP_Tools::findPattern(needle.data(), static_cast<int>(needle.size()), exact.data(),
                                    static_cast<int>(exact.size()), true, 0),
              expected);
}

// Few letters make many near misses, and the lengths pass through every way the search takes.
TEST(StringSearchTest, FindsWhatASimpleSearchFinds) {
    std::mt19937 random(1);
    for (int i = 0; i < 10000; ++i) {
        const char* letters = i % 2 == 0 ? "ab" : "abcd\xFF";
        const std::string haystack = randomText(random, i % 3 == 0 ? 300 : 40, letters);
        std::string needle = randomText(random, i % 5 == 0 ? 80 : 8, letters);
        if (i % 4 == 0 && !haystack.empty()) {
            needle = haystack.substr(random() % haystack.size(), random() % 100);
        }
        expectFound(haystack, needle);
    }
    // Repetitions that are broken here and there: long comparisons that come to nothing.
    for (int i = 0; i < 400; ++i) {
        const std::string unit = randomText(random, 5, "ab") + "a";
        std::string haystack;
        while (haystack.size() < 4000) {
            haystack += random() % 300 == 0 ? randomText(random, 3, "ab") : unit;
        }
        std::string needle = haystack.substr(random() % haystack.size(), random() % 400);
        if (i % 2 == 0 && !needle.empty()) {
            needle[random() % needle.size()] ^= 'a' ^ 'b';
        }
        expectFound(haystack, needle);
    }
}

// Each of these takes hours where time grows with text times pattern.
TEST(StringSearchTest, EndsOnHostileInput) {
    constexpr std::size_t kText = 4000000;
    constexpr std::size_t kHalf = kText / 2;
    const std::string as(kText, 'a');
    const std::string abab = [] {
        std::string result;
        while (result.size() < kText) {
            result += "ab";
        }
        return result;
    }();
    struct Case {
        std::string haystack;
        std::string needle;
        bool standsAtTheEnd;
    };
    const std::string half(kHalf, 'a');
    const std::string quarter(kHalf / 2, 'a');
    const Case cases[] = {
        {as, half + "b", false},
        {as, "b" + half, false},
        {as, quarter + "b" + quarter, false},
        {as + "b", half + "b", true},
        {as, quarter + "b" + half, false},
        {as, half + "b" + quarter, false},
        {abab, abab.substr(0, kHalf) + "bb" + abab.substr(0, kHalf / 2), false},
        {abab + "aab", abab.substr(0, kHalf) + "aab", true},
    };
    for (const Case& each : cases) {
        KP_String s(each.haystack);
        const auto end = static_cast<int>(each.haystack.size() - each.needle.size());
        EXPECT_EQ(s.findSubString(each.needle.c_str(), 0), each.standsAtTheEnd ? end : -1);
    }
    KP_String nested(half + std::string(kHalf, 'b'));
    nested.extractSubString("ab", 2);
    EXPECT_EQ(text(nested), "");
    KP_String deep(half + "b" + half);
    deep.extractSubString((std::string(1000, 'a') + "b").c_str(), 2);
    EXPECT_EQ(deep.getLength(), 2 * kHalf - 1000);
    KP_String line(std::string(20000, 'a'));
    std::string stars;
    for (int i = 0; i < 2000; ++i) {
        stars += "*a%a";
    }
    EXPECT_TRUE(line.wildcardSearch((stars + "*").c_str()));
    EXPECT_FALSE(line.wildcardSearch((stars + "b*").c_str()));
}

TEST(StringSearchTest, RemovesAlsoWhatARemovalBringsTogether) {
    KP_String s("axbxc", 0);
    s.extractSubString("x", 0);
    EXPECT_EQ(text(s), "abxc");
    s.extractSubString("x", 2);
    EXPECT_EQ(text(s), "abc");
    s.extractSubString("", 2);
    s.extractSubString(static_cast<const char*>(nullptr), 2);
    EXPECT_EQ(text(s), "abc");
    s = "bababa";
    s.extractSubString(s.view().data() + 3, 2);
    EXPECT_EQ(text(s), "bba");
    std::mt19937 random(2);
    for (int i = 0; i < 10000; ++i) {
        std::string model = randomText(random, 60, i % 2 == 0 ? "ab" : "aab");
        const std::string piece = "a" + randomText(random, 5, "ab");
        KP_String each(model);
        KP_String wanted(piece);
        each.extractSubString(wanted, 2);
        for (std::size_t at = model.find(piece); at != std::string::npos; at = model.find(piece)) {
            model.erase(at, piece.size());
        }
        ASSERT_EQ(text(each), model) << piece;
    }
}

TEST(StringSearchTest, TakesInsertsAndCutsPieces) {
    const auto piece = [](int start, int count) {
        return text(KP_String("abcd").getSubString(start, count));
    };
    EXPECT_EQ(piece(1, 2), "bc");
    EXPECT_EQ(piece(1, 0), "bcd");
    EXPECT_EQ(piece(1, 9), "bcd");
    EXPECT_EQ(piece(0, -1), "abcd");
    EXPECT_EQ(piece(-2, 2), "ab");
    EXPECT_EQ(piece(4, 1) + piece(5, 1), "");
    const auto inserted = [](const char* s, int position, int count) {
        KP_String byText("abcd", 0);
        KP_String byString("abcd", 9U);
        KP_String other(s, 0);
        byText.setSubString(s, position, count);
        byString.setSubString(other, position, count);
        EXPECT_TRUE(byText == byString);
        return text(byText);
    };
    EXPECT_EQ(inserted("XY", 2, 1), "abXcd");
    EXPECT_EQ(inserted("XY", 2, 0), "abXYcd");
    EXPECT_EQ(inserted("XY", 2, 5), "abXYcd");
    EXPECT_EQ(inserted("XY", 4, 0), "abcdXY");
    EXPECT_EQ(inserted("XY", -1, -1), "XYabcd");
    for (const char* nothing : {"", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(inserted(nothing, 2, 0) + inserted("XY", 5, 0), "abcdabcd");
    }
    const auto cut = [](int n) {
        KP_String s("abcd", 0);
        s.truncateString(n);
        return text(s);
    };
    EXPECT_EQ(cut(2) + cut(4) + cut(9) + cut(-1), "ababcdabcd");
}

// Whether a pattern without a meaning for its ends matches the whole text, by a table of prefixes.
bool matchesAll(const std::string& wanted, const std::string& pattern) {
    std::vector<std::vector<bool>> fits(pattern.size() + 1,
                                        std::vector<bool>(wanted.size() + 1, false));
    fits[0][0] = true;
    for (std::size_t p = 1; p <= pattern.size(); ++p) {
        for (std::size_t t = 0; t <= wanted.size(); ++t) {
            const char c = pattern[p - 1];
            fits[p][t] = c == '*' ? fits[p - 1][t] || (t > 0 && fits[p][t - 1])
                                  : t > 0 && fits[p - 1][t - 1] && (c == '%' || c == wanted[t - 1]);
        }
    }
    return fits[pattern.size()][wanted.size()];
}

// The front and the end are matched apart from each other, the middle behind the front.
bool matches(const std::string& wanted, const std::string& pattern) {
    const std::size_t firstStar = pattern.find('*');
    if (wanted.empty() || pattern.empty() || firstStar == std::string::npos) {
        return !wanted.empty() && !pattern.empty() && matchesAll(wanted, pattern);
    }
    const std::size_t lastStar = pattern.rfind('*');
    std::string end = pattern.substr(lastStar + 1);
    while (end.size() > wanted.size() && end[0] == '%') {
        end.erase(0, 1);  // in front of the text there is room for '%'
    }
    return firstStar <= wanted.size() && end.size() <= wanted.size() &&
           matchesAll(wanted.substr(0, firstStar), pattern.substr(0, firstStar)) &&
           matchesAll(wanted.substr(wanted.size() - end.size()), end) &&
           matchesAll(wanted.substr(firstStar),
                      pattern.substr(firstStar, lastStar - firstStar + 1));
}

TEST(StringSearchTest, MatchesWildcards) {
    // Pattern and text by turns.
    const char* const fit[] = {"ab*",  "abc", "ab*",   "ab", "*.htm", "index.htm", "a%c",   "abc",
                               "%",    "x",   "*",     "x",  "*c",    "abc",       "ab*ba", "aba",
                               "a*a",  "a",   "*%%%",  "x",  "**",    "x",         "a**b",  "ab",
                               "*b*a", "ba",  "*ab*b", "ab", "*%*",   "x",         "*x%*y", "xy"};
    const char* const misfit[] = {"ab*", "a", "a%c",  "ac", "a%c",  "abbc", "abc", "abcd",
                                  "a*",  "",  "*",    "",   "*c",   "abd",  "%%*", "x",
                                  "",    "x", "a*a*", "a",  "*%%*", "x"};
    const auto check = [](const char* pattern, const char* each, bool expected) {
        EXPECT_EQ(KP_String(each).wildcardSearch(pattern), expected) << pattern << " " << each;
        EXPECT_EQ(KP_String(each).wildcardSearch(KP_String(pattern)), expected);
        EXPECT_EQ(matches(each, pattern), expected);
    };
    for (std::size_t i = 0; i < std::size(fit); i += 2) {
        check(fit[i], fit[i + 1], true);
    }
    for (std::size_t i = 0; i < std::size(misfit); i += 2) {
        check(misfit[i], misfit[i + 1], false);
    }
    EXPECT_FALSE(KP_String("x").wildcardSearch(static_cast<const char*>(nullptr)));
    std::mt19937 random(3);
    int matched = 0;
    for (int i = 0; i < 30000; ++i) {
        const std::string each = randomText(random, 12, "ab");
        const std::string pattern = randomText(random, 9, i % 2 == 0 ? "ab%**" : "aab%*");
        ASSERT_EQ(KP_String(each).wildcardSearch(pattern.c_str()), matches(each, pattern))
            << pattern << " " << each;
        matched += matches(each, pattern) ? 1 : 0;
    }
    EXPECT_GT(matched, 2000);
}

}  // namespace
