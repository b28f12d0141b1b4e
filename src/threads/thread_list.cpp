#include "kp/threads/thread_list.h"

#include <utility>

#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "threads/abandonable.h"

template class KP_Link<KP_Thread>;
template class KP_List<KP_Thread>;

namespace {

constexpr int kLockSlice = 5;  // milliseconds between two attempts to get a lock

}  // namespace

KP_ThreadList::KP_ThreadList() {
    setOwner(1);
}

KP_ThreadList::KP_ThreadList(const KP_ThreadList& other)
    : KP_Object(other), KP_Mutex(other), KP_Runnable(other), KP_List<KP_Thread>(), isCopy_(true) {
    if (!other.isPool_) {
        const std::lock_guard<KP_Mutex> guard(const_cast<KP_ThreadList&>(other));
        takeOver(other, copyLink);
        for (KP_Thread* thread : elements()) {
            if (thread != nullptr) {
                thread->addRef();
            }
        }
    }
    setOwner(1);
}

KP_ThreadList& KP_ThreadList::operator=(const KP_ThreadList& other) {
    // A pool takes nothing from the list that it is: KP_ThreadPool does it all.
    if (this != &other && !isPool_) {
        KP_ThreadList copy(other);
        KP_Link<KP_Thread>* const current = copy.getCurrentLink();
        const int shared = endThreads(&copy);
        clearRunning();
        const std::lock_guard<KP_Mutex> guard(*this);
        isCopy_ = isCopy_ || shared < copy.getCount();
        std::swap(head_, copy.head_);
        std::swap(tail_, copy.tail_);
        std::swap(count_, copy.count_);
        copy.current_ = nullptr;
        current_ = current;
        options_ = copy.options_;
    }
    return *this;
}

KP_ThreadList::~KP_ThreadList() {
    if (!isCopy_) {
        for (KP_Thread* thread : elements()) {
            takeWork(thread);
        }
        KP_Tools::sleep(0);
        KP_ThreadList::stop();
    }
}

void KP_ThreadList::takeWork(KP_Thread* thread) {
    if (thread != nullptr) {
        thread->setFunction(nullptr);
        thread->setArg(nullptr);
        thread->setContinue(0);
    }
}

// Ends the threads as the destructor does, but for those that another list holds too; returns how
// many these are. Moves the cursor of that list.
int KP_ThreadList::endThreads(KP_ThreadList* others) {
    int shared = 0;
    int position = 0;
    for (KP_Thread* thread = referenceTo(position); thread != nullptr;
         thread = referenceTo(++position)) {
        if (others->find(thread) != nullptr) {
            ++shared;
        } else if (!isCopy_) {
            takeWork(thread);
            thread->stop();
        }
        thread->release();
    }
    return shared;
}

void KP_ThreadList::lock() {
    const bool abandonable = kp::platform::setAbandonable(false);
    KP_Mutex::lock();
    if (held_++ == 0) {
        abandonableBefore_ = abandonable;
    }
}

bool KP_ThreadList::try_lock() {
    const bool abandonable = kp::platform::setAbandonable(false);
    const bool isTaken = KP_Mutex::try_lock();
    if (isTaken && held_++ == 0) {
        abandonableBefore_ = abandonable;
    } else if (abandonable) {
        kp::platform::setAbandonable(true);
    }
    return isTaken;
}

void KP_ThreadList::unlock() {
    const bool abandonable = held_ > 0 && --held_ == 0 && abandonableBefore_;
    KP_Mutex::unlock();
    if (abandonable) {
        kp::platform::setAbandonable(true);
    }
}

// The thread at a position, counted from 0, with a reference for the caller; null beyond the last.
KP_Thread* KP_ThreadList::referenceTo(int position) {
    for (KP_Thread* thread : elements()) {
        if (thread != nullptr && position-- == 0) {
            thread->addRef();
            return thread;
        }
    }
    return nullptr;
}

bool KP_ThreadList::isOwnThread() {
    for (KP_Thread* thread : elements()) {
        if (thread != nullptr && thread->isOwnLoop()) {
            return true;
        }
    }
    return false;
}

// Takes the right to start or join. False when the caller is work that is to be ended by force:
// whoever holds it may hold it for long.
bool KP_ThreadList::lockLifecycle() {
    KP_Event never;
    while (!lifecycle_.try_lock()) {
        if (kp::platform::isAbandonWanted()) {
            return false;
        }
        never.wait(nullptr, kLockSlice);
    }
    return true;
}

// Lets go of the lifecycle, and does what one of the list's own threads could not wait for.
void KP_ThreadList::unlockLifecycle() {
    lifecycle_.unlock();
    if (startWanted_.exchange(false)) {
        start();
    }
}

