#include "kp/text/list.h"

#include <gtest/gtest.h>

#include <bitset>
#include <climits>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <thread>

#include "kp/text/named_string_list.h"
#include "support/failing_malloc.h"
#include "support/socket_pair.h"

namespace {

std::string ended;  // The names of the elements that ended, in order.
int comparisons = 0;

struct Named {
    explicit Named(char itsName) : name(itsName) {}
    virtual ~Named() { ended += name; }
    const char name;
};
// With an identifier of its own, to which alone an aloof one answers.
template <bool kAloof>
struct Element : virtual KP_Compare, Named {
    using Named::Named;
    int compare(KP_Compare* other, int) override {
        return ++comparisons, name - dynamic_cast<Named&>(*other).name;
    }
    int write(std::FILE* file) override { return std::fputc(name, file) == 'X' ? 7 : 0; }
    int writeJ(int) override { return name == 'X' ? -1 : 0; }
    int queryInterface(unsigned long id, void** out) override {
        return kAloof ? kp::detail::answerAs<Element>(this, id, out)
                      : kp::detail::answerAs<Element, KP_Compare, KP_Object>(this, id, out);
    }
    static unsigned long getClassID() { return kAloof ? 0xA100F : 0xC0FFEE; }
};
using Item = Element<false>;
using Aloof = Element<true>;
struct Plain : virtual KP_Object, Named {  // Without an identifier of its own.
    using Named::Named;
};
struct Bead : KP_String, Named {  // Its own link.
    explicit Bead(char itsName) : KP_String(std::string_view(&itsName, 1)), Named(itsName) {}
};

// The names in order, the one at the cursor in brackets; the chain is whole in both directions.
template <class T>
std::string shown(KP_List<T>& list) {
    KP_Link<T>* const cursor = list.getCurrentLink();
    const int marked = cursor != nullptr ? cursor->countChain() : 0;
    int left = list.getCount();
    std::string text;
    for (T* element : list.elements()) {
        auto* named = dynamic_cast<Named*>(element);
        const std::string name(1, named != nullptr ? named->name : '?');
        text += left-- == marked ? "[" + name + "]" : name;
        EXPECT_EQ(list.isLocked(), 1);
    }
    EXPECT_EQ(list.isLocked() + left, 0);
    EXPECT_EQ(list.hasNext(), marked > 1 ? 1 : 0);
    EXPECT_EQ(list.hasPrevious(), marked > 0 && marked < list.getCount() ? 1 : 0);
    list.last();
    for (KP_Link<T>* link = list.getCurrentLink(); link != nullptr; link = link->getPrevious()) {
        ++left;
    }
    EXPECT_EQ(left, list.getCount());
    return list.setCurrentLink(cursor) == 0 ? text : "";
}

// What a list is after the operations of the script, and what the last of them yielded.
template <class List, class T, class Made>
std::string after(const char* script, int recycle, int selfLinked = 0) {
    std::deque<Made> made;
    List list;
    T* item = nullptr;
    std::map<char, std::function<T*()>> operations = {
        {'f', [&] { return list.first(); }},
        {'l', [&] { return list.last(); }},
        {'n', [&] { return list.next(); }},
        {'p', [&] { return list.previous(); }},
        {'0', [&] { return list.getAt(0); }},
        {'3', [&] { return list.getAt(3); }},
        {'<', [&] { return list.getAt(INT_MIN); }},
        {'>', [&] { return list.getAt(INT_MAX); }},
        {'a', [&] { return list.append(item), nullptr; }},
        {'i', [&] { return list.insert(item), nullptr; }},
        {'x', [&] { return list.removeCurrent(), nullptr; }},
        {'!', [&] { return list.remove(item), nullptr; }},
        {'?', [&] { return list.find(item); }},
        {'c', [&] { return list.clear(), nullptr; }},
        {'s', [&] { return list.sort(), nullptr; }}};
    T* result = nullptr;
    EXPECT_EQ(list.setRecycle(recycle) + list.setSelfLinked(selfLinked), 0);
    for (const char* op = script; *op != '\0'; ++op) {
        const char letter = *op;
        if (letter == 'a' || letter == 'i') {
            item = &made.emplace_back(static_cast<char>('a' + made.size()));
        } else if (letter == '!' || letter == '?') {
            item = &made[static_cast<std::size_t>(*++op - 'a')];
        }
        result = operations.at(letter)();
    }
    return shown(list) + " " + (result != nullptr ? dynamic_cast<Named&>(*result).name : '-');
}

TEST(ListTest, MovesItsCursorAsTold) {
    const char* const cases[][2] = {
        {"fln3", " -"},         {"xxs", " -"},         {"aaa", "[a]bc -"},    {"aaann", "ab[c] c"},
        {"aann", "a[b] -"},     {"aalp", "[a]b a"},    {"aap", "[a]b -"},     {"aaanx", "a[c] -"},
        {"aaalxxn", "ab -"},    {"aalxp", "a -"},      {"aaxf", "[b] b"},     {"aaalxa", "abd -"},
        {"axa", "[b] -"},       {"aani", "ac[b] -"},   {"aai", "c[a]b -"},    {"axi", "[b] -"},
        {"aalxii", "acd -"},    {"aaa3", "ab[c] c"},   {"aaa0", "ab[c] c"},   {"aa3", "a[b] b"},
        {"aa>", "a[b] b"},      {"aa<", "a[b] b"},     {"aaal?b", "a[b]c b"}, {"aaax?a", "b[c] -"},
        {"aaa!b", "a[c] -"},    {"aaan!b", "a[c] -"},  {"aaa!c", "ab -"},     {"aaax!a", "b[c] -"},
        {"aaacf", " -"},        {"aaca", "[c] -"},     {"iiis", "[a]bc -"},   {"iiisi", "d[a]bc -"},
        {"iiisis", "[a]bcd -"}, {"iiisnl", "ab[c] c"}, {"is", "[a] -"},       {"iiilsx", "[b]c -"}};
    for (const auto& [script, expected] : cases) {
        SCOPED_TRACE(script);
        for (const int recycle : {0, 1}) {
            EXPECT_EQ((after<KP_List<Item>, Item, Item>(script, recycle)), expected);
            EXPECT_EQ((after<KP_NamedList<Item>, Item, Item>(script, recycle)), expected);
            EXPECT_EQ((after<KP_List<KP_String>, KP_String, Bead>(script, recycle, 1)), expected);
            // What cannot be compared is in any order.
            EXPECT_EQ((after<KP_List<KP_Object>, KP_Object, Aloof>(script, recycle)).size(),
                      std::strlen(expected));
        }
    }
}

// Elements that are removed, cleared away, and left when the list is destroyed.
template <class T, class Made>
void expectReleases(int selfLinked = 0) {
    for (const int owner : {0, 1}) {
        std::deque<T*> made;
        ended.clear();
        {
            KP_List<T> list;
            EXPECT_EQ(list.setOwner(owner) + list.setSelfLinked(selfLinked), 0);
            for (const char name : {'a', 'b', 'c', 'd', 'e'}) {
                list.append(made.emplace_back(new Made(name)));
                EXPECT_EQ(list.last(), made.back());
                name == 'd' ? list.removeCurrent() + list.remove(made[1]) + list.clear() : 0;
            }
            EXPECT_EQ(ended, owner != 0 ? "dbac" : "");
        }
        EXPECT_EQ(ended, owner != 0 ? "dbace" : "");
        for (std::size_t i = 0; owner == 0 && i < made.size(); ++i) {
            made[i]->release();
        }
    }
}

TEST(ListTest, ReleasesWhatItOwnsAndNothingElse) {
    expectReleases<Item, Item>();
    expectReleases<Plain, Plain>();
    expectReleases<KP_Object, Aloof>();
    expectReleases<KP_String, Bead>();
    expectReleases<KP_String, Bead>(1);
    Plain plain('p');
    ended.clear();
    KP_List<Item> list;
    list.setOwner(1);
    list.append(nullptr);
    list.append(new Item('a'));
    list.getCurrentLink()->setElement(&plain);
    EXPECT_EQ(shown(list), "[?]a");
    EXPECT_EQ(list.first(), nullptr);
    list.clear();
    EXPECT_EQ(ended, "a");
}

TEST(ListTest, FindsByInterface) {
    Plain plain('p');
    Aloof aloof('q');
    Item items[] = {Item('i'), Item('j')};
    KP_List<KP_Object> list;
    const unsigned long item = Item::getClassID(), root = KP_Object::getClassID();
    void* out = &plain;
    EXPECT_EQ(list.findByInterface(item, &out, 0), -1);
    list.append(&plain), list.append(&aloof), list.append(items), list.append(items + 1);
    EXPECT_EQ(list.findByInterface(item, &out, 0), 0);
    EXPECT_EQ(out, items);
    EXPECT_EQ(shown(list), "pq[i]j");
    EXPECT_EQ(list.findNextByInterface(item, &out, root), 0);
    EXPECT_EQ(out, static_cast<KP_Object*>(items + 1));
    EXPECT_EQ(list.findNextByInterface(item, &out, 0), -1);
    EXPECT_EQ(list.findByInterface(Aloof::getClassID(), &out, root), -1);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(shown(list), "p[q]ij");
}

TEST(ListTest, WritesSendsAndPrints) {
    char text[64] = "";
    std::FILE* file = ::fmemopen(text, sizeof text, "w");
    const kp::test::SocketPair sockets;
    Bead a('a'), b('b');
    Item x('X'), y('y');
    KP_List<KP_String> beads;
    KP_List<Item> items;
    beads.setSelfLinked(1);
    EXPECT_EQ(beads.print(file) + beads.writeJ(sockets.ours()), 0);
    beads.append(&a), beads.append(&b), items.append(&x), items.append(&y);
    EXPECT_EQ(beads.write(file) + beads.print(file) + items.print(file), 0);
    EXPECT_EQ(items.write(file), 7);
    std::fclose(file);
    EXPECT_STREQ(text, "Count{2}\nabvalue\t\t: a\nvalue\t\t: b\nCount{2}\nX");
    EXPECT_EQ(beads.writeJ(sockets.ours()), 0);
    EXPECT_EQ(items.writeJ(sockets.ours()), -1);
    EXPECT_EQ(sockets.unread(sockets.theirs()), std::string("\0\0\0\0\0\0\0\2a\nb\n\0\0\0\2", 16));
    EXPECT_EQ(items.isLocked(), 0);
}

// A host's list, and which of its operations were called.
struct Host : KP_NamedList<Item> {
    using KP_NamedList::append;
    Host& log(char slot) { return calls += slot, *this; }
    KP_Link<Item>* createLink(Item* e) override { return log('L').KP_NamedList::createLink(e); }
    int append(Item* e) override { return log('A').KP_NamedList::append(e); }
    int removeCurrent() override { return log('R').KP_NamedList::removeCurrent(); }
    int sortArray(KP_Object** o, int n) override { return log('S').KP_NamedList::sortArray(o, n); }
    Item* getCurrentElement() override { return log('E').KP_NamedList::getCurrentElement(); }
    std::string calls;
};

TEST(ListTest, CallsWhatAHostOverridesAndReusesLinks) {
    Item items[] = {Item('a'), Item('b'), Item('c')};
    Host list;
    list.setRecycle(1);
    const std::pair<std::function<int()>, const char*> steps[] = {
        {[&] { return list.append(items, "n"); }, "AL"},
        {[&] { return list.append(items + 1, "m"); }, "AL"},
        {[&] { return list.first() - items; }, "E"},
        {[&] { return list.remove(items); }, "ER"},
        {[&] { return list.insert(items, "k"); }, "L"},
        {[&] { return list.append(items + 2); }, "A"},
        {[&] { return list.findByName("") - items - 2; }, "E"},
        {[&] { return list.setSortByName(1); }, ""},
        {[&] { return list.sort(); }, "S"},
        {[&] { return list.sort(); }, ""},
        {[&] { return list.clear(); }, "RRR"},
        {[&] { return list.append(items); }, "AL"}};
    for (const auto& [step, calls] : steps) {
        list.calls.clear();
        EXPECT_EQ(step(), 0);
        EXPECT_EQ(list.calls, calls) << &calls - &steps[0].second;
    }
}

TEST(ListTest, IsAsItWasWithoutMemory) {
    Item items[] = {Item('a'), Item('b'), Item('c')};
    const std::string name(99, 'n');
    KP_NamedList<Item>* list = nullptr;
    const std::tuple<std::function<int()>, const char*, const char*> changes[] = {
        {[&] { return list->append(items); }, "[c]b", "[c]ba"},
        {[&] { return list->insert(items); }, "[c]b", "a[c]b"},
        {[&] { return list->append(items, name.c_str()); }, "[c]b", "[c]ba"},
        {[&] { return list->insert(items, name.c_str()); }, "[c]b", "a[c]b"},
        {[&] { return list->clear() + list->append(items, name.c_str()); }, "", "[a]"},
        {[&] { return list->clear() + list->insert(items, name.c_str()); }, "", "[a]"},
        {[&] { return list->sort(); }, "[c]b", "[b]c"}};
    for (const auto& [change, failed, done] : changes) {
        for (const int recycle : {0, 1}) {
            kp::test::failEachAllocation([&, &change = change, &failed = failed, &done = done] {
                KP_NamedList<Item> made;
                list = &made;
                try {
                    made.setRecycle(recycle);
                    made.append(items), made.append(items + 2), made.append(items + 1);
                    made.removeCurrent();
                } catch (const KP_NoMoreMemoryException&) {
                    return true;
                }
                bool well = false;
                try {
                    well = change() == 0;
                } catch (const KP_NoMoreMemoryException&) {
                }
                return shown(made) == (well ? done : failed);
            });
        }
    }
}

TEST(ListTest, FourThreadsLoseAndDoubleNothing) {
    constexpr int kThreads = 4, kOwn = 16;
    std::deque<Item> items;
    for (int i = 0; i < kThreads * kOwn; ++i) {
        items.emplace_back(static_cast<char>(i));
    }
    KP_List<Item> list;
    list.setRecycle(1);
    bool inList[kThreads * kOwn] = {};
    const auto listed = [&list] {
        std::bitset<kThreads * kOwn> seen;
        for (Item* item : list.elements()) {
            EXPECT_FALSE(seen[static_cast<std::size_t>(item->name)]);
            seen.set(static_cast<std::size_t>(item->name));
        }
        return seen;
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            std::mt19937 random(static_cast<unsigned>(thread));
            for (int i = 0; i < 5000; ++i) {
                const std::size_t own = static_cast<std::size_t>(thread) * kOwn + random() % kOwn;
                const auto choice = random() % 8;
                if (choice < 2) {
                    choice == 0 ? list.sort() : (list.next(), list.hasNext());
                    listed();
                    continue;
                }
                if (inList[own]) {
                    list.remove(&items[own]);
                } else {
                    choice < 5 ? list.append(&items[own]) : list.insert(&items[own]);
                }
                inList[own] = !inList[own];
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto seen = listed();
    for (std::size_t i = 0; i < items.size(); ++i) {
        EXPECT_EQ(seen[i], inList[i]);
    }
    EXPECT_EQ(shown(list).size(), list.getCount() + ...);
}

}  // namespace
