// What hosts derive from and hand over: types that fit as they are told.
#include <gtest/gtest.h>

#include <string>

#include "kp/core/exception.h"
#include "kp/core/exit_handler.h"
#include "kp/tools/tools.h"
#include "kp/wire/buffer_stream.h"
#include "support/installation.h"

namespace {

// Overrides without the word for it, as hosts have them: a type that differs would only hide.
struct Handler : KP_ExitHandler {
    virtual void handleExit(char* message) { last = message; }
    using KP_ExitHandler::handleExit;
    std::string last;
};

struct Stream : KP_BufferStream {
    virtual int findPattern(char* pattern) { return std::string(pattern) == "abc" ? 7 : 8; }
};

TEST(InterfacesTest, OverridesOfCallBacksAreCalledForConstantAndOtherTexts) {
    Handler handler;
    KP_ExitHandler& base = handler;
    char text[] = "fault";
    base.handleExit(text);
    EXPECT_EQ(handler.last, "fault");
    base.handleExit("constant");
    EXPECT_EQ(handler.last, "constant");
    Stream own;
    KP_Stream& stream = own;
    char pattern[] = "abc";
    EXPECT_EQ(stream.findPattern(pattern), 7);
    EXPECT_EQ(stream.findPattern("abc"), 7);
}

TEST(InterfacesTest, ANumberIsAnException) {
    KP_Exception error = 5;
    EXPECT_EQ(error.err(), 5);
}

int returnsSomething(char* value, void* calls) {
    *static_cast<std::string*>(calls) += value;
    return 5;
}

TEST(InterfacesTest, AKeysHandlerMayReturnAnything) {
    kp::test::Installation site;
    std::string calls;
    KP_Tools::Configuration table[] = {{"a", "", returnsSomething},
                                       {"b", "",
                                        [](char* value, void* text) {
                                            *static_cast<std::string*>(text) +=
                                                std::string("/") + value;
                                        }},
                                       {"c", "", nullptr},
                                       {nullptr, "", nullptr}};
    std::FILE* const file = site.file("a=1\nb=2\nc=3\n");
    KP_Tools::readConfig(file, table, &calls);
    std::fclose(file);
    EXPECT_EQ(calls, "1/2");
    EXPECT_STREQ(table[2].value, "3");
}

}  // namespace
