#include <array>
#include <cstdio>
#include <vector>

#include "days.h"
#include "groups.h"
#include "questions.h"
#include "records/time_text.h"
#include "resolver.h"

namespace kp::query {

namespace {

constexpr std::size_t kResolved = 1000;  // rows whose addresses are resolved together

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
    kResponse
};

// The crossing keeps the order of the tables, so that the index on the times gives that of the rows.
constexpr const char* kSelect =
    "SELECT time, client, client_port, server, server_port, methods.name, hosts.name, target, "
    "status, types.name, t.body_bytes, in_ranges, content, valid_page, entry_point, "
    "t.response_time "
    "FROM transactions t";

constexpr const char* kJoin =
    " CROSS JOIN methods ON methods.id = t.method "
    "CROSS JOIN hosts ON hosts.id = t.host CROSS JOIN types ON types.id = t.type";

constexpr const char* kOrder = " ORDER BY t.time, t.id";

std::string microseconds(std::int64_t time) {
    char text[16];
    std::snprintf(text, sizeof text, ".%06d", static_cast<int>(time % 1000000));
    return text;
}

class List {
public:
    List(const Options& options, std::FILE* output)
        : options_(options), table_(output, options.format, columns(options.resolve)) {}

    bool isFull() const { return options_.limit && rows_ >= *options_.limit; }

    void add(records::Database& database) {
        // Few rows of a whole day are sorted faster than all of them are looked up by their times.
        const Filter& filter = options_.filter;
        const bool isSorted = !filter.isOfTimesOnly() && filter.covers(database) && !options_.limit;
        records::Statement rows(database, std::string(kSelect) + (isSorted ? " NOT INDEXED" : "") +
                                              kJoin + filter.where() + kOrder);
        options_.filter.bind(rows);
        while (!isFull() && rows.step()) {
            ++rows_;
            add(rows);
        }
    }

    void finish() {
        writeWaiting();
        table_.finish();
    }

private:
    struct Waiting {
        Cells cells;
        std::int64_t client;
        std::int64_t server;
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

    std::string timeOf(std::int64_t time) const {
        const std::int64_t seconds = time / 1000000;
        return (options_.format == Format::kTable ? records::timeText(seconds)
                                                  : std::to_string(seconds)) +
               microseconds(time);
    }

    void add(const records::Statement& row) {
        Cells cells;
        for (int column = kTime; column <= kResponse; ++column)
            cells.emplace_back(row.text(column));
        cells[kTime] = timeOf(row.number(kTime));
        cells[kClient] = addressText(row.number(kClient));
        cells[kServer] = addressText(row.number(kServer));
        if (!row.isNull(kResponse))
            cells[kResponse] = Sums{1, 0, 1, row.number(kResponse)}.meanResponse();
        if (!options_.resolve) {
            table_.add(std::move(cells));
            return;
        }
        waiting_.push_back({std::move(cells), row.number(kClient), row.number(kServer)});
        if (waiting_.size() >= kResolved)
            writeWaiting();
    }

    void writeWaiting() {
        std::vector<std::int64_t> addresses;
        for (const Waiting& row : waiting_)
            addresses.insert(addresses.end(), {row.client, row.server});
        if (!addresses.empty())
            resolver_.resolve(addresses);
        for (Waiting& row : waiting_) {
            row.cells.push_back(resolver_.nameOf(row.client));
            row.cells.push_back(resolver_.nameOf(row.server));
            table_.add(std::move(row.cells));
        }
        waiting_.clear();
    }

    const Options& options_;
    Table table_;
    Resolver resolver_;
    std::vector<Waiting> waiting_;
    std::uint64_t rows_ = 0;
};

}  // namespace

void list(const std::string& directory, const Options& options, std::FILE* output) {
    List answer(options, output);
    for (const records::Day& day : daysFor(directory, options.filter)) {
        if (answer.isFull())
            break;
        readDay(directory, day, [&](records::Database& database) { answer.add(database); });
    }
    answer.finish();
}

}  // namespace kp::query
