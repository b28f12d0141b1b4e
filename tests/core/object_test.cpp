#include "kp/core/object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "kp/config/config_admin.h"
#include "kp/config/config_def.h"
#include "kp/config/file_lock.h"
#include "kp/core/calc_hash.h"
#include "kp/core/compare.h"
#include "kp/core/processor.h"
#include "kp/core/reference_counter.h"
#include "kp/engine/message_handler.h"
#include "kp/engine/reset_thread.h"
#include "kp/text/named_string_list.h"
#include "kp/threads/counter.h"
#include "kp/threads/reader_writer_mutex.h"
#include "kp/threads/thread_pool.h"
#include "kp/wire/buffer_stream.h"

namespace {

// Every identifier that is in use, and some that are not.
constexpr unsigned long kIdentifiers[] = {
    0x2BE2BF76, 0x2BE2BF78, 0x2BE2BF79, 0x2BE2BF7A, 0x2BE2BF7B, 0x2BE2BF7C, 0x2BE2BF7E, 0x2BE2BF80,
    0x2BE2BF84, 0x2BE2BF9B, 0x2BE2BF9C, 0x2BE2BF9D, 0x2BE2BFA3, 0x2BE2BFA4, 0x2BE2BFB6, 0x2371E481,
    0x0F53C6D2, 0x07DBE6C3, 0x411CDB01, 0x411CDB02, 0x411CDB04, 0xE4B524B2, 0x00000000, 0xFFFFFFFF};

struct Identity {
    unsigned long id;
    const char* name;
    unsigned long itsID;
    KP_Object* object;
    std::map<unsigned long, void*> views;
};

class Pool : public KP_ThreadPool {
public:
    Pool() : KP_ThreadPool(1) {}
};

// A new T, and what it can be seen as.
template <class T, class... Views>
Identity is(unsigned long id, const char* name) {
    T* object = new T;
    return {
        id, name, T::getClassID(), object, {{Views::getClassID(), static_cast<Views*>(object)}...}};
}

TEST(IdentityTest, EveryClassHasItsNameAndAnswersToExactlyItsIdentifiers) {
    const Identity classes[] = {
        is<KP_Object, KP_Object>(0x2BE2BF78, "KP_Object"),
        is<KP_ReferenceCounter, KP_ReferenceCounter, KP_Object>(0x2BE2BF79, "KP_ReferenceCounter"),
        is<KP_Compare, KP_Compare, KP_Object>(0x2BE2BF7E, "KP_Compare"),
        is<KP_CalcHash, KP_CalcHash, KP_Object>(0x2BE2BF80, "KP_CalcHash"),
        is<KP_Processor, KP_Processor>(0xE4B524B2, "KP_Processor"),
        is<KP_ConfigBase, KP_Object>(0x2BE2BF78, "KP_Object"),
        is<KP_Config, KP_Object>(0x2BE2BF78, "KP_Object"),
        is<KP_ConfigAdmin, KP_Object>(0x2BE2BF78, "KP_Object"),
        is<KP_ConfigDef, KP_Object>(0x2BE2BF78, "KP_Object"),
        is<KP_String, KP_String, KP_Link<KP_String>, KP_Compare, KP_Object, KP_Key<unsigned long>,
           KP_CalcHash>(0x2371E481, "KP_String"),
        is<KP_Link<KP_Task>, KP_Link<KP_Task>, KP_Compare, KP_Object>(0x2BE2BF9B, "KP_Link"),
        is<KP_NamedLink<KP_Task>, KP_NamedLink<KP_Task>, KP_Link<KP_Task>, KP_Compare, KP_Object>(
            0x2BE2BF9C, "KP_NamedLink<T>"),
        is<KP_List<KP_Task>, KP_List<KP_Task>, KP_Object>(0x2BE2BF9D, "KP_List"),
        is<KP_NamedStringList, KP_List<KP_String>, KP_Object>(0x2BE2BF9D, "KP_List"),
        is<KP_Mutex, KP_Mutex, KP_Object>(0x2BE2BF7A, "KP_Mutex"),
        is<KP_Event, KP_Event, KP_Object>(0x2BE2BF7B, "KP_Event"),
        is<KP_Counter, KP_Counter, KP_Object>(0x2BE2BF7C, "KP_Counter"),
        is<KP_ReaderWriterMutex, KP_Object>(0x2BE2BF78, "KP_Object"),
        is<KP_Runnable, KP_Runnable, KP_Object>(0x2BE2BFA3, "KP_Runnable"),
        is<KP_Thread, KP_Thread, KP_Runnable, KP_Object, KP_ReferenceCounter>(0x2BE2BFA4,
                                                                              "KP_Thread"),
        is<KP_ThreadList, KP_ThreadList, KP_Runnable, KP_Object>(0x2BE2BFB6, "KP_ThreadList"),
        is<Pool, KP_ThreadList, KP_Runnable, KP_Object>(0x2BE2BFB6, "KP_ThreadList"),
        is<KP_Task, KP_Object>(0x2BE2BF78, "KP_Object"),
        is<KP_Message, KP_Object>(0x2BE2BF78, "KP_Object"),
        is<KP_MessageHandler, KP_MessageHandler>(0x07DBE6C3, "KP_MessageHandler"),
        is<KP_ResetThread, KP_ResetThread, KP_Thread, KP_Runnable, KP_ReferenceCounter,
           KP_List<KP_Object>, KP_Object>(0x2BE2BF84, "KP_ResetThread"),
        is<KP_Buffer, KP_Buffer>(0x411CDB01, "KP_Buffer"),
        is<KP_BufferStream, KP_BufferStream, KP_Stream>(0x411CDB04, "KP_BufferStream"),
        is<KP_FileLock, KP_Object>(0x2BE2BF78, "KP_Object"),
    };
    for (const Identity& each : classes) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(each.itsID, each.id);
        EXPECT_STREQ(each.object->getClassName(), each.name);
        for (const unsigned long id : kIdentifiers) {
            const auto view = each.views.find(id);
            void* out = &out;
            EXPECT_EQ(each.object->queryInterface(id, &out), view != each.views.end() ? 0 : -1);
            EXPECT_EQ(out, view != each.views.end() ? view->second : nullptr) << std::hex << id;
        }
        each.object->release();
    }
}

