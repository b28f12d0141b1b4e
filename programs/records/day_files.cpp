#include "day_files.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

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

bool isOpenOrLeft(const std::string& directory, const Day& day) {
    std::error_code none;
    return fs::exists(dayPath(directory, day) + "-wal", none);
}

std::vector<Day> deleteDaysBefore(const std::string& directory, const Day& first) {
    std::vector<Day> deleted;
    for (const Day& day : daysWith(directory, {"", "-wal", "-shm"})) {
        if (!(day < first))
            break;
        // The file goes first: its log without it is nothing, but it is less without its log.
        for (const char* ending : {"", "-wal", "-shm"})
            fs::remove(dayPath(directory, day) + ending);
        deleted.push_back(day);
    }
    return deleted;
}

}  // namespace kp::records
