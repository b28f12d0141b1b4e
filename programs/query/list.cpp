#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "days.h"
#include "groups.h"
#include "questions.h"
#include "records/time_text.h"
#include "resolver.h"

namespace kp::query {

namespace {

// The columns of a row in the database, in the order of the answer.
enum {
    kTime,
    kClient,
    kClientPort,
    kServer,
    kServerPort,
    kMethod,
    kHost,
    kTarget,
    kStatus,
    kType,
    kBytes,
    kInRanges,
    kContent,
    kPage,
    kEntry,
    kResponse,
    kId
};

// The crossing keeps the order of the tables, so that the index on the times gives that of the
// rows.
const std::string kSelect =
    "SELECT time, client, client_port, server, server_port, methods.name, hosts.name, target, "
    "status, types.name, t.body_bytes, in_ranges, content, valid_page, entry_point, "
    "t.response_time, t.id "
    "FROM transactions t CROSS JOIN methods ON methods.id = t.method "
    "CROSS JOIN hosts ON hosts.id = t.host CROSS JOIN types ON types.id = t.type";

constexpr const char* kBehindInOrder =
    "time >= ? AND (time, t.id) > (?, ?) ORDER BY time, t.id LIMIT ";

std::string microseconds(std::int64_t time) {
    char text[16];
    std::snprintf(text, sizeof text, ".%06d", std::abs(static_cast<int>(time % 1000000)));
    return text;
}

class List {
public:
    List(const Options& options, std::FILE* output)
        : options_(options), table_(output, options.format, columns(options.resolve)) {}

    bool isFull() const { return options_.limit && told_ >= *options_.limit; }

    void add(const std::string& directory, const records::Day& day) {
        Place place;
        bool isRead = true;
        do {
            rows_.clear();
            isMore_ = false;
            isRead = readDay(directory, day, [&](DayFile& file) { place = read(file, place); });
            isComplete_ = isComplete_ && isRead;
            tell();
        } while (isRead && isMore_ && !isFull());
    }

    /// Returns whether all days could be read.
    bool finish() {
        table_.finish();
        return isComplete_;
    }

private:
    // A day is read in pieces, so that whoever looks at an answer for long, in a pager, say, does
    // not keep the file as it is meanwhile: the engine's log of changes would grow.
    static constexpr std::size_t kPiece = 10000;
    static constexpr std::size_t kPieceBytes = std::size_t{8} * 1024 * 1024;  // of texts

    struct Row {
        Cells cells;
        std::int64_t client;
        std::int64_t server;
    };
    struct Place {
        std::int64_t time = INT64_MIN;
        std::int64_t id = INT64_MIN;

        bool operator<(const Place& other) const {
            return time != other.time ? time < other.time : id < other.id;
        }
    };

    static std::vector<Column> columns(bool isResolved) {
        using Kind = Column::Kind;
        std::vector<Column> columns = {
            {"time", Kind::kNumber},        {"client", Kind::kText},
            {"client_port", Kind::kNumber}, {"server", Kind::kText},
            {"server_port", Kind::kNumber}, {"method", Kind::kText},
            {"host", Kind::kText},          {"target", Kind::kText},
            {"status", Kind::kNumber},      {"type", Kind::kText},
            {"bytes", Kind::kNumber},       {"in_ranges", Kind::kFlag},
            {"content", Kind::kFlag},       {"page", Kind::kFlag},
            {"entry", Kind::kFlag},         {"response_ms", Kind::kNumber}};
        if (isResolved) {
            columns.push_back({"client_name", Kind::kText});
            columns.push_back({"server_name", Kind::kText});
        }
        return columns;
    }

    // Reads the rows behind a place; returns that of the last one.
    Place read(DayFile& file, Place place) {
        const Filter filter = options_.filter.within(file);
        const std::string where = filter.where();
        const std::uint64_t count =
            options_.limit ? std::min<std::uint64_t>(kPiece, *options_.limit - told_) : kPiece;
        records::Statement rows(file.database(), kSelect + where +
                                                     (where.empty() ? " WHERE " : " AND ") +
                                                     kBehindInOrder + std::to_string(count));
        const int next = filter.bind(rows);
        rows.bind(next, place.time);
        rows.bind(next + 1, place.time);
        rows.bind(next + 2, place.id);
        std::size_t bytes = 0;
        while (rows.step()) {
            const Place here = {file.time(rows, kTime), rows.number(kId)};
            if (!(place < here))
                file.refuse("its rows are not in their order");
            place = here;
            rows_.push_back({cellsOf(file, rows), rows.number(kClient), rows.number(kServer)});
            for (const std::string& cell : rows_.back().cells)
                bytes += cell.size();
            isMore_ = rows_.size() == kPiece || bytes >= kPieceBytes;
            if (bytes >= kPieceBytes)
                break;
        }
        return place;
    }

    std::string timeOf(std::int64_t time) const {
        const std::int64_t seconds = time / 1000000;
        return (options_.format == Format::kTable ? records::timeText(seconds)
                                                  : std::to_string(seconds)) +
               microseconds(time);
    }

    Cells cellsOf(const DayFile& file, const records::Statement& row) const {
        Cells cells;
        for (int column = kTime; column <= kResponse; ++column) {
            const bool isText =
                column == kMethod || column == kHost || column == kTarget || column == kType;
            const bool mayBeNull = column == kStatus || column == kResponse;
            if (mayBeNull && row.isNull(column)) {
                cells.emplace_back();
            } else if (isText) {
                cells.emplace_back(row.text(column));
            } else {
                cells.push_back(numberOf(file, row, column));
            }
        }
        return cells;
    }

    std::string numberOf(const DayFile& file, const records::Statement& row, int column) const {
        switch (column) {
            case kTime:
                return timeOf(file.time(row, column));
            case kClient:
            case kServer:
                return addressText(file.upTo(UINT32_MAX, row, column));
            case kClientPort:
            case kServerPort:
                return std::to_string(file.upTo(65535, row, column));
            case kStatus:
                return std::to_string(file.upTo(999, row, column));
            case kBytes:
                return std::to_string(file.count(row, column));
            case kResponse:
                return file.sumsOfOne(row, kBytes, kResponse).meanResponse();
            default:  // judgements
                return std::to_string(file.upTo(1, row, column));
        }
    }

    void tell() {
        if (options_.resolve) {
            std::vector<std::int64_t> addresses;
            for (const Row& row : rows_)
                addresses.insert(addresses.end(), {row.client, row.server});
            resolver_.resolve(addresses);
        }
        for (Row& row : rows_) {
            if (isFull())
                return;
            if (options_.resolve) {
                row.cells.push_back(resolver_.nameOf(row.client));
                row.cells.push_back(resolver_.nameOf(row.server));
            }
            table_.add(std::move(row.cells));
            ++told_;
        }
    }

    const Options& options_;
    Table table_;
    Resolver resolver_;
    std::vector<Row> rows_;
    std::uint64_t told_ = 0;
    bool isMore_ = false;  // behind the rows
    bool isComplete_ = true;
};

}  // namespace

bool list(const std::string& directory, const Options& options, std::FILE* output) {
    List answer(options, output);
    for (const records::Day& day : daysFor(directory, options.filter)) {
        if (answer.isFull())
            break;
        answer.add(directory, day);
    }
    return answer.finish();
}

}  // namespace kp::query
