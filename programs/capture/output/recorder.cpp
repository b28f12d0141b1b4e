#include "output/recorder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "records/day_files.h"
#include "records/schema.h"

namespace kp::capture {

namespace {

using records::Day;

constexpr std::chrono::milliseconds kCommitPeriod{400};
constexpr int kTurn = 100;  // milliseconds
// The most bytes that wait to be written. A replay waits while its queue is full, so it needs no
// more than is written in a moment. A device cannot wait: its queue has to bridge the time until a
// slow disk has recovered.
constexpr std::size_t kMostQueuedReplay = std::size_t{4} * 1024 * 1024;
constexpr std::size_t kMostQueuedDevice = std::size_t{64} * 1024 * 1024;
// A queue of this size wakes the recorder's thread before the end of its turn.
constexpr std::size_t kWakeSize = std::size_t{512} * 1024;
constexpr std::size_t kMostOpenDays = 4;
constexpr std::uint32_t kForEver = 1000000;  // days

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
    if (queued_ >= (settings_.mayWait ? kMostQueuedReplay : kMostQueuedDevice)) {
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
    const bool hadEnough = queued_ >= kWakeSize;
    queued_ += size;
    queue_.push_back({std::move(transaction), judgement});
    const bool hasEnough = queued_ >= kWakeSize;
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
            return queued_ >= kWakeSize || isToSettle_ || dayBegan_;
        },
        kTurn);
    batch_.clear();
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
        beginDay();
    constexpr std::size_t kRound = 1024;
    for (std::size_t i = 0; i < batch_.size(); ++i) {
        put(batch_[i]);
        if (i % kRound == 0 && isCommitDue())
            commit();
    }
    if (isToSettle || isCommitDue())
        commit();
    if (isToClose)
        closeDays();
    if (tidyAgain_ && Clock::now() >= *tidyAgain_)
        tidy();
    if (isToSettle) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            isToSettle_ = false;
            isToClose_ = false;
        }
        settled_.signal();
    }
    return 0;
}

// What cannot be written is told once, however often it is tried again.
void Recorder::fail(const Day& day, const std::string& why) {
    days_.remove_if([&](const DayWriter& writer) {
        if (writer.day() != day)
            return false;
        lost_ += writer.uncommitted();
        return true;
    });
    const bool isNew = std::none_of(faults_.begin(), faults_.end(),
                                    [&](const auto& fault) { return fault.second.why == why; });
    faults_[day] = {why, Clock::now() + settings_.retryPeriod};
    if (!isNew)
        return;
    setFault(why);
    settings_.tell("cannot record: " + why + "; the engine continues, and recording is retried");
}

// Also ends the faults of other days whose retry is due: there may be nothing left to record for
// them, so that no attempt would ever end them.
void Recorder::recovered(const Day& day) {
    if (faults_.empty())
        return;
    const Clock::time_point now = Clock::now();
    for (auto fault = faults_.begin(); fault != faults_.end();) {
        const bool isOver = fault->first == day || fault->second.tryAgain <= now;
        fault = isOver ? faults_.erase(fault) : std::next(fault);
    }
    if (!faults_.empty())
        return;
    setFault("");
    settings_.tell("recording again");
}

void Recorder::setFault(const std::string& why) {
    const std::lock_guard<std::mutex> lock(mutex_);
    fault_ = why;
}

