#include "recorder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "records/day_files.h"

namespace kp::capture {

namespace {

using records::Day;

constexpr std::chrono::milliseconds kCommitPeriod{500};
constexpr std::chrono::seconds kTellingPeriod{10};
constexpr int kTurn = 100;  // milliseconds
// What may wait to be written. One that can wait holds no more than is written in a moment; for one
// that cannot it has to last until a slow disk has recovered.
constexpr std::size_t kMostWaiting = std::size_t{4} * 1024 * 1024;
constexpr std::size_t kMostKept = std::size_t{64} * 1024 * 1024;
constexpr std::size_t kEnough = std::size_t{512} * 1024;  // not to wait for more
constexpr std::size_t kMostOpenDays = 4;

[[noreturn]] void refuse(const std::string& what) {
    throw records::DatabaseError(what + ": " + std::generic_category().message(errno));
}

}  // namespace

Recorder::Recorder(Settings settings) : settings_(std::move(settings)) {}

Recorder::~Recorder() {
    stop();
    join(nullptr, 0);
}

std::size_t Recorder::sizeOf(const Transaction& transaction) {
    return sizeof(Entry) + transaction.method.size() + transaction.host.size() +
           transaction.target.size() + transaction.referer.size() + transaction.contentType.size();
}

void Recorder::record(Transaction&& transaction, const Judgement& judgement) {
    const std::size_t size = sizeOf(transaction);
    std::unique_lock<std::mutex> lock(mutex_);
    if (queued_ >= (settings_.mayWait ? kMostWaiting : kMostKept)) {
        if (!settings_.mayWait) {
            ++lost_;
            return;
        }
        isFull_ = true;
        lock.unlock();
        more_.signal();
        room_.waitUntil([this] { return !isFull_; });
        lock.lock();
    }
    const bool hadEnough = queued_ >= kEnough;
    queued_ += size;
    queue_.push_back({std::move(transaction), judgement});
    const bool hasEnough = queued_ >= kEnough;
    lock.unlock();
    if (hasEnough && !hadEnough)
        more_.signal();
}

void Recorder::dayBegan() {
    dayBegan_ = true;
    more_.signal();
}

void Recorder::settle(bool isToClose) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isToSettle_ = true;
        isToClose_ = isToClose;
    }
    more_.signal();
    settled_.waitUntil([this] {
        const std::lock_guard<std::mutex> lock(mutex_);
        return !isToSettle_;
    });
}

std::string Recorder::fault() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return fault_;
}

int Recorder::doTask() {
    more_.waitUntil(
        [this] {
            const std::lock_guard<std::mutex> lock(mutex_);
            return queued_ >= kEnough || isToSettle_ || dayBegan_;
        },
        kTurn);
    bool isToSettle = false;
    bool isToClose = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::swap(queue_, batch_);
        queued_ = 0;
        isFull_ = false;
        isToSettle = isToSettle_;
        isToClose = isToClose_;
    }
    room_.signal();
    if (dayBegan_.exchange(false))
        attempt([this] { beginDay(); });
    write(batch_);
    batch_.clear();
    if (isToSettle || isCommitDue())
        attempt([this] { commit(); });
    if (isToClose)
        attempt([this] { close(); });
    tellLosses();
    if (isToSettle) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            isToSettle_ = false;
        }
        settled_.signal();
    }
    return 0;
}

template <class Action>
void Recorder::attempt(Action action) {
    if (isFailing_ && Clock::now() < tryAgain_)
        return;
    try {
        takeDirectory();
        action();
    } catch (const std::bad_alloc&) {
        fail("out of memory");
    } catch (const std::exception& error) {
        fail(error.what());
    }
}

void Recorder::fail(const std::string& why) {
    lost_ += pending_;
    pending_ = 0;
    days_.clear();  // which takes back what was not committed
    tryAgain_ = Clock::now() + settings_.retryPeriod;
    const bool isKnown = isFailing_ && why == fault();
    isFailing_ = true;
    if (isKnown)
        return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        fault_ = why;
    }
    settings_.tell("cannot record: " + why + "; watching goes on, and it is tried again");
}

void Recorder::recovered() {
    if (!isFailing_)
        return;
    isFailing_ = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        fault_.clear();
    }
    settings_.tell("recording again");
}

