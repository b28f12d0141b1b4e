#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kp/tools/tools.h"
#include "support/installation.h"

namespace {

class RecordsTest : public kp::test::InstallationTest {
protected:
    // What writeString() makes of a text.
    std::string written(const std::string& text, int result) const {
        std::FILE* file = KP_Tools::openFile(site_.path("file").c_str(), "w");
        EXPECT_EQ(KP_Tools::writeString(text.c_str(), file), result);
        std::fclose(file);
        return site_.read("file");
    }
};

TEST_F(RecordsTest, AreTheLengthInTwoBytesAndTheText) {
    EXPECT_EQ(written("", 0), std::string(2, '\0'));
    EXPECT_EQ(written("ab", 0), std::string("\x02\0ab", 4));
    EXPECT_EQ(written(std::string(258, 'x'), 0), "\x02\x01" + std::string(258, 'x'));
    EXPECT_EQ(written(std::string(65535, 'x'), 0), "\xFF\xFF" + std::string(65535, 'x'));
    EXPECT_EQ(written(std::string(65536, 'x'), -1), "");
    std::FILE* full = KP_Tools::openFile("/dev/full", "w");
    std::setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(KP_Tools::writeString("", full), -1);
    std::fclose(full);
}

TEST_F(RecordsTest, AreReadBackWholeOrNotAtAll) {
    const std::string record("\x05\0abcde", 7);
    for (std::size_t size = 0; size <= record.size(); ++size) {
        std::FILE* file = site_.file(record.substr(0, size));
        std::vector<char> text(6, '#');
        EXPECT_EQ(KP_Tools::readStringNoMalloc(text.data(), 5, file), size == 7 ? 0 : -1);
        EXPECT_TRUE(size < 7 || text.data() == record.substr(2));
        std::rewind(file);
        char* out = text.data();
        EXPECT_EQ(KP_Tools::readStringMalloc(&out, file), size == 7 ? 0 : -1);
        std::fclose(file);
        if (size < 2) {
            EXPECT_EQ(out, text.data());
        } else {
            EXPECT_EQ(out, record.substr(2, size - 2));
            EXPECT_EQ(out[5], '\0');
            std::free(out);
        }
    }
}

TEST_F(RecordsTest, LongerOnesThanThereIsRoomForAreRefusedAndToldInTheDebugLog) {
    site_.openLog(1);
    std::vector<char> text(65536, '#');
    std::FILE* file = site_.file(std::string("\x06\0abcdef\0\0", 10));
    EXPECT_EQ(KP_Tools::readStringNoMalloc(text.data(), 5, file), -1);
    EXPECT_EQ(site_.newLog(), "archiving_readStringNoMalloc: no memory for string");
    EXPECT_EQ(std::getc(file), 'a');  // the text is still there
    std::rewind(file);
    EXPECT_EQ(KP_Tools::readStringNoMalloc(text.data(), -1, file), 0);  // Larger than any text.
    EXPECT_STREQ(text.data(), "abcdef");
    EXPECT_EQ(KP_Tools::readStringNoMalloc(text.data(), 0, file), 0);
    EXPECT_STREQ(text.data(), "");
    std::fseek(file, 8, SEEK_SET);
    char* out = text.data();
    EXPECT_EQ(KP_Tools::readStringMalloc(&out, file), 0);
    EXPECT_EQ(out, nullptr);
    std::fclose(file);

    for (const std::size_t length : {2048U, 2049U, 65535U}) {
        const std::string content(length, 'x');
        written(content, 0);
        file = KP_Tools::openFile(site_.path("file").c_str(), "r");
        out = text.data();
        EXPECT_EQ(KP_Tools::readStringMalloc(&out, file), length == 2048 ? 0 : -1);
        if (length == 2048) {
            EXPECT_EQ(out, content);
            std::free(out);
        } else {
            EXPECT_EQ(out, text.data());
            EXPECT_EQ(site_.newLog(),
                      "archiving_readStringMalloc: excesively long string (> 2048 bytes)");
        }
        std::rewind(file);
        EXPECT_EQ(KP_Tools::readStringNoMalloc(text.data(), 65535, file), 0);
        EXPECT_EQ(text.data(), content);
        std::fclose(file);
    }
}

TEST_F(RecordsTest, FilesAreOpenedAsToldAndNotHandedOn) {
    EXPECT_EQ(KP_Tools::openFile(site_.path("none").c_str(), "r"), nullptr);
    EXPECT_EQ(KP_Tools::openFile(site_.path("x").c_str(), "no mode of this length"), nullptr);
    for (const char* mode : {"w", "a+b", "rb"}) {
        std::FILE* file = KP_Tools::openFile(site_.path("file").c_str(), mode);
        ASSERT_NE(file, nullptr) << mode;
        EXPECT_NE(::fcntl(::fileno(file), F_GETFD) & FD_CLOEXEC, 0) << mode;
        std::fclose(file);
    }
}

TEST(FindPatternTest, LooksFromTheStartOnAndThroughZeroBytes) {
    const char text[] = "ab\0ab\0b";
    EXPECT_EQ(KP_Tools::findPattern("b\0", 2, text, 7, true, 0), 1);
    EXPECT_EQ(KP_Tools::findPattern("b\0", 2, text, 7, true, 2), 4);
    EXPECT_EQ(KP_Tools::findPattern("b\0", 2, text, 7, false, 5), -1);
}

TEST(FindPatternTest, RefusesWhatCannotBe) {
    const struct {
        const char* pattern;
        int length;
        const char* text;
        int size;
        int start;
    } cases[] = {{"abc", 3, "xxabc", 5, 3}, {"aB", 2, "ab", 2, 0},   {"abcd", 4, "abc", 3, 0},
                 {nullptr, 1, "a", 1, 0},   {"a", 1, nullptr, 1, 0}, {"a", 0, "a", 1, 0},
                 {"a", -1, "a", 1, 0},      {"a", 1, "a", 0, 0},     {"a", 1, "a", -1, -2},
                 {"a", 1, "a", 1, -1},      {"a", 1, "a", 1, 1},     {"a", 0x7FFFFFFF, "a", 1, 0}};
    for (const auto& each : cases) {
        EXPECT_EQ(KP_Tools::findPattern(each.pattern, each.length, each.text, each.size, true,
                                        each.start),
                  -1);
    }
}

}  // namespace