int KP_ThreadList::start() {
    const kp::detail::Abandonable shield(false);
    if (running_ != 0) {
        return 0;  // Also while somebody joins the running list.
    }
    if (isOwnThread()) {
        // The holder of the lifecycle may be waiting for this thread, so this thread must not wait
        // for the lifecycle. The wish is set before the attempt: if the attempt fails, the holder
        // finds the wish when it lets go.
        startWanted_ = true;
        if (!lifecycle_.try_lock()) {
            return 0;
        }
        if (!changing_.try_lock()) {
            lifecycle_.unlock();
            return 0;
        }
        startWanted_ = false;
    } else {
        if (!lockLifecycle()) {
            return 0;
        }
        changing_.lock();
    }
    if (running_ == 0 && barred_ == 0) {
        // Not under the list's lock: a start may wait for a loop that needs the list to end.
        int position = 0;
        for (KP_Thread* thread = referenceTo(position); thread != nullptr;
             thread = referenceTo(++position)) {
            if (thread->start() != 0) {
                KP_Log::quit("KP_ThreadList::start: Error starting a thread");
            }
            thread->release();
        }
        running_ = 1;
    }
    changing_.unlock();
    unlockLifecycle();
    return 0;
}

int KP_ThreadList::stop() {
    return stopThreads([this] { return clearRunning(); });
}

bool KP_ThreadList::clearRunning() {
    startWanted_ = false;  // A start that was put off is called off: the last wish counts.
    return running_.exchange(0) != 0;
}

// Takes the right to start and stop the threads; false when the list was stopped meanwhile. A
// thread of the list must not wait for somebody who stops the list, and with it that thread.
bool KP_ThreadList::lockToStop() {
    if (!isOwnThread()) {
        changing_.lock();
        return true;
    }
    while (!changing_.try_lock()) {
        if (running_ == 0) {
            return false;
        }
        KP_Tools::sleep(0);
    }
    return true;
}

int KP_ThreadList::stopThreads(const std::function<bool()>& begin) {
    const kp::detail::Abandonable shield(false);
    KP_Thread* forcedSelf = nullptr;
    bool forced = false;
    if (!lockToStop()) {
        return 0;
    }
    {
        const std::lock_guard<KP_Mutex> guard(changing_, std::adopt_lock);
        const bool begun = begin();
        // Not under the list's lock: a thread that is ended by force may need the list before it
        // ends.
        int position = 0;
        for (KP_Thread* thread = begun ? referenceTo(position) : nullptr; thread != nullptr;
             thread = referenceTo(++position)) {
            forced = forced || thread->hardStop_ != 0;
            if (thread->isOwnLoop() && thread->hardStop_ != 0) {
                forcedSelf = thread;
            } else if (thread->stop() != 0) {
                KP_Log::quit("KP_ThreadList::stop: Error stopping a thread");
            }
            thread->release();
        }
    }
    // What one of the threads asked for meanwhile, whether the list was stopped or not; the wish of
    // one that was ended by force ends too.
    if (startWanted_.exchange(false) && !forced) {
        start();
    }
    // A thread that ends itself by force does not return from stop(), so it must hold no lock by
    // now. If the list was started again meanwhile, the start has left this thread running, so it
    // goes on.
    if (forcedSelf != nullptr && running_ == 0 && forcedSelf->stop() != 0) {
        KP_Log::quit("KP_ThreadList::stop: Error stopping a thread");
    }
    return 0;
}

int KP_ThreadList::join(KP_Mutex* mutex, int milliseconds) {
    const kp::detail::Abandonable shield(false);
    // Whoever joins already may be waiting for this very thread.
    if (isOwnThread()) {
        if (!lifecycle_.try_lock()) {
            return 0;
        }
    } else if (!lockLifecycle()) {
        return 0;
    }
    // Not under the list's lock: a thread that is waited for may need the list before it ends.
    int position = 0;
    for (KP_Thread* thread = referenceTo(position); thread != nullptr;
         thread = kp::platform::isAbandonWanted() ? nullptr : referenceTo(++position)) {
        if (thread->join(mutex, milliseconds) != 0) {
            KP_Log::flog(nullptr, "KP_ThreadList::wait(): Error waiting on a thread");
        }
        thread->release();
    }
    unlockLifecycle();
    return 0;
}

int KP_ThreadList::restart() {
    stop();
    return start();
}

int KP_ThreadList::isRunning() {
    return running_;
}

char* KP_ThreadList::getClassName() {
    return kp::className("KP_ThreadList");
}

int KP_ThreadList::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_ThreadList, KP_Runnable, KP_Object>(this, id, out);
}

KP_ThreadList* KP_ThreadList::create() {
    return kp::createAndInit<KP_ThreadList>();
}
