#include "kp/threads/thread_pool.h"

#include <cstdio>
#include <mutex>

#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "threads/abandonable.h"

namespace {

using ChainGuard = std::lock_guard<kp::detail::RecursiveLock>;

constexpr int kIdleLimit = 100;  // milliseconds that an auto-stopping pool stays idle
constexpr int kLooks = 4;
constexpr int kPauses = 32;
constexpr int kTaskSlice = 1000;  // milliseconds after which a task may have ended unnoticed

}  // namespace

void KP_ThreadPool::Chain::append(KP_Task* task) {
    task->next_ = nullptr;
    (last == nullptr ? first : last->next_) = task;
    last = task;
}

void KP_ThreadPool::Chain::takeAll(Chain* from) {
    if (from->first != nullptr) {
        (last == nullptr ? first : last->next_) = from->first;
        last = from->last;
        from->first = from->last = nullptr;
    }
}

void KP_ThreadPool::Chain::removeByID(int id, Chain* removed) {
    KP_Task* before = nullptr;
    for (KP_Task** place = &first; *place != nullptr;) {
        KP_Task* const task = *place;
        if (task->getID() == id) {
            *place = task->next_;
            removed->append(task);
        } else {
            before = task;
            place = &task->next_;
        }
    }
    last = before;
}

void KP_ThreadPool::Chain::releaseAll() {
    while (first != nullptr) {
        KP_Task* const task = first;
        first = task->next_;
        task->release();
    }
    last = nullptr;
}

KP_ThreadPool::KP_ThreadPool(int threads) : threads_(threads) {
    isPool_ = true;
    for (int i = 0; i < threads; ++i) {
        KP_ThreadPool::addThread();
    }
}

KP_ThreadPool::KP_ThreadPool(const KP_ThreadPool& other)
    : KP_Object(other),
      KP_Mutex(other),
      KP_Runnable(other),
      KP_ThreadList(),
      threads_(other.threads_),
      autoStop_(other.autoStop_.load()),
      autoStart_(other.autoStart_.load()) {
    isPool_ = true;
    isCopy_ = false;  // As a derived class may have made its list.
    for (int i = const_cast<KP_ThreadPool&>(other).getCount(); i > 0; --i) {
        KP_ThreadPool::addThread();
    }
}

KP_ThreadPool& KP_ThreadPool::operator=(const KP_ThreadPool& other) {
    if (this != &other && reset() == 0) {
        threads_ = other.threads_;
        autoStop_ = other.autoStop_.load();
        autoStart_ = other.autoStart_.load();
        for (int i = const_cast<KP_ThreadPool&>(other).getCount(); i > 0; --i) {
            addThread();
        }
    }
    return *this;
}

KP_ThreadPool::~KP_ThreadPool() {
    ++barred_;
    KP_ThreadPool::reset();
}

KP_Task* KP_ThreadPool::createTask(void (*function)(void*), void* arg, int id) {
    auto* task = new KP_Task(function, arg, id);
    if (task == nullptr) {
        std::perror("malloc");
        KP_Log::quit("out of memory");
    }
    return task;
}

int KP_ThreadPool::addTask(void (*function)(void*), void* arg, int id) {
    const kp::detail::Abandonable shield(false);
    return queue(createTask(function, arg, id));
}

int KP_ThreadPool::addTask(void (*function)(void*), void* arg, int id, void (*end)(void*)) {
    const kp::detail::Abandonable shield(false);
    KP_Task* const task = createTask(function, arg, id);
    if (task != nullptr) {
        task->setRelease(end);
    } else if (end != nullptr) {
        end(arg);
    }
    return queue(task);
}

