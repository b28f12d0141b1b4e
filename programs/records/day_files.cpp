#include "day_files.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

#include "schema.h"

namespace kp::records {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kSuffix = ".sqlite";
constexpr std::size_t kDaySize = 10;  // YYYY-MM-DD

// The day in the name of a file with one of the endings; none for other names.
std::optional<Day> dayInName(const std::string& name, std::initializer_list<const char*> endings) {
    const std::string_view rest = std::string_view(name).substr(std::min(kDaySize, name.size()));
    if (rest.substr(0, kSuffix.size()) != kSuffix)
        return {};
    const std::string_view ending = rest.substr(kSuffix.size());
    if (std::find(endings.begin(), endings.end(), ending) == endings.end())
        return {};
    return parseDay(std::string_view(name).substr(0, kDaySize));
}

std::vector<Day> daysWith(const std::string& directory,
                          std::initializer_list<const char*> endings) {
    std::set<Day> days;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        if (const auto day = dayInName(entry.path().filename().string(), endings))
            days.insert(*day);
    }
    return {days.begin(), days.end()};
}

}  // namespace

std::string dayPath(const std::string& directory, const Day& day) {
    return directory + "/" + day.text() + std::string(kSuffix);
}

std::vector<Day> daysIn(const std::string& directory) {
    return daysWith(directory, {""});
}

std::vector<Day> daysWithRemains(const std::string& directory) {
    return daysWith(directory, {"", "-wal", "-shm", "-journal"});
}

bool isOpenOrLeft(const std::string& directory, const Day& day) {
    const std::string path = dayPath(directory, day);
    std::error_code none;
    return fs::exists(path + "-wal", none) || fs::exists(path + "-journal", none);
}

bool needsLog(const std::string& directory, const Day& day) {
    constexpr std::size_t kReadVersion = 19;  // of the format; 2 with a log
    return Database::headerOf(dayPath(directory, day))[kReadVersion] == 2;
}

bool isOurs(const std::string& directory, const Day& day) {
    constexpr std::size_t kApplication = 68;
    std::error_code none;
    const std::string path = dayPath(directory, day);
    const fs::file_status status = fs::symlink_status(path, none);
    if (!fs::exists(status))
        return true;  // what is left beside one that has gone
    if (!fs::is_regular_file(status))
        return false;
    // A file that was just begun has all it has in its log still.
    const std::uintmax_t size = fs::file_size(path, none);
    if (size == 0 || (size <= 4096 && isOpenOrLeft(directory, day)))
        return true;
    try {
        const auto header = Database::headerOf(path);
        std::uint32_t application = 0;
        for (std::size_t i = 0; i < 4; ++i)
            application = application << 8 | static_cast<unsigned char>(header[kApplication + i]);
        return application == static_cast<std::uint32_t>(kApplicationId);
    } catch (const DatabaseError&) {
        return false;
    }
}

std::string deleteDay(const std::string& directory, const Day& day) {
    const std::string path = dayPath(directory, day);
    // The file goes first: what is beside it is nothing without it, and it is less without that.
    for (const char* ending : {"", "-wal", "-shm", "-journal"}) {
        std::error_code fault;
        fs::remove(path + ending, fault);
        if (fault)
            return path + ending + ": " + fault.message();
    }
    return {};
}

}  // namespace kp::records
