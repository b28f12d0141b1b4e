#include "kp/text/link.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "kp/text/key.h"
#include "kp/text/string.h"

namespace {

// What happened to the elements and links of a test, in order.
std::string story;

// A class with an identifier of its own.
class Comparable : public virtual KP_Compare {
public:
    explicit Comparable(int value = 0) : value_(value) {}
    int compare(KP_Compare* other, int mode) override {
        return 100 * mode + value_ - dynamic_cast<Comparable&>(*other).value_;
    }
    int queryInterface(unsigned long id, void** out) override {
        return kp::answerAs<Comparable, KP_Compare, KP_Object>(this, id, out);
    }
    static unsigned long getClassID() { return 0x00C0FFEE; }

private:
    int value_;
};

// Classes that inherit their identifier: the root's, and another one.
class Nameless : public virtual KP_Object {};
class MoreNameless : public Nameless {};
class Specific : public Comparable {};
// Answers to its own identifier only, not to the root's.
class Aloof : public virtual KP_Object {
public:
    int queryInterface(unsigned long id, void** out) override {
        return kp::answerAs<Aloof>(this, id, out);
    }
    static unsigned long getClassID() { return 0x0000A100; }
};

class AloofNameless : public Nameless, public Aloof {};

template <class T>
class TracedLink : public KP_Link<T> {
public:
    TracedLink(char name, T* element = nullptr) : KP_Link<T>(element), name_(name) {}
    ~TracedLink() override { story += name_; }
    int print(std::FILE*) override {
        story += name_;
        return 0;
    }

private:
    char name_;
};

TEST(LinkTest, ShowsItsElementAsWhatItIs) {
    Comparable comparable;
    Specific specific;
    Nameless nameless;
    MoreNameless more;
    Aloof aloof;
    AloofNameless both;
    KP_String string;
    KP_Object* const objects[] = {&comparable, &specific, &nameless, &more,
                                  &aloof,      &both,     &string,   nullptr};
    for (KP_Object* object : objects) {
        KP_Link<KP_Object> root(object);
        KP_Link<Comparable> own;
        KP_Link<Specific> inherited;
        KP_Link<Nameless> rootsOwn;
        KP_Link<Aloof> only;
        KP_Link<KP_String> text;
        EXPECT_EQ(own.setElement(object) + inherited.setElement(object), 0);
        EXPECT_EQ(rootsOwn.setElement(object) + only.setElement(object), 0);
        EXPECT_EQ(text.setElement(object), 0);
        EXPECT_EQ(root.getElement(), object);
        EXPECT_EQ(own.getElement(), dynamic_cast<Comparable*>(object));
        EXPECT_EQ(inherited.getElement(), dynamic_cast<Specific*>(object));
        EXPECT_EQ(rootsOwn.getElement(), dynamic_cast<Nameless*>(object));
        EXPECT_EQ(only.getElement(), dynamic_cast<Aloof*>(object));
        EXPECT_EQ(text.getElement(), dynamic_cast<KP_String*>(object));
    }
}

TEST(LinkTest, LinksAndUnlinks) {
    Comparable one;
    KP_Link<Comparable> a;
    KP_Link<Comparable> b(&one);
    KP_Link<Comparable> c;
    KP_Link<Comparable> x;
    const auto chain = [&] {
        std::string names;
        for (KP_Link<Comparable>* link = &a; link != nullptr; link = link->getNext()) {
            names += link == &a ? 'a' : link == &b ? 'b' : link == &c ? 'c' : 'x';
            EXPECT_TRUE(link->getNext() == nullptr || link->getNext()->getPrevious() == link);
        }
        EXPECT_EQ(a.countChain(), static_cast<int>(names.size()));
        return names;
    };
    EXPECT_EQ(chain(), "a");
    EXPECT_EQ(a.getNextElement(), nullptr);
    EXPECT_EQ(a.getPreviousElement(), nullptr);
    EXPECT_EQ(a.linkAfter(&b) + b.linkAfter(&c), 0);
    EXPECT_EQ(chain(), "abc");
    EXPECT_EQ(a.getNextElement(), &one);
    EXPECT_EQ(c.getPreviousElement(), &one);
    EXPECT_EQ(a.linkAfter(&x), 0);
    EXPECT_EQ(chain(), "axbc");
    EXPECT_EQ(x.unlink() + c.linkBefore(&x), 0);
    EXPECT_EQ(chain(), "abxc");
    EXPECT_EQ(b.unlink(), 0);
    EXPECT_EQ(chain(), "axc");
    EXPECT_EQ(b.getNext(), nullptr);
    EXPECT_EQ(b.getPrevious(), nullptr);
    // Already there, itself, nothing: the chain stays whole.
    EXPECT_EQ(a.linkAfter(&x) + x.linkBefore(&a), 0);
    EXPECT_EQ(a.linkAfter(nullptr), -1);
    EXPECT_EQ(a.linkBefore(&a), -1);
    EXPECT_EQ(chain(), "axc");
    EXPECT_EQ(c.unlink() + a.unlink(), 0);
    EXPECT_EQ(chain(), "a");
    EXPECT_EQ(x.countChain(), 1);
    a.setNext(&b);
    b.setPrevious(&a);
    EXPECT_EQ(chain(), "ab");
    EXPECT_EQ(a.clearLinks(), 0);
    EXPECT_EQ(b.getPrevious(), &a);
    KP_Object& root = b;
    EXPECT_EQ(root.init(), 0);
    EXPECT_EQ(b.getPrevious(), nullptr);
    const KP_Link<Comparable> copy(c.linkAfter(&b) == 0 ? c : a);
    EXPECT_EQ(KP_Link<Comparable>(copy).getNextElement(), &one);
    EXPECT_EQ(b.getPrevious(), &c);
}

TEST(LinkTest, ComparesItsElements) {
    Comparable three(3);
    Comparable five(5);
    Nameless plain;
    KP_Link<Comparable> a(&three);
    TracedLink<Comparable> b('b', &five);
    KP_Link<Comparable> empty;
    KP_Link<Comparable> other;
    other.setElement(&plain);
    KP_Link<KP_Object> foreign(&five);
    EXPECT_EQ(a.compare(&b, 0), -2);
    EXPECT_EQ(b.compare(&a, 7), 702);
    for (KP_Compare* each :
         std::initializer_list<KP_Compare*>{&empty, &other, &foreign, &three, nullptr}) {
        EXPECT_EQ(a.compare(each, 0), -1);
    }
    EXPECT_EQ(empty.compare(&a, 0), -1);
    EXPECT_EQ(other.compare(&a, 0), -1);
}

}  // namespace
