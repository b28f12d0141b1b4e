#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <map>
#include <mutex>
#include <vector>

#include "days.h"
#include "groups.h"
#include "questions.h"
#include "records/schema.h"
#include "records/time_text.h"

namespace kp::query {

namespace {

constexpr int kMostBar = 40;
constexpr int kLeastBar = 10;
constexpr int kTableWidth = 105;  // of all columns, about; and of those that a narrow terminal gets
constexpr int kNarrowWidth = 60;

// Columns of the terminal; 0 when it is none.
int widthOf(std::FILE* output) {
    winsize size = {};
    if (isatty(fileno(output)) == 0)
        return 0;
    return ioctl(fileno(output), TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

// What a table of periods shows beside the numbers that everybody wants.
struct Shape {
    bool isNarrow = false;
    int bar = 0;  // characters; 0: none

    Shape(const Options& options, std::FILE* output) {
        const int width = widthOf(output);
        if (options.period == Period::kAll || options.format != Format::kTable || width == 0)
            return;
        isNarrow = width < kTableWidth + kLeastBar;
        bar = std::clamp(width - (isNarrow ? kNarrowWidth : kTableWidth), kLeastBar, kMostBar);
    }
};

// What is told of a quarter of an hour, and of every longer time.
struct Counts {
    Sums sums;
    std::array<std::int64_t, 4> byClass{};  // 2xx to 5xx
    std::int64_t content = 0;
    std::int64_t pages = 0;
    std::int64_t entries = 0;

    void add(const Counts& other) {
        sums.add(other.sums);
        for (std::size_t i = 0; i < byClass.size(); ++i)
            byClass[i] = sumOf(byClass[i], other.byClass[i]);
        content = sumOf(content, other.content);
        pages = sumOf(pages, other.pages);
        entries = sumOf(entries, other.entries);
    }
};
using Slots = std::map<std::int64_t, Counts>;  // by their start, seconds since 1970

// From the totals that the day keeps.
void addTotals(DayFile& file, const Filter& filter, Slots& slots) {
    records::Statement rows(
        file.database(),
        "SELECT start, requests, body_bytes, answers, response_time, status_2xx, status_3xx, "
        "status_4xx, status_5xx, content, valid_pages, entry_points FROM slots "
        "WHERE start >= ? AND start < ?");
    rows.bind(1, filter.from.value_or(INT64_MIN));
    rows.bind(2, filter.to.value_or(INT64_MAX));
    while (rows.step()) {
        Counts counts;
        counts.sums = file.sums(rows, 1);
        const auto count = [&](int column) {
            return file.upTo(counts.sums.requests, rows, column);
        };
        for (int i = 0; i < 4; ++i)
            counts.byClass[static_cast<std::size_t>(i)] = count(5 + i);
        counts.content = count(9);
        counts.pages = count(10);
        counts.entries = count(11);
        slots[file.seconds(rows, 0)].add(counts);
    }
}

// From the requests themselves.
void addRequests(DayFile& file, const Filter& filter, Slots& slots) {
    records::Statement rows(file.database(),
                            "SELECT time, body_bytes, response_time, status, content, valid_page, "
                            "entry_point FROM transactions" +
                                filter.where());
    filter.bind(rows);
    constexpr std::int64_t kSlot = records::kSlotSeconds;
    const std::int64_t first = file.firstSlot();
    while (rows.step()) {
        Counts counts;
        counts.sums = file.sumsOfOne(rows, 1, 2);
        const std::int64_t statusClass = rows.isNull(3) ? 0 : file.upTo(999, rows, 3) / 100;
        if (statusClass >= 2 && statusClass <= 5)
            counts.byClass[static_cast<std::size_t>(statusClass - 2)] = 1;
        counts.content = file.upTo(1, rows, 4);
        counts.pages = file.upTo(1, rows, 5);
        counts.entries = file.upTo(1, rows, 6);
        const std::int64_t seconds = file.time(rows, 0) / 1000000;
        const std::int64_t since = seconds - first;
        slots[seconds - (since % kSlot + kSlot) % kSlot].add(counts);
    }
}

// The beginning of the hour or day of a moment.
std::int64_t periodOf(std::int64_t seconds, Period period) {
    if (period == Period::kDay) {
        const auto day = records::dayOf(seconds);
        return day ? day->start() : seconds;
    }
    const auto time = static_cast<std::time_t>(seconds);
    std::tm tm = {};
    if (localtime_r(&time, &tm) == nullptr)
        return seconds;
    return seconds - (tm.tm_min * 60 + tm.tm_sec);
}

std::int64_t periodAfter(std::int64_t start, Period period) {
    if (period == Period::kDay) {
        const auto day = records::dayOf(start);
        return day ? day->plus(1).start() : start + 86400;
    }
    return periodOf(start + 3600, period);
}

std::vector<Column> columnsOf(const Options& options, const Shape& shape) {
    std::vector<Column> columns;
    if (options.period != Period::kAll) {
        columns.push_back(
            {options.period == Period::kDay ? "day" : "hour",
             options.format == Format::kTable ? Column::Kind::kText : Column::Kind::kNumber});
    }
    for (const char* name : {"requests", "bytes", "response_ms"})
        columns.push_back({name, Column::Kind::kNumber});
    if (!shape.isNarrow) {
        for (const char* name :
             {"no_answer", "2xx", "3xx", "4xx", "5xx", "content", "pages", "entries"})
            columns.push_back({name, Column::Kind::kNumber});
    }
    if (shape.bar != 0)
        columns.push_back({"bar", Column::Kind::kText});
    return columns;
}

std::string label(std::int64_t start, const Options& options) {
    if (options.format != Format::kTable)
        return std::to_string(start);
    const std::size_t shown = options.period == Period::kDay ? 10 : 16;  // no seconds
    return records::timeText(start).substr(0, shown);
}

Cells cellsOf(const Counts& counts, const Shape& shape) {
    Cells cells = {std::to_string(counts.sums.requests), std::to_string(counts.sums.bodyBytes),
                   counts.sums.meanResponse()};
    if (shape.isNarrow)
        return cells;
    cells.push_back(std::to_string(counts.sums.requests - counts.sums.answers));
    for (const std::int64_t count : counts.byClass)
        cells.push_back(std::to_string(count));
    for (const std::int64_t count : {counts.content, counts.pages, counts.entries})
        cells.push_back(std::to_string(count));
    return cells;
}

std::string bar(std::int64_t value, std::int64_t most, int width) {
    const double share = static_cast<double>(value) / static_cast<double>(most);
    const auto length = static_cast<std::size_t>(std::lround(share * width));
    return length == 0 && value == 0 ? " " : std::string(std::max<std::size_t>(length, 1), '#');
}

// The period that is told after one: empty ones are told, too, but for long gaps, which a damaged
// time makes as easily as a pause.
std::int64_t nextToTell(const std::map<std::int64_t, Counts>& periods, std::int64_t start,
                        Period period) {
    constexpr std::int64_t kLongGap = std::int64_t{366} * 86400;
    const auto next = periods.upper_bound(start);
    if (next != periods.end() && next->first - start > kLongGap)
        return next->first;
    const std::int64_t after = periodAfter(start, period);
    return next != periods.end() ? std::min(next->first, after) : after;  // none is left out
}

void write(const Slots& slots, const Options& options, std::FILE* output) {
    std::map<std::int64_t, Counts> periods;
    for (const auto& [start, counts] : slots)
        periods[options.period == Period::kAll ? 0 : periodOf(start, options.period)].add(counts);
    const Shape shape(options, output);
    Table table(output, options.format, columnsOf(options, shape));
    if (options.period == Period::kAll)
        table.add(cellsOf(periods[0], shape));
    std::int64_t most = 1;
    for (const auto& [start, counts] : periods)
        most = std::max(most, counts.sums.requests);
    if (options.period != Period::kAll && !periods.empty()) {
        std::uint64_t rows = 0;
        for (std::int64_t start = periods.begin()->first;
             start <= periods.rbegin()->first && (!options.limit || rows < *options.limit);
             start = nextToTell(periods, start, options.period), ++rows) {
            const auto found = periods.find(start);
            const Counts counts = found != periods.end() ? found->second : Counts();
            Cells cells = cellsOf(counts, shape);
            cells.insert(cells.begin(), label(start, options));
            if (shape.bar != 0) {
                const std::int64_t requests = std::max<std::int64_t>(counts.sums.requests, 0);
                cells.push_back(bar(requests, most, shape.bar));
            }
            table.add(std::move(cells));
        }
    }
    table.finish();
}

}  // namespace

bool totals(const std::string& directory, const Options& options, std::FILE* output) {
    std::mutex mutex;
    Slots slots;
    const bool isComplete = readDays(directory, options.filter, [&](DayFile& file) {
        Slots ofDay;
        const Filter filter = options.filter.within(file);
        if (filter.isOfWholeSlots(file)) {
            addTotals(file, filter, ofDay);
        } else {
            addRequests(file, filter, ofDay);
        }
        const std::lock_guard<std::mutex> lock(mutex);
        for (const auto& [start, counts] : ofDay)
            slots[start].add(counts);
    });
    write(slots, options, output);
    return isComplete;
}

}  // namespace kp::query