class Counted : public KP_ReferenceCounter {
public:
    explicit Counted(std::atomic<int>* ends) : ends_(ends) {}
    // The last words come first, and once.
    void preRelease() override { EXPECT_EQ((*ends_)++, 0); }
    ~Counted() override { *ends_ += 10; }
    std::atomic<std::int32_t>& count() { return references_; }

private:
    std::atomic<int>* ends_;
};

TEST(ReferenceCounterTest, TheLastReleaseDestroysAfterPreRelease) {
    std::atomic<int> ends{0};
    auto* object = new Counted(&ends);
    object->addRef();
    object->addRef();
    Counted copy(*object);
    Counted assigned(&ends);
    assigned = copy;
    EXPECT_EQ(copy.count(), 3);
    EXPECT_EQ(assigned.count(), 3);
    object->release();
    object->release();
    EXPECT_EQ(ends, 0);
    object->release();
    EXPECT_EQ(ends, 11);
    for (const int none : {0, -1}) {
        copy.count() = none;
        copy.release();
        EXPECT_EQ(copy.count(), none);
        EXPECT_EQ(ends, 11);
    }
}

TEST(ReferenceCounterTest, ThreadsShareAnObjectUntilTheLastLetsGo) {
    std::atomic<int> ends{0};
    std::atomic<bool> go{false};
    auto* object = new Counted(&ends);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        object->addRef();
        threads.emplace_back([object, &go] {
            while (!go) {
                std::this_thread::yield();
            }
            for (int round = 0; round < 10000; ++round) {
                object->addRef();
                object->release();
            }
            object->release();
        });
    }
    object->release();
    EXPECT_EQ(ends, 0);
    go = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ends, 11);
}

struct Huge : KP_Object {
    char block[1ULL << 58];  // no machine has it
};

struct Failing : KP_Object {
    int init() override { return ++tries - 2; }
    int tries = 0;
};

TEST(CreateTest, InitialisesOnceWhateverInitSaysAndGivesNullWithoutMemory) {
    KP_Object* object = KP_Object::create();
    object->addRef();
    object->release();  // a plain object ends at once
    KP_ReferenceCounter::create()->release();
    auto* failing = kp::createAndInit<Failing>();
    EXPECT_EQ(failing->tries, 1);
    failing->release();
    EXPECT_EQ(kp::createAndInit<Huge>(), nullptr);
}

}  // namespace
