#include "kp/text/list.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <future>
#include <map>
#include <random>

#include "kp/core/processor.h"
#include "kp/text/named_string_list.h"
#include "support/failing_malloc.h"
#include "support/socket_pair.h"

namespace {

using Texts = KP_List<KP_String>;
using Names = KP_NamedList<KP_String>;
int alive = 0;  // Elements.

// Elements: without an identifier of their own, with one, and answering to nothing but their own.
struct Named : virtual KP_Object {
    explicit Named(char itsName) : name(itsName) { ++alive; }
    ~Named() override { --alive; }
    const char name;
};
struct Text : KP_String, Named {
    explicit Text(char itsName) : KP_String(std::string_view(&itsName, 1)), Named(itsName) {}
    int write(std::FILE* file) override { return KP_String::write(file) + (name == 'x' ? 7 : 0); }
};
struct Aloof : KP_Processor, Named {
    using Named::Named;
};

// The names in order, the one at the cursor in brackets.
template <class T>
std::string shown(KP_List<T>& list) {
    KP_Link<T>* const cursor = list.getCurrentLink();
    const int marked = cursor != nullptr ? cursor->countChain() : 0;
    int left = list.getCount();
    EXPECT_EQ(list.hasNext(), marked > 1 ? 1 : 0);
    EXPECT_EQ(list.hasPrevious(), marked > 0 && marked < left ? 1 : 0);
    std::string text;
    for (T* element : list.elements()) {
        const auto* named = dynamic_cast<Named*>(element);
        const std::string name(1, named != nullptr ? named->name : '?');
        text += left-- == marked ? "[" + name + "]" : name;
        EXPECT_EQ(list.isLocked(), 1);
    }
    EXPECT_EQ(list.isLocked() + left, 0);
    return text;
}

// Runs the script with all sets of options, each step without memory first; expects that outcome.
template <class T, class Made, class List, class... Name>
void expectAfter(const std::string& script, const char* expected, int selfLinked, Name... name) {
    for (int options = 0; options < 8; ++options) {
        const auto mode = static_cast<kp::test::FailingMalloc::Mode>(options / 4);
        T* made[] = {new Made('a'), new Made('b'), new Made('c'), new Made('d')};
        T** fresh = made;
        T* result = nullptr;
        List* list = new List;
        const std::map<char, std::function<T*()>> steps = {
            {'f', [&] { return list->first(); }},
            {'l', [&] { return list->last(); }},
            {'n', [&] { return list->next(); }},
            {'p', [&] { return list->previous(); }},
            {'2', [&] { return list->getAt(2); }},
            {'<', [&] { return list->getAt(std::numeric_limits<int>::min()); }},
            {'?', [&] { return list->find(made[1]); }},
            {'!', [&] { return list->remove(made[1]), nullptr; }},
            {'a', [&] { return list->append(*fresh, name...), ++fresh, nullptr; }},
            {'i', [&] { return list->insert(*fresh, name...), ++fresh, nullptr; }},
            {'x', [&] { return list->removeCurrent(), nullptr; }},
            {'c', [&] { return list->clear(), nullptr; }},
            {'s', [&] { return list->sort() == 0 ? nullptr : throw KP_NoMoreMemoryException(); }}};
        list->setOwner(options % 2), list->setRecycle(options & 2), list->setSelfLinked(selfLinked);
        for (const char step : script) {
            const std::string before = shown(*list);
            for (int number = 1; number != 0; ++number) {
                const kp::test::FailingMalloc failing(number, mode);
                try {
                    result = steps.at(step)();
                    number = -1;
                } catch (const KP_NoMoreMemoryException&) {
                    EXPECT_EQ(shown(*list), before);
                }
            }
        }
        const char last = result != nullptr ? dynamic_cast<Named&>(*result).name : '-';
        EXPECT_EQ(shown(*list) + ' ' + last, expected) << script << ' ' << options;
        EXPECT_EQ(alive, 4 - (options % 2) * (fresh - made - list->getCount()));
        list->release();
        std::for_each(options % 2 ? fresh : made, std::end(made), [](T* e) { e->release(); });
    }
}

TEST(ListTest, MovesItsCursorAndReleasesWhatItOwnsAsTold) {
    const char* const cases[][2] = {
        {"fln2", " -"},         {"xxs", " -"},         {"aalp", "[a]b a"},    {"aap", "[a]b -"},
        {"aaanxlp", "[a]c a"},  {"aaalxxn", "ab -"},   {"aalxp", "a -"},      {"aaxf", "[b] b"},
        {"aaalxa", "abd -"},    {"aaaxxxa", "[d] -"},  {"aanilp", "a[c]b c"}, {"aai", "c[a]b -"},
        {"axi", "[b] -"},       {"aalxii", "acd -"},   {"aaa2", "a[b]c b"},   {"aaa<", "ab[c] c"},
        {"aaal?", "a[b]c b"},   {"aaan!f?", "a[c] -"}, {"aaa!", "a[c] -"},    {"aa!", "a -"},
        {"aaan!f!", "a[c] -"},  {"aaacf", " -"},       {"aaca", "[c] -"},     {"iiisi", "d[a]bc -"},
        {"iiisis", "[a]bcd -"}, {"iiislp", "a[b]c b"}, {"aann", "a[b] -"},    {"iiilsx", "[b]c -"}};
    for (const auto& [script, expected] : cases) {
        expectAfter<KP_String, Text, Texts>(script, expected, 0);
        expectAfter<KP_String, Text, Texts>(script, expected, 1);
        expectAfter<KP_String, Text, Names>(script, expected, 0, std::string(99, 'n').c_str());
        if (std::strchr(script, 's') == nullptr) {
            expectAfter<Named, Named, KP_List<Named>>(script, expected, 0);
            expectAfter<KP_Object, Aloof, KP_List<KP_Object>>(script, expected, 0);
        }
    }
}

TEST(ListTest, AsksAndWritesItsElements) {
    Aloof aloof('q');
    Text texts[] = {Text('a'), Text('b'), Text('x')};
    KP_List<KP_Object> list;
    void* out = &list;
    EXPECT_EQ(list.findByInterface(KP_String::getClassID(), &out, 0), -1);
    list.append(&aloof), list.append(&aloof), list.sort(), list.append(texts), list.append(texts);
    EXPECT_EQ(list.findByInterface(KP_String::getClassID(), &out, KP_Compare::getClassID()), 0);
    EXPECT_EQ(out, static_cast<KP_Compare*>(texts));
    EXPECT_EQ(list.findNextByInterface(KP_String::getClassID(), &out, Aloof::getClassID()), -1);
    EXPECT_EQ((list.remove(texts), shown(list)), "qqa");
    char written[64] = "";
    std::FILE* file = ::fmemopen(written, sizeof written, "w");
    kp::test::SocketPair sockets;
    Texts own, links;
    own.setSelfLinked(1), own.print(file), own.writeJ(sockets.ours());
    own.append(texts), own.append(texts + 1), links.append(texts + 2), links.append(texts);
    const int results[] = {own.write(file),   own.print(file),   own.writeJ(sockets.ours()),
                           links.print(file), links.write(file), links.isLocked()};
    std::fclose(file);
    EXPECT_THAT(results, testing::ElementsAre(0, 0, 0, 0, 7, 0));
    EXPECT_STREQ(written, "Count{2}\nabvalue\t\t: a\nvalue\t\t: b\nCount{2}\nx");
    EXPECT_EQ(sockets.unread(sockets.theirs()), std::string("\0\0\0\0\0\0\0\2a\nb\n", 12));
    EXPECT_EQ(Text(texts[0]).getNext(), nullptr);  // In no list, unlike its source.
    sockets.closeTheirs();
    EXPECT_EQ(own.writeJ(sockets.ours()), -1);
    Texts owner;  // Does not release what is no text; this one would not survive it.
    owner.setOwner(1), owner.append(nullptr), owner.append(new Text('b'));
    kp::test::SocketPair peers;
    EXPECT_EQ(owner.writeJ(peers.ours()), 0);  // The count is that of what follows it.
    EXPECT_EQ(peers.unread(peers.theirs()), std::string("\0\0\0\1b\n", 6));
    EXPECT_EQ(owner.write(nullptr), -1);
    owner.getCurrentLink()->setElement(&aloof);
    EXPECT_EQ(shown(owner), "[?]b");
}

// A host's list, and which of its operations were called.
struct Host : Names {
    using Names::append;
    Host& log(char slot) { return calls += slot, *this; }
    KP_Link<KP_String>* createLink(KP_String* e) override { return log('L').Names::createLink(e); }
    int append(KP_String* e) override { return log('A').Names::append(e); }
    int removeCurrent() override { return log('R').Names::removeCurrent(); }
    KP_String* getCurrentElement() override { return log('E').Names::getCurrentElement(); }
    int insert(KP_String* e) override { return refuses ? 0 : Names::insert(e); }
    using Names::insert;
    bool refuses = false;
    std::string calls;
};

TEST(ListTest, NamesElementsReusesLinksAndCallsWhatAHostOverrides) {
    Text text[] = {Text('a'), Text('b'), Text('c'), Text('d')};
    Host list;
    EXPECT_EQ(list.setRecycle(1) + list.setCurrent(text) + list.countByName(""), -1);
    list.append(text, "n"), list.append(text + 1, "m");
    EXPECT_EQ(std::exchange(list.calls, ""), "ALAL");
    list.remove(text), list.insert(text, "x"), list.append(text + 2), list.append(text + 3, "x");
    EXPECT_EQ(std::exchange(list.calls, ""), "ERLAAL");
    EXPECT_EQ(list.findByName(""), text + 2);
    EXPECT_EQ(list.findByName("x"), text);
    EXPECT_EQ(list.findNextByName("x"), text + 3);
    EXPECT_EQ(list.findNextByName("X"), nullptr);
    EXPECT_EQ(list.countByName("x") * 10 + list.countByName(nullptr), 24);
    list.setSortByName(1), list.sort(), list.setSortByName(0), list.sort();
    EXPECT_EQ(list.first(), text + 2);
    EXPECT_EQ((list.setCurrent(text), list.getCurrent()), text);
    list.refuses = true, list.insert(text, "y"), list.refuses = false;
    EXPECT_EQ(list.countByName("y"), 0);
    list.calls.clear(), list.clear(), list.append(text);
    EXPECT_EQ(list.calls, "RRRRAL");
}

TEST(ListTest, FourThreadsLoseAndDoubleNothing) {
    std::vector<KP_String> texts(64);
    bool inList[64] = {};
    Texts list;
    list.setRecycle(1);
    std::vector<std::future<void>> threads;
    for (unsigned thread = 0; thread < 4; ++thread) {
        threads.push_back(std::async(std::launch::async, [&, thread] {
            std::mt19937 random(thread);
            std::size_t own = thread * 16;
            for (int i = 0; i < 5000; ++i) {
                (inList[own] = !inList[own]) ? list.append(&texts[own]) : list.remove(&texts[own]);
                random() % 2 == 0 ? list.sort() : list.next() != nullptr;
                own = thread * 16 + random() % 16;
                const auto all = list.elements();
                EXPECT_EQ(std::distance(all.begin(), all.end()), list.getCount());
                EXPECT_EQ(std::count(all.begin(), all.end(), &texts[own]), inList[own] ? 1 : 0);
            }
        }));
    }
}

}  // namespace
