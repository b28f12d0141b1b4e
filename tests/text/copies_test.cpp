// Copies of lists, elements that are no elements, and what a list refuses.
#include <gtest/gtest.h>

#include <string>

#include "kp/core/no_more_memory_exception.h"
#include "kp/core/processor.h"
#include "kp/text/named_string_list.h"
#include "support/failing_malloc.h"
#include "support/installation.h"

namespace {

using Texts = KP_List<KP_String>;

template <class List>
std::string shown(List& list) {
    std::string text;
    for (KP_String* element : list.elements()) {
        text += element != nullptr ? std::string(element->view()) : "?";
    }
    return text;
}

TEST(ListCopyTest, RefersToTheSameElementsAndOwnsNone) {
    KP_String kept("k", 0);
    Texts target;
    target.append(&kept);
    {
        Texts source;
        source.setOwner(1);
        source.setSelfLinked(1);
        for (const char* text : {"b", "c", "a"}) {
            source.append(new KP_String(text));
        }
        source.sort();
        source.next();
        Texts copy(source);
        EXPECT_EQ(shown(copy), "abc");
        EXPECT_EQ(copy.getCurrent(), source.getCurrent());
        EXPECT_EQ(copy.removeCurrent(), 0);
        copy.append(&kept);
        EXPECT_EQ(shown(copy) + '/' + shown(source), "ack/abc");
        target = source;
        target = *&target;
        EXPECT_EQ(shown(target), "abc");
        EXPECT_EQ(target.last(), source.last());
        target.clear();
        EXPECT_EQ(shown(source), "abc");
    }
    EXPECT_EQ(kept.getLength(), 1U);
}

TEST(ListCopyTest, OfANamedListHasTheNamesAndItsOwnSwitches) {
    KP_NamedStringList source;
    source.setOwner(1);
    source.append(new KP_String("1"), "b");
    source.append(new KP_String("2"), "a");
    source.setSortByName(1);
    kp::test::failEachAllocation([&] {
        try {
            KP_NamedStringList copy(source);
            if (copy.sort() != 0) {
                return shown(copy) == "12";
            }
            KP_NamedStringList assigned;
            assigned = copy;
            return shown(assigned) == "21" && assigned.findByName("b") == source.first() &&
                   shown(source) == "12";
        } catch (const KP_NoMoreMemoryException&) {
            return shown(source) == "12";
        }
    });
}

TEST(ListTest, FindsAndRemovesBehindAnElementThatIsNone) {
    KP_Processor other;
    KP_String a("a");
    KP_String b("b");
    Texts list;
    list.append(&a);
    list.append(&b);
    list.getCurrentLink()->setElement(&other);  // Answers to no string.
    list.setCurrentLink(nullptr);
    EXPECT_EQ(list.find(&b), &b);
    EXPECT_EQ(list.find(&a), nullptr);
    void* out = nullptr;
    EXPECT_EQ(list.findByInterface(KP_String::getClassID(), &out, 0), 0);
    EXPECT_EQ(out, &b);
    list.setCurrentLink(nullptr);
    EXPECT_EQ(list.remove(nullptr), 0);
    EXPECT_EQ(list.remove(&b), 0);
    EXPECT_EQ(list.getCount(), 1);
    list.first();
    EXPECT_EQ(list.remove(nullptr), 0);
    EXPECT_EQ(list.getCount(), 0);
}

class MisuseTest : public kp::test::InstallationTest {};

TEST_F(MisuseTest, IsRefusedAndTold) {
    site_.openLog();
    KP_String a("a");
    KP_String b("b");
    Texts list;
    Texts second;
    list.setSelfLinked(1);
    second.setSelfLinked(1);
    EXPECT_EQ(list.append(&a) + list.append(&b), 0);
    EXPECT_EQ(list.append(&a), -1);
    EXPECT_EQ(list.insert(&b), -1);
    EXPECT_EQ(second.append(&b), -1);
    EXPECT_EQ(shown(list) + '/' + shown(second), "ab/");
    const std::string twice =
        "TIME - KP_List: an element that is its own link is in a list already\n";
    EXPECT_EQ(site_.newLog(), twice + twice + twice);
    list.remove(&a);
    EXPECT_EQ(second.append(&a), 0);

    struct Plain : KP_Object {};
    Plain plain;
    KP_List<Plain> links;
    links.setSelfLinked(1);
    EXPECT_EQ(links.append(&plain), -1);
    EXPECT_EQ(links.insert(nullptr), -1);
    const std::string none = "TIME - KP_List: an element that is to be its own link is none\n";
    EXPECT_EQ(site_.newLog(), none + none);

    KP_NamedStringList names;  // Releases its values all the same.
    names.setSelfLinked(1);
    names.setOwner(1);
    names.append(new KP_String("value"), "name");
    names.append(new KP_String("value"), "other");
    names.removeCurrent();
    EXPECT_EQ(site_.newLog(), "TIME - KP_NamedList: elements are never their own links here\n");
}

TEST(KeyTest, KeepsAValueWhole) {
    int there = 0;
    KP_Key<long> key(reinterpret_cast<long>(&there));
    KP_Key<long> copy;
    copy.copyKey(&key);
    EXPECT_EQ(reinterpret_cast<int*>(copy.getKey()), &there);
    EXPECT_EQ(KP_String().getKey(), 0xFFFFFFFFUL);
}

}  // namespace
