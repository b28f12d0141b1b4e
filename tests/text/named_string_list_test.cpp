#include "kp/text/named_string_list.h"

#include <gtest/gtest.h>

#include "support/failing_malloc.h"
#include "support/installation.h"

namespace {

TEST(NamedStringListTest, ReadsItsFileAndWritesItBack) {
    const kp::test::Installation site;
    const std::string path = site.path("f");
    const std::string file = "Debug = 1   # on\n\n# note\nx\nport=80=90\n = v\na=\n=\t b \na#=1";
    const std::string full(253, 'v');  // A line comes in pieces of 255, each a line of its own.
    const std::tuple<std::string, char, const char*, std::string> cases[] = {
        {file, '=', nullptr, "Debug |1   ;port|80=90; |v;a|;|b ;"},
        {file, '=', " \tbr", "Deug|1   ;pot|80=90;|v;a|;|b ;"},
        {file, '\0', nullptr, ""},
        {"", '=', nullptr, ""},
        {"\xe9=\xff\xe9\r\xe9", '\xe9', "", "|=\xff\xe9\r\xe9;"},
        {std::string("a=1\0=2\n\0b=3\nc=4", 16), '=', nullptr, "a|1;c|4;"},
        {"n=" + full + "\nm=" + full + "k=1\n", '=', "", "n|" + full + ";m|" + full + ";k|1;"}};
    for (const auto& [content, separator, squeezed, expected] : cases) {
        site.write("f", content);
        for (const char* set : {squeezed, ""}) {
            KP_NamedStringList list;
            EXPECT_EQ(list.setOwner(1) + list.readFile(path.c_str(), separator, set), 0);
            std::string found;
            for (KP_String* value = list.first(); value != nullptr; value = list.next()) {
                found.append(list.getCurrentName()).append("|").append(value->view()) += ';';
            }
            EXPECT_EQ(found, expected);
            EXPECT_EQ(list.writeFile(path.c_str(), separator), 0);
        }
    }
    const std::string text(5000, 'v');
    KP_NamedStringList list;
    KP_String values[] = {KP_String(text), KP_String("")};
    list.append(values, text.c_str()), list.append(values + 1, "b");
    EXPECT_EQ(list.writeFile(path.c_str(), ':'), 0);
    EXPECT_EQ(site.read("f"), text + ":" + text + "\nb:\n");
    EXPECT_EQ(list.writeFile("/dev/full", ':'), -1);
    for (const std::string& nowhere : {path + "/f", site.path("none/f"), site.path()}) {
        EXPECT_EQ(list.writeFile(nowhere.c_str(), '='), -1);
        EXPECT_EQ(list.readFile(nowhere.c_str(), '=', nullptr), -1) << nowhere;
    }
    kp::test::failEachAllocation([&path] {
        KP_NamedStringList other;
        int result = 1;
        try {
            result = other.setOwner(1) + other.readFile(path.c_str(), ':', nullptr);
        } catch (const KP_NoMoreMemoryException&) {
        }
        return result > 0 ? other.getCount() < 2 : other.getCount() == 2 * (result + 1);
    });
}

}  // namespace
