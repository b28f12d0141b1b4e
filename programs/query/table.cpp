#include "table.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "common/printable.h"

namespace kp::query {

namespace {

constexpr char kHex[] = "0123456789ABCDEF";
constexpr std::size_t kBufferSize = 65536;
constexpr const char* kGap = "  ";

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        if (programs::isPrintable(c)) {
            result += c;
        } else {
            result += {'\\', 'u', '0', '0', kHex[static_cast<unsigned char>(c) >> 4], kHex[c & 15]};
        }
    }
    return result + '"';
}

}  // namespace

Table::Table(std::FILE* output, Format format, std::vector<Column> columns)
    : output_(output), format_(format), columns_(std::move(columns)) {
    for (const Column& column : columns_)
        widths_.push_back(column.name.size());
}

void Table::add(Cells cells) {
    ++rows_;
    if (format_ == Format::kTable) {
        for (std::string& cell : cells)
            cell = cell.empty() ? "-" : programs::printable(cell);
        if (!hasStarted_) {
            for (std::size_t i = 0; i < cells.size(); ++i)
                widths_[i] = std::max(widths_[i], cells[i].size());
            kept_.push_back(std::move(cells));
            if (kept_.size() < kMeasured)
                return;
            start();
            return;
        }
    } else if (!hasStarted_) {
        start();
    }
    put(cells);
}

// The line of names, or the beginning of the array, and the rows that were kept to measure them.
void Table::start() {
    hasStarted_ = true;
    if (format_ == Format::kJson) {
        buffer_ += '[';
        return;
    }
    Cells names;
    for (const Column& column : columns_)
        names.push_back(column.name);
    putPlain(names);
    for (const Cells& cells : kept_)
        putPlain(cells);
    kept_.clear();
}

void Table::put(const Cells& cells) {
    if (format_ == Format::kJson) {
        putJson(cells);
    } else {
        putPlain(cells);
    }
    if (buffer_.size() >= kBufferSize)
        flush();
}

void Table::putPlain(const Cells& cells) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const bool isLast = i + 1 == cells.size();
        if (format_ == Format::kTsv) {
            buffer_ +=
                (cells[i].empty() ? "-" : programs::printable(cells[i])) + (isLast ? "" : "\t");
            continue;
        }
        const std::size_t missing = widths_[i] - std::min(widths_[i], cells[i].size());
        const bool isRight = columns_[i].kind == Column::Kind::kNumber;
        if (isRight)
            buffer_.append(missing, ' ');
        buffer_ += cells[i];
        if (isLast)
            continue;
        if (!isRight)
            buffer_.append(missing, ' ');
        buffer_ += kGap;
    }
    buffer_ += '\n';
}

void Table::putJson(const Cells& cells) {
    buffer_ += rows_ > 1 ? ",\n {" : "\n {";
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (i != 0)
            buffer_ += ", ";
        buffer_ += quoted(columns_[i].name) + ": ";
        if (cells[i].empty()) {
            buffer_ += "null";
        } else if (columns_[i].kind == Column::Kind::kNumber) {
            buffer_ += cells[i];
        } else if (columns_[i].kind == Column::Kind::kFlag) {
            buffer_ += cells[i] == "1" ? "true" : "false";
        } else {
            buffer_ += quoted(cells[i]);
        }
    }
    buffer_ += '}';
}

void Table::flush() {
    std::fwrite(buffer_.data(), 1, buffer_.size(), output_);
    buffer_.clear();
}

void Table::finish() {
    if (!hasStarted_)
        start();
    if (format_ == Format::kJson)
        buffer_ += "\n]\n";
    flush();
    if (std::fflush(output_) != 0 || std::ferror(output_) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
}

}  // namespace kp::query
