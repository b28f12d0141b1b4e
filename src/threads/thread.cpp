#include "kp/threads/thread.h"

#include <algorithm>
#include <mutex>

#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"
#include "threads/abandonable.h"

namespace {

using Guard = std::lock_guard<kp::detail::RecursiveLock>;

constexpr int kJoinSlice = 1000;        // milliseconds
constexpr int kForcedEndLimit = 5000;   // milliseconds
constexpr int kLongestDeafness = 500;   // milliseconds until a wait notices that it is unwanted
constexpr int kLongestSleep = 2147483;  // seconds whose milliseconds fit an int

}  // namespace

// One start of a thread, as long as the system's thread or the object still needs it. It outlives
// both in turn: the object may be destroyed by the loop's last release(), and a loop that was told
// to end may take its time.
struct KP_Thread::Loop {
    explicit Loop(KP_Thread* owner) : thread(owner) {}

    static void drop(Loop* loop) {
        if (loop != nullptr && loop->users.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            loop->~Loop();
            KP_Object::operator delete(loop);
        }
    }

    // On the new thread, first thing.
    bool begin() {
        const Guard guard(lock);
        id = kp::platform::currentThread();
        begun = true;
        return !abandoned;
    }
    // On the new thread, last thing: nobody may ask the system for the thread afterwards.
    void end() {
        const Guard guard(lock);
        kp::platform::happensBefore(&ended);
        ended.store(1, std::memory_order_release);
        kp::platform::wakeAll(ended);
    }
    void abandon() {
        const Guard guard(lock);
        abandoned = true;
        if (begun && ended.load(std::memory_order_relaxed) == 0) {
            kp::platform::abandonWork(id);
        }
    }
    bool isCurrentThread() {
        const Guard guard(lock);
        return begun && ended.load(std::memory_order_relaxed) == 0 &&
               id == kp::platform::currentThread();
    }
    bool hasEnded() const {
        if (ended.load(std::memory_order_acquire) == 0) {
            return false;
        }
        kp::platform::happensAfter(&ended);
        return true;
    }
    // Waits for as long as it takes.
    void waitForEnd() {
        while (!hasEnded()) {
            kp::platform::waitWhileEqual(ended, 0, nullptr);
        }
    }
    // Waits a limited time, and no longer when the waiting thread itself is to be ended by force;
    // whether the loop has ended. The signal for that may come just before the sleep, and so may
    // the one with which this loop is ended: @p insists sends it again.
    bool waitALittleForEnd(bool insists = false) {
        for (int slices = kForcedEndLimit / kLongestDeafness; !hasEnded(); --slices) {
            if (slices == 0 || kp::platform::isAbandonWanted()) {
                return false;
            }
            if (insists) {
                abandon();
            }
            const kp::platform::Deadline slice = kp::platform::deadlineIn(kLongestDeafness);
            while (!hasEnded() && !kp::platform::isAbandonWanted() &&
                   kp::platform::waitWhileEqual(ended, 0, &slice)) {
            }
        }
        return true;
    }

    KP_Thread* const thread;
    std::atomic<int> users{2};  // The object and the system's thread.
    std::atomic<std::uint32_t> ended{0};
    kp::detail::RecursiveLock lock;  // Guards the rest.
    kp::platform::ThreadId id = 0;
    bool begun = false;
    bool abandoned = false;
};

KP_Thread::KP_Thread(void (*function)(void*), void* arg) : function_(function), arg_(arg) {}

KP_Thread::KP_Thread(const KP_Thread& other)
    : KP_Object(other),
      KP_Runnable(other),
      KP_ReferenceCounter(other),
      KP_Mutex(other),
      function_(nullptr),
      arg_(nullptr) {
    copySettings(other);
}

KP_Thread& KP_Thread::operator=(const KP_Thread& other) {
    if (this != &other) {
        const kp::detail::Abandonable shield(false);
        const std::lock_guard<KP_Mutex> guard(*this);
        Loop* const last = currentLoop();
        if (last == nullptr || last->hasEnded()) {
            KP_ReferenceCounter::operator=(other);
        }
        Loop::drop(last);
        copySettings(other);
    }
    return *this;
}

void KP_Thread::copySettings(const KP_Thread& other) {
    void (*function)(void*) = nullptr;
    void* arg = nullptr;
    other.getPair(&function, &arg);
    setPair(function, arg);
    arg2_ = other.arg2_.load();
    iterationLimit_ = other.iterationLimit_.load();
    iterationCount_ = other.iterationCount_.load();
    sleepInterval_ = other.sleepInterval_.load();
    continue_ = other.continue_.load();
    hardStop_ = other.hardStop_.load();
}

KP_Thread::~KP_Thread() {
    KP_Thread::stop();
    if (!isOwnLoop()) {
        waitForLoop();
    }
    Loop::drop(loop_.load());
    endTask();
}

