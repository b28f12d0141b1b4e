// kp-query: rows as a table for people, or as lines and JSON for programs.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace kp::query {

enum class Format { kTable, kTsv, kJson };

/// A column of an answer.
struct Column {
    enum class Kind { kText, kNumber, kFlag };

    std::string name;
    Kind kind = Kind::kText;
};

/// The texts of a row; an empty one is nothing: "-", in JSON null.
using Cells = std::vector<std::string>;

/// Writes rows to a stream.
///
/// A table is as wide as its first rows need; later ones that are wider stand out. Bytes that could
/// do something to a terminal are written as \xHH.
class Table {
public:
    /// @p output must outlive the table.
    Table(std::FILE* output, Format format, std::vector<Column> columns);

    /// Adds a row, of as many cells as there are columns.
    void add(Cells cells);
    /// Writes what is left, and the end; throws std::system_error when something could not be
    /// written.
    void finish();

private:
    static constexpr std::size_t kMeasured = 1000;  // rows that tell the widths
    static constexpr std::size_t kMeasuredBytes = std::size_t{4} * 1024 * 1024;  // in these rows
    static constexpr std::size_t kWidest = 1000;  // blanks that one long text costs each other row

    void start();
    void put(const Cells& cells);
    void putPlain(const Cells& cells);
    void putJson(const Cells& cells);
    void flush();

    std::FILE* output_;
    Format format_;
    std::vector<Column> columns_;
    std::vector<std::size_t> widths_;
    std::vector<Cells> kept_;
    std::size_t keptBytes_ = 0;
    bool hasStarted_ = false;
    std::size_t rows_ = 0;
    std::string buffer_;
};

}  // namespace kp::query