// Losses go to the log when they grow, and not for every transaction.
void Recorder::tellLosses() {
    const std::uint64_t lost = lost_;
    if (lost == toldLost_ || Clock::now() - toldAt_ < kTellingPeriod)
        return;
    KP_Log::ret("kp-capture: %llu transactions were not recorded",
                static_cast<unsigned long long>(lost - toldLost_));
    toldLost_ = lost;
    toldAt_ = Clock::now();
}

void Recorder::takeDirectory() {
    if (isTaken_)
        return;
    const std::string path = settings_.directory + "/kp-capture.lock";
    if (access(settings_.directory.c_str(), W_OK | X_OK) != 0)
        refuse(settings_.directory);
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && geteuid() != 0 && status.st_uid != geteuid())
        throw records::DatabaseError(path + " belongs to another user");
    if (lock_.open(path.c_str()) != 0)
        throw records::DatabaseError("cannot open " + path);
    lock_.lock();
    if (!lock_.isHeld())
        throw DirectoryTaken("another engine records into " + settings_.directory);
    isTaken_ = true;
}

void Recorder::open() {
    try {
        takeDirectory();
    } catch (const records::DatabaseError& error) {
        fail(error.what());
        return;
    }
    attempt([this] { beginDay(); });
    attempt([this] { closeLeftDays(); });
}

// What a killed engine left has its log of changes beside it; opening the file puts that in.
void Recorder::closeLeftDays() {
    for (const Day& day : records::daysIn(settings_.directory)) {
        const bool isOurs = std::any_of(days_.begin(), days_.end(),
                                        [&](const DayWriter& open) { return open.day() == day; });
        if (isOurs || !records::isOpenOrLeft(settings_.directory, day))
            continue;
        try {
            DayWriter(settings_.directory, day, false).close();
        } catch (const records::DatabaseError& error) {
            settings_.tell(std::string("cannot close a day that was left open: ") + error.what());
        }
    }
}

void Recorder::beginDay() {
    close();
    const Day today = records::today();
    const auto days = static_cast<int>(
        std::min<std::uint32_t>(settings_.daysToKeep(), 1000000));  // more than all that can be
    for (const Day& day : records::deleteDaysBefore(settings_.directory, today.plus(-days)))
        settings_.tell("deleted the records of " + day.text() + ", older than " +
                       std::to_string(days) + " days");
    if (!settings_.mayWait)
        writerOf(today);
}

DayWriter& Recorder::writerOf(const Day& day) {
    const auto open = std::find_if(days_.begin(), days_.end(),
                                   [&](const DayWriter& each) { return each.day() == day; });
    if (open != days_.end()) {
        days_.splice(days_.begin(), days_, open);
        return days_.front();
    }
    if (days_.size() >= kMostOpenDays) {
        commit(days_.back());
        days_.back().close();
        days_.pop_back();
    }
    return days_.emplace_front(settings_.directory, day, !settings_.mayWait);
}

void Recorder::write(const std::vector<Entry>& batch) {
    constexpr std::size_t kRound = 1024;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        if (isFailing_ && Clock::now() < tryAgain_) {
            lost_ += batch.size() - i;
            return;
        }
        attempt([&] { write(batch[i]); });
        if (i % kRound == 0 && isCommitDue())
            attempt([this] { commit(); });
    }
}

void Recorder::write(const Entry& entry) {
    if (pending_ == 0)
        begun_ = Clock::now();
    ++pending_;
    const std::optional<Day> day = finder_.dayOf(entry.transaction.time.seconds);
    if (!day) {
        --pending_;
        ++lost_;  // no calendar has this time
        return;
    }
    writerOf(*day).add(entry.transaction, entry.judgement);
}

bool Recorder::isCommitDue() const {
    return pending_ != 0 && Clock::now() - begun_ >= kCommitPeriod;
}

void Recorder::commit(DayWriter& day) {
    const std::size_t rows = day.uncommitted();
    day.commit();
    pending_ -= rows;
    recorded_ += rows;
    if (rows != 0)
        recovered();
}

void Recorder::commit() {
    for (DayWriter& day : days_)
        commit(day);
}

void Recorder::close() {
    commit();
    for (DayWriter& day : days_)
        day.close();
    days_.clear();
}

}  // namespace kp::capture
