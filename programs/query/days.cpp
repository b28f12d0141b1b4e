#include "days.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <thread>

#include "common/exit_report.h"
#include "common/printable.h"
#include "kp/kp.h"
#include "records/day_files.h"
#include "records/schema.h"

namespace kp::query {

namespace {

// The days that one readDays() works off, shared by its tasks.
struct Work {
    const std::string& directory;
    const DayFunction& read;
    std::atomic<std::size_t> left;
    KP_Event done;
    std::mutex mutex;
    std::exception_ptr fault;  // the first one
    std::atomic<bool> isComplete;
};

struct Task {
    Work* work;
    records::Day day;

    void run() noexcept {
        try {
            if (!readDay(work->directory, day, work->read))
                work->isComplete = false;
        } catch (...) {
            const std::lock_guard<std::mutex> lock(work->mutex);
            if (!work->fault)
                work->fault = std::current_exception();
        }
        --work->left;
        work->done.signal();
    }
};

bool isUnreadable(const std::string& why) {
    std::fprintf(stderr, "kp-query: %s; it is left out of the answer\n",
                 programs::printable(why).c_str());
    return false;
}

}  // namespace

std::vector<records::Day> daysFor(const std::string& directory, const Filter& filter) {
    std::vector<records::Day> days = records::daysIn(directory);
    days.erase(std::remove_if(days.begin(), days.end(),
                              [&](const records::Day& day) { return !filter.touches(day); }),
               days.end());
    return days;
}

bool readDay(const std::string& directory, const records::Day& day, const DayFunction& read) {
    const std::string path = records::dayPath(directory, day);
    std::error_code none;
    if (std::filesystem::exists(path, none) && !std::filesystem::is_regular_file(path, none))
        return isUnreadable(path + " is not a file");
    try {
        // In a directory that it cannot write, SQLite reads a file only if it is told that nobody
        // changes it.
        const bool isFrozen =
            access(directory.c_str(), W_OK) != 0 && !records::isOpenOrLeft(directory, day);
        using Access = records::Database::Access;
        records::Database database(path, isFrozen ? Access::kReadFrozen : Access::kRead);
        database.execute("BEGIN");
        if (records::hasSchema(database))
            read(database);
    } catch (const records::DatabaseError& error) {
        return !std::filesystem::exists(path, none) || isUnreadable(error.what());
    }
    return true;
}

bool readDays(const std::string& directory, const Filter& filter, const DayFunction& read) {
    std::vector<Task> tasks;
    Work work{directory, read, {}, {}, {}, {}, {true}};
    for (const records::Day& day : daysFor(directory, filter))
        tasks.push_back({&work, day});
    work.left = tasks.size();
    const std::size_t processors = std::max(std::thread::hardware_concurrency(), 1U);
    KP_ThreadPool pool(static_cast<int>(std::min(processors, tasks.size())));
    for (Task& task : tasks) {
        pool.addTask([](void* argument) { static_cast<Task*>(argument)->run(); }, &task, 0);
    }
    {
        const programs::ExitReport report(
            "kp-query: cannot start the threads that read the days; the system allows no more");
        pool.start();
    }
    work.done.waitUntil([&] { return work.left == 0; });
    pool.stop();
    pool.join(nullptr, 0);
    if (work.fault)
        std::rethrow_exception(work.fault);
    return work.isComplete;
}

}  // namespace kp::query
