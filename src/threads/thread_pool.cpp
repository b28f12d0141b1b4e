#include "kp/threads/thread_pool.h"

#include <cstdio>
#include <new>

#include "kp/core/log.h"
#include "threads/abandonable.h"

template class KP_Link<KP_Task>;
template class KP_List<KP_Task>;

namespace {

constexpr int kIdleLimit = 100;   // milliseconds that an auto-stopping pool stays idle
constexpr int kTaskSlice = 1000;  // milliseconds after which a task may have ended unnoticed

}  // namespace

// The queue. What a worker takes leaves it at once, so that nobody else can take or withdraw it.
class KP_ThreadPool::Queue : public KP_List<KP_Task> {
public:
    Queue() {
        setOwner(1);
        setRecycle(1);
    }

    bool isEmpty() {
        const Guard guard(*this);
        return head_ == nullptr;
    }
    // Takes the first task for a worker; null when there is none.
    KP_Task* take(KP_Thread* worker) {
        const Guard guard(*this);
        KP_Link<KP_Task>* const link = head_;
        if (link == nullptr) {
            return nullptr;
        }
        KP_Task* const task = link->getElement();
        unchain(link);
        keepLink(link);
        if (task != nullptr) {
            worker->task_ = task->getID();
            worker->taskObject_ = task;
        }
        return task;
    }
};

KP_ThreadPool::KP_ThreadPool(int threads) : threads_(threads), queue_(new Queue) {
    if (queue_ == nullptr) {
        throw KP_NoMoreMemoryException();
    }
    for (int i = 0; i < threads; ++i) {
        KP_ThreadPool::addThread();
    }
}

KP_ThreadPool::~KP_ThreadPool() {
    closing_ = true;
    KP_ThreadPool::reset();
    queue_->release();
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
    KP_Task* task = createTask(function, arg, id);
    bool running = false;
    {
        // Under one lock, as a worker's decision to stop the pool is: either that sees the task, or
        // this sees that the pool has stopped.
        const std::lock_guard<KP_Mutex> guard(*queue_);
        try {
            queue_->append(task);
        } catch (...) {
            task->release();
            throw;
        }
        running = isRunning() != 0;
    }
    if (running) {
        wakeWorker();
    } else if (autoStart_ != 0 && !closing_) {
        start();
    }
    return 0;
}

// The one worker that waits looks at the queue after it was counted as waiting: a task that it did
// not see finds it here. It waits on the pool's own event, since a thread's event also wakes those
// who join it, and a signal for the worker could go to one of them.
void KP_ThreadPool::wakeWorker() {
    work_.signal();
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
        static_cast<KP_ThreadPool*>(thread->getArg2())->doTask(thread);
    }
}

// Waits as the current worker until there may be a task; false when the pool is to stop.
bool KP_ThreadPool::waitForTask() {
    while (isRunning() != 0) {
        if (!queue_->isEmpty()) {
            return true;
        }
        const std::uint32_t last = work_.announce();
        if (!queue_->isEmpty() || isRunning() == 0) {
            work_.withdraw();
            continue;
        }
        const bool limited = autoStop_ != 0;
        if (work_.waitAnnounced(last, limited ? kIdleLimit : 0) != 0 && limited) {
            stopIfIdle();
        }
    }
    return false;
}

void KP_ThreadPool::stopIfIdle() {
    const std::lock_guard<KP_Mutex> guard(*queue_);
    if (queue_->isEmpty() && isRunning() != 0) {
        stop();
    }
}

int KP_ThreadPool::doTask(KP_Thread* worker) {
    const kp::detail::Abandonable shield(false);
    worker->endTask();  // The last one may have been broken off.
    KP_Task* task = nullptr;
    {
        const std::lock_guard<KP_Mutex> guard(poolLock_);
        if (waitForTask()) {
            task = queue_->take(worker);
        }
    }
    if (task == nullptr) {
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
        if (worker->handle_ && worker->task_ == id) {
            return true;
        }
    }
    return false;
}

int KP_ThreadPool::removeTasksByID(int id) {
    const kp::detail::Abandonable shield(false);
    const bool inside = isOwnThread();
    for (bool done = false; !done;) {
        std::unique_lock<KP_Mutex> guard(*queue_);
        for (KP_Task* task = queue_->first(); task != nullptr;) {
            if (task->getID() == id) {
                queue_->removeCurrent();
                task = queue_->getCurrent();
            } else {
                task = queue_->next();
            }
        }
        const std::uint32_t last = taskEnded_.announce();
        done = inside || !runsTask(id);
        guard.unlock();
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
    wakeWorker();  // It waits without a limit while the switch is off.
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
    // A worker without its pool would run into nothing, so none may be left.
    const bool closing = closing_.exchange(true);
    KP_ThreadPool::stop();
    join(nullptr, 0);
    queue_->clear();
    clear();
    closing_ = closing;
    return 0;
}

int KP_ThreadPool::start() {
    const kp::detail::Abandonable shield(false);
    return closing_ ? 0 : KP_ThreadList::start();
}

int KP_ThreadPool::stop() {
    const kp::detail::Abandonable shield(false);
    return stopThreads(&work_);
}

KP_ThreadPool* KP_ThreadPool::create() {
    auto* pool = new KP_ThreadPool(1);
    if (pool != nullptr) {
        pool->init();
    }
    return pool;
}