int KP_ThreadPool::queue(KP_Task* task) {
    if (task == nullptr) {
        return -1;
    }
    bool running = false;
    bool waiting = false;
    KP_Thread* worker = nullptr;
    {
        // Under one lock, as a worker's decision to stop the pool is: either that sees the task, or
        // this sees that the pool has stopped.
        const ChainGuard guard(in_.lock);
        in_.append(task);
        added_.store(added_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        running = running_ != 0;
        waiting = work_.numWaiting() > 0;
        if (running && currentWorker_ != nullptr) {
            worker = currentWorker_;
            worker->addRef();
        }
    }
    if (running && waiting) {
        wakeWorker();
    } else if (!running && autoStart_ != 0) {
        start();
    }
    if (worker != nullptr) {
        worker->joinSignal();
        worker->release();
    }
    return 0;
}

// A worker looks at the queue after it was counted as waiting, and whoever leaves a task there
// looks for waiting workers under the same lock: one of the two sees the other. Only one worker is
// on its way at a time: it ends that state before it looks for tasks, and wakes the next one itself
// when there are more. The workers wait on the pool's event, since a thread's own also wakes those
// who join it, and a signal for the worker could go to one of them.
void KP_ThreadPool::wakeWorker() {
    if (!waking_.exchange(true)) {
        work_.signal();
    }
}

void KP_ThreadPool::wakeAllWorkers() {
    for (int waiting = work_.numWaiting(); waiting > 0; --waiting) {
        work_.signal();
    }
}

int KP_ThreadPool::addThread() {
    auto* worker = new KP_Thread(asyncCallback, nullptr);
    if (worker == nullptr) {
        return -1;
    }
    worker->setArg(worker);
    worker->setArg2(this);
    worker->yields_ = false;
    try {
        append(worker);
    } catch (...) {
        worker->release();
        return -1;
    }
    return 0;
}

void KP_ThreadPool::asyncCallback(void* worker) {
    auto* thread = static_cast<KP_Thread*>(worker);
    if (thread != nullptr) {
        if (auto* pool = static_cast<KP_ThreadPool*>(thread->getArg2())) {
            pool->doTask(thread);
        }
    }
}

// Makes what was added available to the workers; returns whether there is a task. Call it with the
// lock of out_.
bool KP_ThreadPool::fetch() {
    if (out_.first == nullptr) {
        const ChainGuard guard(in_.lock);
        out_.takeAll(&in_);
    }
    return out_.first != nullptr;
}

// Takes the first task for a worker, and wakes another one when there are more; null if there is
// none. What is taken has left the queue, so that nobody else can take or withdraw it.
KP_Task* KP_ThreadPool::take(KP_Thread* worker) {
    KP_Task* task = nullptr;
    bool more = false;
    {
        const ChainGuard guard(out_.lock);
        if (fetch()) {
            task = out_.first;
            out_.first = task->next_;
            if (out_.first == nullptr) {
                out_.last = nullptr;
            }
            worker->task_ = task->getID();
            worker->taskObject_ = task;
            // What was added meanwhile gave no signal if this worker was on its way.
            more = fetch() && work_.numWaiting() > 0;
        }
    }
    if (more) {
        wakeWorker();
    }
    return task;
}

// Gives back to the queue's front what a worker took that is to be ended before it has begun.
void KP_ThreadPool::putBack(KP_Thread* worker, KP_Task* task) {
    {
        const ChainGuard guard(out_.lock);
        task->next_ = out_.first;
        out_.first = task;
        if (out_.last == nullptr) {
            out_.last = task;
        }
        worker->taskObject_ = nullptr;
        worker->task_ = KP_Thread::kNoTask;
    }
    wakeWorker();
}

bool KP_ThreadPool::isMember(const KP_Thread* worker) {
    for (const KP_Thread* each : elements()) {
        if (each == worker) {
            return true;
        }
    }
    return false;
}

// Waits until there may be a task; false when the pool is to stop, or this worker.
bool KP_ThreadPool::waitForTask() {
    const auto isTask = [this] {
        const ChainGuard guard(out_.lock);
        return fetch();
    };
    // What is broken off while it waits is broken off when it has returned.
    while (isRunning() != 0 && !kp::platform::isAbandonWanted()) {
        const std::uint32_t added = added_.load(std::memory_order_relaxed);
        const auto isAdded = [&] { return added != added_.load(std::memory_order_relaxed); };
        if (!looking_.exchange(true)) {
            for (int looks = 0; looks < kLooks && !isAdded(); ++looks) {
                for (int pauses = 0; pauses < kPauses; ++pauses) {
                    kp::platform::pauseBriefly();
                }
            }
            looking_ = false;
            if (isAdded() && isTask()) {
                return isRunning() != 0;
            }
        }
        const std::uint32_t last = work_.announce();
        waking_.exchange(false);
        if (isRunning() == 0 || isTask()) {
            work_.withdraw();
            return isRunning() != 0;
        }
        const bool limited = autoStop_ != 0;
        const int result = work_.waitAnnounced(last, limited ? kIdleLimit : 0);
        waking_.exchange(false);
        if (isTask()) {
            return isRunning() != 0 && !kp::platform::isAbandonWanted();
        }
        if (result != 0 && limited && !isAdded()) {
            stopThreads([this] { return endIdleRun(); });
        }
    }
    return false;
}

bool KP_ThreadPool::endIdleRun() {
    const Elements workers = elements();  // The list's lock comes before those of the chains.
    const ChainGuard taking(out_.lock);
    const ChainGuard adding(in_.lock);
    if (out_.first != nullptr || in_.first != nullptr) {
        return false;
    }
    // A task that runs may add others. What a worker had that was stopped by force does not count.
    for (KP_Thread* worker : workers) {
        if (worker != nullptr && worker->handle_ && worker->task_ != KP_Thread::kNoTask) {
            return false;
        }
    }
    return endRun();
}

bool KP_ThreadPool::endRun() {
    const bool was = clearRunning();
    {
        const ChainGuard guard(in_.lock);
        currentWorker_ = nullptr;
    }
    wakeAllWorkers();
    return was;
}

int KP_ThreadPool::doTask(KP_Thread* worker) {
    if (worker == nullptr) {
        return 0;
    }
    const kp::detail::Abandonable shield(false);
    worker->endTask();  // The last one may have been broken off.
    // Before the worker makes itself known: no worker takes a task that has not done so.
    if (isRunning() == 0) {
        KP_Tools::sleep(0);  // A worker that was started by itself asks again and again.
        return 0;
    }
    // Not one of the pool's own, on which joinSignal() would change nothing.
    if (worker->yields_ && isMember(worker)) {
        const ChainGuard guard(in_.lock);
        if (running_ != 0) {
            currentWorker_ = worker;
        }
    }
    KP_Task* task = take(worker);
    while (task == nullptr) {
        if (!waitForTask()) {
            return 0;
        }
        task = take(worker);
    }
    if (kp::platform::isAbandonWanted()) {
        putBack(worker, task);
        return 0;
    }
    try {
        const kp::detail::Abandonable window(true);
        task->doTask();
    } catch (...) {
        KP_Log::ret("KP_ThreadPool: task %d ended with an exception", task->getID());
    }
    worker->endTask();
    for (int waiting = taskEnded_.numWaiting(); waiting > 0; --waiting) {
        taskEnded_.signal();
    }
    return 0;
}

// Whether a worker runs such a task. One that was stopped by force does not, whatever it ran.
bool KP_ThreadPool::runsTask(int id) {
    for (KP_Thread* worker : elements()) {
        if (worker != nullptr && worker->handle_ && worker->task_ == id) {
            return true;
        }
    }
    return false;
}

int KP_ThreadPool::removeTasksByID(int id) {
    const kp::detail::Abandonable shield(false);
    const bool inside = isOwnThread();
    if (!inside && isRunning() != 0) {
        // A start by somebody else in between would be joined for ever; the one below makes up for
        // it.
        ++barred_;
        stop();
        join(nullptr, 0);
        --barred_;
    }
    for (bool done = false; !done;) {
        Chain removed;
        {
            const ChainGuard taking(out_.lock);
            const ChainGuard adding(in_.lock);
            out_.removeByID(id, &removed);
            in_.removeByID(id, &removed);
        }
        removed.releaseAll();
        const std::uint32_t last = taskEnded_.announce();
        // Somebody else may have started the pool again.
        done = inside || !runsTask(id) || kp::platform::isAbandonWanted();
        if (done) {
            taskEnded_.withdraw();
        } else {
            taskEnded_.waitAnnounced(last, kTaskSlice);
        }
    }
    return start();
}

int KP_ThreadPool::setAutoStop(int on) {
    autoStop_ = on;
    wakeAllWorkers();  // They wait without a limit while the switch is off.
    return 0;
}

int KP_ThreadPool::setAutoStart(int on) {
    autoStart_ = on;
    return 0;
}

int KP_ThreadPool::init() {
    if (getCount() == 0) {
        for (int i = 0; i < threads_; ++i) {
            addThread();
        }
    }
    return 0;
}

int KP_ThreadPool::reset() {
    const kp::detail::Abandonable shield(false);
    if (isOwnThread()) {
        return -1;
    }
    // A worker without its pool would run into nothing, so none may be left, also where join() has
    // given up waiting.
    ++barred_;
    KP_ThreadPool::stop();
    for (int position = 0; KP_Thread* const worker = referenceTo(position); ++position) {
        worker->stop();  // It may have been started by itself.
        worker->release();
    }
    join(nullptr, 0);
    for (int position = 0; KP_Thread* const worker = referenceTo(position); ++position) {
        worker->waitForLoop();
        worker->release();
    }
    Chain left;
    {
        const ChainGuard taking(out_.lock);
        const ChainGuard adding(in_.lock);
        left.takeAll(&out_);
        left.takeAll(&in_);
    }
    left.releaseAll();
    clear();
    --barred_;
    return 0;
}

int KP_ThreadPool::stop() {
    const kp::detail::Abandonable shield(false);
    return stopThreads([this] { return endRun(); });
}

KP_ThreadPool* KP_ThreadPool::create() {
    auto* pool = new KP_ThreadPool(1);
    if (pool != nullptr) {
        pool->init();
    }
    return pool;
}
