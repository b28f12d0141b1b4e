// kp-capture: the stage that writes transactions into the database directory.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "http/transaction.h"
#include "kp/kp.h"
#include "output/day_writer.h"
#include "output/judgement.h"
#include "records/day.h"

namespace kp::capture {

/// Another engine records into the directory; what() is for the user.
class DirectoryTaken : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Writes transactions into the files of their days, on a thread of its own.
///
/// What was handed over is in the file half a second later, unless the disk takes longer. A
/// transaction belongs to the local day of its request, whenever it comes; days are opened when
/// they are needed. When a day begins the files are closed and those of days that are too old
/// deleted, but for one that is just being written, and those before a long pause.
///
/// When the disk does not take what is written into a day (it is full, or cannot be written at
/// all), what of that day was not committed is lost and counted, the user is told, and it is tried
/// again after a while. One that may wait waits for somebody else who has the file locked.
///
/// Threads: one hands over; dayBegan(), the counters and fault() are for any.
class Recorder : public KP_Thread {
public:
    struct Settings {
        std::string directory;
        /// Whether record() may wait while there is enough to write; otherwise what does not fit is
        /// lost, and counted.
        bool mayWait = false;
        /// Days before today whose files are kept; asked whenever a day begins.
        std::function<std::uint32_t()> daysToKeep;
        /// Whether days that are too old are also deleted where they lie before a time of more than a
        /// month, and more than the days that are kept, without a day: the clock may be wrong.
        bool deletesBeforePauses = false;
        /// Gets a sentence for the user, on any thread.
        std::function<void(const std::string&)> tell;
        /// Whether nothing may be waited for any longer; asked on the recorder's thread.
        std::function<bool()> isStopped = [] { return false; };
        /// How long what the disk has refused is not tried again.
        std::chrono::milliseconds retryPeriod{5000};
        /// How long somebody else may have a file locked.
        std::chrono::milliseconds lockPatience{5000};
        /// How long a day that somebody was reading when it was to be closed is left alone.
        std::chrono::milliseconds tidyPeriod{60000};
    };

    explicit Recorder(Settings settings);
    ~Recorder() override;

    /// Takes the directory, as one engine can at a time. Its thread then begins a day, and closes
    /// those that a killed engine has left. A directory that cannot be written is told and tried
    /// again later. Throws DirectoryTaken.
    void open();

    /// Hands a transaction over.
    void record(Transaction&& transaction, const Judgement& judgement);
    /// Begins a new day, soon.
    void dayBegan();
    /// Waits until everything that was handed over is in the files, or lost; the thread must run.
    void flush() { settle(false); }
    /// The same; then it closes the files.
    void finish() { settle(true); }

    /// Transactions that are in the files, and ones that are not.
    std::uint64_t recorded() const { return recorded_; }
    std::uint64_t lost() const { return lost_; }
    /// Why nothing can be recorded just now; empty when it can.
    std::string fault() const;

    int doTask() override;

private:
    using Clock = std::chrono::steady_clock;

    struct Entry {
        Transaction transaction;
        Judgement judgement;
    };

    struct Fault {
        std::string why;
        Clock::time_point tryAgain;
    };
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    static std::size_t sizeOf(const Transaction& transaction);
    void settle(bool isToClose);
    void takeDirectory();
    void beginDay();
    std::vector<records::Day> daysToDelete();
    void deleteOldDays();
    void closeDays();
    void tidy();
    void tidyDays();
    bool isOpen(const records::Day& day) const;
    void put(const Entry& entry);
    DayWriter& writerOf(const records::Day& day);
    bool isTooOld(const records::Day& day) const;
    bool isCommitDue() const;
    bool commit(DayWriter& writer);
    void commit();
    void fail(const records::Day& day, const std::string& why);
    void recovered(const records::Day& day);
    void setFault(const std::string& why);

    const Settings settings_;
    std::unique_ptr<std::FILE, CloseFile> lockFile_;
    KP_FileLock lock_;

    mutable std::mutex mutex_;  // guards the next five
    std::vector<Entry> queue_;
    std::size_t queued_ = 0;  // bytes
    std::string fault_;
    bool isToSettle_ = false;
    bool isToClose_ = false;
    std::atomic<bool> dayBegan_{false};
    std::atomic<bool> isFull_{false};
    KP_Event more_;
    KP_Event room_;
    KP_Event settled_;

    std::atomic<std::uint64_t> recorded_{0};
    std::atomic<std::uint64_t> lost_{0};

    // Of the recorder's thread.
    std::vector<Entry> batch_;
    std::list<DayWriter> days_;  // open ones, the last used first
    records::DayFinder finder_;
    std::map<records::Day, Fault> faults_;  // of days that cannot be written just now
    std::set<records::Day> toldOld_;        // days that will not last, or are not ours
    std::optional<Clock::time_point> tidyAgain_;
    // When the first row that is not committed was written.
    std::optional<Clock::time_point> begun_;
};

}  // namespace kp::capture
