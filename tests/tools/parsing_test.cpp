#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kp/tools/tools.h"
#include "support/installation.h"

namespace {

TEST(SqueezeTest, RemovesUntilAsManyRunsHaveBegun) {
    const struct {
        const char* text;
        int count;
        const char* set;
        const char* result;
    } cases[] = {{"  ab  cd ef", 0, nullptr, "abcdef"},
                 {"  ab  cd ef", 1, nullptr, "ab  cd ef"},
                 {"  ab  cd ef", 2, nullptr, "abcd ef"},
                 {"ab cd ef", 1, nullptr, "ab cd ef"},
                 {"ab cd ef", 9, nullptr, "abcdef"},
                 {" \t\n\ra \n", 0, nullptr, "\ra"},
                 {"", 0, nullptr, ""},
                 {"   ", 2, nullptr, ""},
                 {"..a b.c", 0, ".", "a bc"},
                 {"a b", 0, "", "a b"}};
    for (const auto& each : cases) {
        std::string text = each.text;
        std::vector<char> target(text.size() + 1, '#');
        EXPECT_EQ(KP_Tools::squeeze(text.data(), target.data(), each.count, each.set),
                  target.data());
        EXPECT_STREQ(target.data(), each.result) << each.text;
        EXPECT_EQ(text, each.text);
        EXPECT_EQ(KP_Tools::squeeze(text.data(), nullptr, each.count, each.set), text.data());
        EXPECT_STREQ(text.c_str(), each.result) << each.text;
    }
}

class ParsingTest : public kp::test::InstallationTest {
protected:
    void readConfig(const std::string& content, KP_Tools::Configuration* table, void* data) const {
        std::FILE* file = site_.file(content);
        KP_Tools::readConfig(file, table, data);
        std::fclose(file);
    }
};

TEST_F(ParsingTest, GetlineCutsLongLinesAndTellsTheEnd) {
    std::FILE* file = site_.file("abc\r\n\nabcdef\nabcd\nabc");
    const struct {
        int max;
        int result;
        const char* text;
    } cases[] = {{9, 4, "abc\r"}, {9, 0, ""},     {0, 0, ""}, {-1, 0, ""},    {4, 4, "abcd"},
                 {4, 2, "ef"},    {4, 4, "abcd"}, {4, 0, ""}, {9, -1, "abc"}, {9, -1, ""}};
    for (const auto& each : cases) {
        std::vector<char> line(static_cast<std::size_t>(each.max < 0 ? 1 : each.max + 1), '#');
        EXPECT_EQ(KP_Tools::getline(file, line.data(), each.max), each.result);
        EXPECT_STREQ(line.data(), each.text);
    }
    std::fclose(file);
}

TEST_F(ParsingTest, ReadConfigGivesEachLineToTheFirstKeyItBeginsWith) {
    const struct {
        const char* content;
        const char* value;  // of "dir"; "none" before
    } cases[] = {{"dir = D:\\data  # comment\n", "D:\\data"},
                 {"  \tdir:1.2.3.4 - 1.2.3.9\n", "1.2.3.4- 1.2.3.9"},
                 {"dir a b c\n", "ab c"},
                 {"dir==x\n", "=x"},
                 {"dir : =x\n", "=x"},
                 {"dir a\t#b\n", "a\t#b"},
                 {"dir a \t#b\n", "a"},
                 {"dir a#b   \n", "a#b"},
                 {"dir\n", ""},
                 {"directory=able\n", "ectory=able"},
                 {"dir x\r\n", "x\r"},
                 {"dir first\ndir second\n", "second"},
                 {"dir first\ndir second", "first"},
                 {"Dir x\n#dir x\n # dir x\n\n \t \nother\n", "none"}};
    for (const auto& each : cases) {
        KP_Tools::Configuration table[] = {
            {"dir", "none", nullptr}, {"directory", "later", nullptr}, {nullptr, "", nullptr}};
        readConfig(each.content, table, nullptr);
        EXPECT_STREQ(table[0].value, each.value) << each.content;
        EXPECT_STREQ(table[1].value, "later") << each.content;
    }
}

void remember(char* value, void* values) {
    static_cast<std::vector<std::string>*>(values)->push_back(value);
}

TEST_F(ParsingTest, ReadConfigGivesHandlersTheWholeValueAndCutsNoOther) {
    site_.openLog();
    const std::string most(127, 'm');
    const std::string over(128, 'o');
    KP_Tools::Configuration table[] = {
        {"on", "", remember}, {"off", "kept", nullptr}, {nullptr, "", nullptr}};
    std::vector<std::string> values;
    readConfig("on: a  b # c \non\non=" + over + "\noff " + over + "\n", table, &values);
    EXPECT_EQ(values, (std::vector<std::string>{"a  b # c ", "", over}));
    EXPECT_EQ(table[0].value, std::string(127, 'o'));
    EXPECT_STREQ(table[1].value, "kept");
    EXPECT_NE(site_.newLog().find("off"), std::string::npos);
    // A line of 1024 characters, the longest that is read at once.
    readConfig("off" + std::string(894, ' ') + most + "\n", table, &values);
    EXPECT_EQ(table[1].value, most);
}

TEST(ScanTest, TwoLineBreakCharactersEndALine) {
    const struct {
        const char* text;
        int length;
        int past;  // -1: no pair
    } cases[] = {{"ab\r\ncd", 6, 4}, {"ab\n\ncd", 6, 4},   {"\r\r", 2, 2},    {"a\n\r", 3, 3},
                 {"ab\ncd", 5, -1},  {"a\nb\rc\n", 6, -1}, {"ab\r\n", 3, -1}, {"ab\r\n\r\n", 6, 4}};
    for (const auto& each : cases) {
        // A block of its own size, so that a look beyond the end does not go unnoticed.
        std::vector<char> text(each.text, each.text + each.length);
        char* p = text.data();
        char* end = p + each.length;
        EXPECT_EQ(KP_Tools::ScanLine_r(p, end), each.past >= 0 ? 1 : 0) << each.text;
        EXPECT_EQ(KP_Tools::IgnoreLine_r(&p, end), each.past >= 0 ? 1 : 0) << each.text;
        EXPECT_EQ(p - text.data(), each.past >= 0 ? each.past : each.length) << each.text;
        p = end;
        EXPECT_EQ(KP_Tools::ScanLine_r(p, text.data()), 0);
        EXPECT_EQ(KP_Tools::IgnoreLine_r(&p, text.data()), 0);
        EXPECT_EQ(p, end);
    }
}

}  // namespace