void KP_Thread::endTask() {
    if (taskObject_ != nullptr) {
        taskObject_->release();
        taskObject_ = nullptr;
    }
    task_ = kNoTask;  // Last: whoever waits for such a task may let go of what it needs.
}

// The loop of the last start(), with a share in it for the caller; null before the first start().
KP_Thread::Loop* KP_Thread::currentLoop() {
    const Guard guard(loopLock_);
    Loop* loop = loop_.load();
    if (loop != nullptr) {
        loop->users.fetch_add(1, std::memory_order_relaxed);
    }
    return loop;
}

bool KP_Thread::isOwnLoop() {
    Loop* loop = currentLoop();
    const bool own = loop != nullptr && loop->isCurrentThread();
    Loop::drop(loop);
    return own;
}

int KP_Thread::start(void (*function)(void*), void* arg) {
    {
        const kp::detail::Abandonable shield(false);
        setPair(function != nullptr ? function : function_.load(),
                arg != nullptr ? arg : arg_.load());
    }
    return start();
}

int KP_Thread::start() {
    const kp::detail::Abandonable shield(false);
    std::unique_lock<KP_Mutex> guard(*this);
    // The last loop may be on its way out still, for which it needs the lock. Whoever destroys the
    // object waits for one loop, so there are never two.
    while (!handle_) {
        Loop* const last = currentLoop();
        const bool isGone = last == nullptr || last->isCurrentThread() || last->hasEnded();
        if (!isGone) {
            guard.unlock();
        }
        const bool hasEnded = isGone || last->waitALittleForEnd();
        Loop::drop(last);
        if (isGone) {
            break;
        }
        if (!hasEnded) {
            return -1;
        }
        guard.lock();
    }
    if (handle_) {
        continue_ = 1;
        return 0;
    }
    void* memory = KP_Object::operator new(sizeof(Loop));
    if (memory == nullptr) {
        return -1;
    }
    Loop* loop = new (memory) Loop(this);
    {
        // At once, so that whoever ends a loop by force takes the handle of just that loop.
        const Guard exchange(loopLock_);
        Loop::drop(loop_.exchange(loop));
        continue_ = 1;
        handle_ = true;
    }
    // The new thread's reference must exist before it does: the owner may release at any time.
    addRef();
    if (!kp::platform::startThread(enter, loop)) {
        handle_ = false;
        loop->end();
        Loop::drop(loop);
        references_.fetch_sub(1);
        return -1;
    }
    return 0;
}

// What the system's thread runs.
void KP_Thread::enter(void* memory) {
    auto* loop = static_cast<Loop*>(memory);
    KP_Thread* const thread = loop->thread;
    if (loop->begin()) {
        if (!kp::platform::runWork(asyncCallback, thread)) {
            thread->leaveLoop();
        } else if (thread->isLoopOf(loop)) {
            // A run() of a derived class has left it to us.
            thread->handle_ = false;
            thread->signalJoiners();
        }
    }
    thread->release();
    loop->end();
    Loop::drop(loop);
}

void KP_Thread::asyncCallback(void* thread) {
    static_cast<KP_Thread*>(thread)->run();
}

int KP_Thread::run() {
    addRef();
    while (goesOn()) {
        const int interval = sleepInterval_;
        if (interval > 0) {
            sleep(interval);
        }
        const int result = work();
        if (yields_) {
            KP_Tools::sleep(0);
        }
        if (result != 0) {
            KP_Log::debug("Error in: KP_Consumer::run()\n");
        }
        ++iterationCount_;  // Wraps.
    }
    leaveLoop();
    return 0;
}

// Whether there is another iteration. When there is none the handle is cleared under the lock under
// which start() looks at it, so that a start either keeps this loop going or finds it gone.
bool KP_Thread::goesOn() {
    // The count may have wrapped, so it says nothing without a limit.
    const auto wanted = [this] {
        return iterationLimit_ == 0 ? continue_ != 0 : iterationCount_ < iterationLimit_;
    };
    if (wanted()) {
        return true;
    }
    const std::lock_guard<KP_Mutex> guard(*this);
    if (wanted()) {
        return true;
    }
    handle_ = false;
    return false;
}

// Waits for the loop of the last start() for as long as it takes.
void KP_Thread::waitForLoop() {
    Loop* const loop = currentLoop();
    if (loop != nullptr) {
        loop->waitForEnd();
    }
    Loop::drop(loop);
}

// Runs one iteration's work: the one stretch of the loop that may be broken off.
int KP_Thread::work() {
    const kp::detail::Abandonable window(true);
    try {
        return doTask();
    } catch (...) {
        return -1;
    }
}

// Wakes all joiners and gives up the loop's reference. The handle is clear before, so that a joiner
// either sees that or is woken.
void KP_Thread::leaveLoop() {
    signalJoiners();
    release();
}

