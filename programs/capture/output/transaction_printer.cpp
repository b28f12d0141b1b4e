#include "output/transaction_printer.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <system_error>

#include "common/printable.h"
#include "kp/tools/tools.h"

namespace kp::capture {

namespace {

void appendNumber(std::string& line, std::uint64_t number) {
    char digits[20];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    line.append(digits, end);
}

void appendTime(std::string& line, Timestamp time) {
    appendNumber(line, static_cast<std::uint64_t>(time.seconds));
    line += '.';
    for (std::uint32_t unit = 100000; unit != 0; unit /= 10) {
        line += static_cast<char>('0' + time.microseconds / unit % 10);
    }
}

void appendEnd(std::string& line, Endpoint end) {
    char address[16];
    KP_Tools::IPAddressString(end.address, address);
    line += address;
    line += '\t';
    appendNumber(line, end.port);
}

void appendEscaped(std::string& line, std::string_view text) {
    programs::appendPrintable(line, text, programs::Backslash::kEscape);
}

void appendText(std::string& line, std::string_view text) {
    if (text.empty()) {
        line += '-';
    } else {
        appendEscaped(line, text);
    }
}

}  // namespace

void appendLine(std::string& lines, const Transaction& transaction, const Judgement& judgement) {
    appendTime(lines, transaction.time);
    lines += '\t';
    appendEnd(lines, transaction.client);
    lines += '\t';
    appendEnd(lines, transaction.server);
    lines += '\t';
    appendEscaped(lines, transaction.method);
    lines += '\t';
    appendText(lines, transaction.host);
    lines += '\t';
    appendEscaped(lines, transaction.target);
    lines += '\t';
    if (transaction.status != 0) {
        appendNumber(lines, static_cast<std::uint64_t>(transaction.status));
    } else {
        lines += '-';
    }
    lines += '\t';
    appendText(lines, transaction.contentType);
    lines += '\t';
    appendNumber(lines, transaction.bodyBytes);
    for (const bool value :
         {judgement.inRanges, judgement.content, judgement.validPage, judgement.entryPoint}) {
        lines += value ? "\t1" : "\t0";
    }
    lines += '\n';
}

TransactionPrinter::TransactionPrinter(int descriptor)
    : descriptor_(descriptor), isTerminal_(isatty(descriptor) != 0) {}

void TransactionPrinter::print(const Transaction& transaction, const Judgement& judgement) {
    if (isFailed())
        return;
    appendLine(buffer_, transaction, judgement);
    if (isTerminal_ || buffer_.size() >= kBufferSize)
        flush();
}

void TransactionPrinter::flush() {
    std::size_t written = 0;
    while (written < buffer_.size() && !isFailed()) {
        const ssize_t result =
            write(descriptor_, buffer_.data() + written, buffer_.size() - written);
        if (result >= 0) {
            written += static_cast<std::size_t>(result);
        } else if (errno != EINTR) {
            error_ = errno;
        }
    }
    buffer_.clear();
}

std::string TransactionPrinter::failure() const {
    return std::generic_category().message(error_);
}

}  // namespace kp::capture
