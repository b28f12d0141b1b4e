#include <gtest/gtest.h>

#include <string>

#include "kp/engine/message_handler.h"

namespace {

// Writes its letter down and answers as it was told to.
class Leaf : public KP_MessageHandler {
public:
    Leaf(std::string* asked, char letter, int answer)
        : asked_(asked), letter_(letter), answer_(answer) {}
    int handleMessage(KP_Message* message) override {
        *asked_ += letter_;
        *asked_ += message->getMessage();
        return answer_;
    }

private:
    std::string* asked_;
    char letter_;
    int answer_;
};

TEST(MessageHandlerTest, AsksDepthFirstUntilOneAnswers) {
    std::string asked;
    Leaf a(&asked, 'a', 0);
    Leaf b(&asked, 'b', 7);
    Leaf c(&asked, 'c', 1);
    KP_MessageHandler top;
    KP_Message message("!", &a);
    EXPECT_EQ(message.getSource(), &a);
    EXPECT_EQ(top.sendMessage(&message), 0);
    {
        KP_MessageHandler inner;
        for (KP_MessageHandler* handler : {static_cast<KP_MessageHandler*>(&a), &inner}) {
            top.addHandler(handler);
        }
        top.addHandler(&c);
        inner.addHandler(&a);
        inner.addHandler(&b);
        EXPECT_EQ(top.handleMessage(&message), 7);
        EXPECT_EQ(asked, "a!a!b!");
        inner.removeHandler(&b);
        inner.removeHandler(&b);
        asked.clear();
        EXPECT_EQ(KP_MessageHandler(top).sendMessage(&message), 0);
        EXPECT_EQ(top.sendMessage(&message), 1);
        top.removeHandler(&inner);
    }
    EXPECT_EQ(asked, "a!a!c!");
    message.setMessage(nullptr);
    EXPECT_STREQ(message.getMessage(), "");
}

}  // namespace