void Recorder::takeDirectory() {
    if (lockFile_)
        return;
    if (faccessat(AT_FDCWD, settings_.directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
        refuse(settings_.directory);
    const std::string path = settings_.directory + "/kp-capture.lock";
    std::unique_ptr<std::FILE, CloseFile> file(KP_Tools::openFile(path.c_str(), "a+"));
    if (!file)
        refuse(path);
    lock_.setFD(file.get());
    lock_.lock();
    if (!lock_.isHeld()) {
        throw DirectoryTaken("another engine records into " + settings_.directory +
                             "; --no-record watches without recording");
    }
    lockFile_ = std::move(file);
}

void Recorder::open() {
    try {
        takeDirectory();
    } catch (const records::DatabaseError& error) {
        fail(records::today(), error.what());
    }
    dayBegan_ = true;
}

void Recorder::beginDay() {
    const Day today = records::today();
    try {
        takeDirectory();
        deleteOldDays();  // first, as a full disk has room then
        commit();
        closeDays();
        faults_.clear();
        setFault("");
        if (!settings_.mayWait)
            writerOf(today);
    } catch (const std::exception& error) {
        fail(today, error.what());
    }
}

void Recorder::closeDays() {
    days_.clear();
    tidy();
}

void Recorder::tidy() {
    tidyAgain_.reset();
    if (!lockFile_)
        return;  // they are somebody else's
    try {
        tidyDays();
    } catch (const std::exception& error) {
        settings_.tell(std::string("cannot close the days: ") + error.what());
    }
}

bool Recorder::isTooOld(const Day& day) const {
    const std::uint32_t days = std::min(settings_.daysToKeep(), kForEver);
    return day < records::today().plus(-static_cast<int>(days));
}

bool Recorder::isOpen(const Day& day) const {
    return std::any_of(days_.begin(), days_.end(),
                       [&](const DayWriter& writer) { return writer.day() == day; });
}

// A clock that is wrong by years would make all days too old at once. So what lies before a long
// time without a day, counted back from today, stays until the user says otherwise.
std::vector<Day> Recorder::daysToDelete() {
    constexpr int kLeastPause = 31;
    const int pause =
        static_cast<int>(std::clamp<std::uint32_t>(settings_.daysToKeep(), kLeastPause, kForEver));
    std::vector<Day> days;
    for (const Day& day : records::daysWithRemains(settings_.directory)) {
        if (records::isOurs(settings_.directory, day)) {
            days.push_back(day);
        } else if (isTooOld(day) && toldOld_.insert(day).second) {
            settings_.tell(records::dayPath(settings_.directory, day) +
                           " is not a day file of kp-capture and is left alone");
        }
    }
    const Day today = records::today();
    Day later = today;
    auto kept = days.end();  // those before it stay
    while (kept != days.begin() && !(*std::prev(kept) < later.plus(-pause))) {
        --kept;
        later = std::min(*kept, today);
    }
    if (settings_.deletesBeforePauses)
        kept = days.begin();
    if (kept != days.begin() && toldOld_.insert(*std::prev(kept)).second) {
        settings_.tell("the records up to " + std::prev(kept)->text() +
                       " are not deleted, although they are too old: there are none of the " +
                       std::to_string(pause) +
                       " days after them, so that the clock may be wrong; delete the files, or "
                       "start once with --delete-old");
    }
    days.erase(days.begin(), kept);
    days.erase(std::remove_if(days.begin(), days.end(),
                              [&](const Day& day) { return !isTooOld(day) || isOpen(day); }),
               days.end());
    return days;
}

void Recorder::deleteOldDays() {
    for (const Day& day : daysToDelete()) {
        const std::string fault = records::deleteDay(settings_.directory, day);
        settings_.tell(fault.empty() ? "deleted the records of " + day.text() + ", older than " +
                                           std::to_string(settings_.daysToKeep()) + " days"
                                     : "cannot delete " + fault);
    }
}

// SQLite keeps the latest changes in a log beside a file. The log stays when an engine is killed,
// and when somebody reads the file while it is closed: opening and closing the file again puts it
// in. The file of a day that is over is also changed so that it needs no log. Then it can be copied
// alone, and be read in a directory that cannot be written. Yesterday's file may still get late
// rows, so it keeps its log.
void Recorder::tidyDays() {
    using records::Database;
    const Day yesterday = records::today().plus(-1);
    for (const Day& day : records::daysIn(settings_.directory)) {
        if (isOpen(day) || !records::isOurs(settings_.directory, day))
            continue;
        try {
            const bool isToShrink = day < yesterday && records::needsLog(settings_.directory, day);
            if (!isToShrink && !records::isOpenOrLeft(settings_.directory, day))
                continue;
            Database database(records::dayPath(settings_.directory, day), Database::Access::kWrite,
                              settings_.lockPatience);
            if (records::hasSchema(database) && isToShrink)
                database.execute("PRAGMA journal_mode = DELETE");
        } catch (const records::DatabaseError& error) {
            if (error.isBusy()) {
                tidyAgain_ =
                    Clock::now() + settings_.tidyPeriod;  // whoever reads it will not read for ever
            } else {
                settings_.tell("cannot close a day: " + std::string(error.what()));
            }
        }
    }
}

DayWriter& Recorder::writerOf(const Day& day) {
    const auto open = std::find_if(days_.begin(), days_.end(),
                                   [&](const DayWriter& each) { return each.day() == day; });
    if (open != days_.end()) {
        days_.splice(days_.begin(), days_, open);
        return days_.front();
    }
    if (days_.size() >= kMostOpenDays && commit(days_.back()))
        days_.pop_back();
    if (isTooOld(day) && toldOld_.insert(day).second) {
        settings_.tell(
            "warning: " + day.text() + " is older than " + std::to_string(settings_.daysToKeep()) +
            " days: its records will be deleted when the next day begins or an engine starts");
    }
    return days_.emplace_front(settings_.directory, day, !settings_.mayWait,
                               settings_.lockPatience);
}

void Recorder::put(const Entry& entry) {
    const std::optional<Day> day = finder_.dayOf(entry.transaction.time.seconds);
    if (!day) {
        ++lost_;  // no calendar has this time
        return;
    }
    const auto fault = faults_.find(*day);
    if (fault != faults_.end() && Clock::now() < fault->second.tryAgain) {
        ++lost_;
        return;
    }
    for (bool isToldBusy = false;;) {
        try {
            takeDirectory();
            writerOf(*day).add(entry.transaction, entry.judgement);
            if (!begun_)
                begun_ = Clock::now();
            return;
        } catch (const records::DatabaseError& error) {
            if (error.isBusy() && settings_.mayWait && !settings_.isStopped()) {
                if (!isToldBusy)
                    settings_.tell("waiting for " + std::string(error.what()));
                isToldBusy = true;
                continue;
            }
            ++lost_;
            fail(*day, error.what());
            return;
        } catch (const std::exception& error) {
            ++lost_;
            fail(*day, error.what());
            return;
        }
    }
}

bool Recorder::isCommitDue() const {
    return begun_ && Clock::now() - *begun_ >= kCommitPeriod;
}

// False when the day could not be written; its writer has gone then.
bool Recorder::commit(DayWriter& writer) {
    const std::size_t rows = writer.uncommitted();
    if (rows == 0)
        return true;
    const Day day = writer.day();
    try {
        writer.commit();
    } catch (const std::exception& error) {
        fail(day, error.what());
        return false;
    }
    recorded_ += rows;
    recovered(day);
    return true;
}

void Recorder::commit() {
    for (auto next = days_.begin(); next != days_.end();) {
        DayWriter& writer = *next++;
        commit(writer);
    }
    begun_.reset();
}

}  // namespace kp::capture
