// kp-capture: the stage that writes transactions into the database directory.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "day_writer.h"
#include "judgement.h"
#include "kp/kp.h"
#include "records/day.h"
#include "transaction.h"

namespace kp::capture {

/// Another engine records into the directory; what() is for the user.
class DirectoryTaken : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Writes transactions into the files of their days, on a thread of its own.
///
/// What was handed over is in the file half a second later, unless the disk takes longer. A
/// transaction belongs to the local day of its request, whenever it comes; days are opened when they
/// are needed. When a day begins the files are closed and those of days that are too old deleted.
///
/// When the disk does not take what is written (it is full, or cannot be written at all), what was
/// not committed is lost and counted, the user is told, and it is tried again after a while.
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
        /// Gets a sentence for the user, on any thread.
        std::function<void(const std::string&)> tell;
        /// How long what the disk has refused is not tried again.
        std::chrono::milliseconds retryPeriod{5000};
    };

    explicit Recorder(Settings settings);
    ~Recorder() override;

    /// Takes the directory, as one engine can at a time, closes days that a killed engine has left,
    /// and deletes those that are too old; a recorder that does not wait opens today. What the disk
    /// refuses is told and tried again later. Throws DirectoryTaken.
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

    static std::size_t sizeOf(const Transaction& transaction);
    void settle(bool isToClose);
    void takeDirectory();
    void closeLeftDays();
    void beginDay();
    void fail(const std::string& why);
    void recovered();
    void tellLosses();
    void write(const std::vector<Entry>& batch);
    void write(const Entry& entry);
    DayWriter& writerOf(const records::Day& day);
    bool isCommitDue() const;
    void commit(DayWriter& day);
    void commit();
    void close();
    /// Does something that the disk may refuse, unless it is known to do so.
    template <class Action>
    void attempt(Action action);

    const Settings settings_;
    KP_FileLock lock_;
    bool isTaken_ = false;

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
    std::uint64_t pending_ = 0;  // transactions written and not committed
    Clock::time_point begun_;    // when the first of them was
    bool isFailing_ = false;
    Clock::time_point tryAgain_;
    std::uint64_t toldLost_ = 0;
    Clock::time_point toldAt_;
};

}  // namespace kp::capture