void KP_Thread::signalJoiners() {
    int joiners = event_.numWaiting();
    do {
        joinSignal();
    } while (--joiners > 0);
}

bool KP_Thread::isLoopOf(const Loop* loop) {
    return handle_ && loop_ == loop;
}

void KP_Thread::setPair(void (*function)(void*), void* arg) {
    const Guard guard(loopLock_);
    kp::platform::happensBefore(&arg_);
    ++pairing_;
    arg_ = arg;
    function_ = function;
    ++pairing_;
}

// Both as they were set together. The argument first: whoever takes the work away clears the
// function before the argument.
void KP_Thread::getPair(void (**function)(void*), void** arg) const {
    std::uint32_t pairing = 0;
    do {
        pairing = pairing_;
        *arg = arg_;
        *function = function_;
    } while (pairing % 2 != 0 || pairing != pairing_);
    kp::platform::happensAfter(&arg_);
}

int KP_Thread::doTask() {
    void (*function)(void*) = nullptr;
    void* arg = nullptr;
    getPair(&function, &arg);
    if (function != nullptr) {
        function(arg);
    }
    return 0;
}

int KP_Thread::joinSignal() {
    return event_.signal();
}

int KP_Thread::setFunction(void (*function)(void*)) {
    kp::platform::happensBefore(&arg_);
    function_ = function;
    return 0;
}

int KP_Thread::setArg(void* arg) {
    kp::platform::happensBefore(&arg_);
    arg_ = arg;
    return 0;
}

int KP_Thread::setArg2(void* arg2) {
    kp::platform::happensBefore(&arg2_);
    arg2_ = arg2;
    return 0;
}

void* KP_Thread::getArg2() {
    void* const arg2 = arg2_;
    kp::platform::happensAfter(&arg2_);
    return arg2;
}

int KP_Thread::setSleepInterval(int seconds) {
    sleepInterval_ = seconds;
    return 0;
}

int KP_Thread::setHardStop(int on) {
    hardStop_ = on;
    return 0;
}

int KP_Thread::setContinue(int on) {
    continue_ = on;
    return 0;
}

int KP_Thread::stop() {
    const kp::detail::Abandonable shield(false);
    if (!handle_) {
        return 0;
    }
    continue_ = 0;
    joinSignal();
    if (handle_ && hardStop_ != 0) {
        endByForce();
    }
    return 0;
}

void KP_Thread::endByForce() {
    Loop* loop = nullptr;
    bool taken = false;
    {
        const Guard guard(loopLock_);
        loop = currentLoop();
        taken = loop != nullptr && handle_.exchange(false);
    }
    if (taken && loop->isCurrentThread()) {
        Loop::drop(loop);
        kp::platform::abandonWork(kp::platform::currentThread());  // As soon as it is allowed.
        return;
    }
    if (taken) {
        loop->abandon();
        loop->waitALittleForEnd(true);
    }
    Loop::drop(loop);
}

// What waits here may itself be work that is to be ended by force: it then goes where it may be.
int KP_Thread::join(KP_Mutex*, int) {
    const kp::detail::Abandonable shield(false);
    if (isOwnLoop()) {
        return -1;
    }
    Loop* const loop = currentLoop();
    int result = 0;
    std::unique_lock<KP_Mutex> guard(*this);
    while (handle_ && !kp::platform::isAbandonWanted()) {
        guard.unlock();
        if (sleeping_ != 0) {
            joinSignal();
        }
        const std::uint32_t last = event_.announce();
        if (handle_) {
            result = event_.waitAnnounced(last, kJoinSlice);
        } else {
            event_.withdraw();
            result = 0;
        }
        KP_Tools::sleep(0);
        guard.lock();
        if (result == -1 && handle_ && hardStop_ != 0) {
            guard.unlock();  // The loop may be about to end by itself, for which it needs the lock.
            endByForce();
            guard.lock();
        }
    }
    guard.unlock();
    // The loop has one step left, giving up its reference; whoever has joined may destroy the
    // object.
    if (loop != nullptr && !handle_) {
        loop->waitALittleForEnd();
    }
    Loop::drop(loop);
    return result;
}

// Without the lock, which a loop that polls this could leave locked when it is ended by force.
int KP_Thread::isRunning() {
    return continue_;
}

int KP_Thread::sleep(int seconds) {
    const kp::detail::Abandonable shield(false);
    sleeping_ = 1;
    const std::uint32_t last = event_.announce();
    // A stop that came before this thread was counted has signalled in vain.
    if (continue_ != 0) {
        event_.waitAnnounced(last, std::max(0, std::min(seconds, kLongestSleep)) * 1000);
    } else {
        event_.withdraw();
    }
    sleeping_ = 0;
    return 0;
}

char* KP_Thread::getClassName() {
    return kp::className("KP_Thread");
}

int KP_Thread::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Thread, KP_Runnable, KP_Object, KP_ReferenceCounter>(this, id, out);
}
