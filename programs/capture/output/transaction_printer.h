// kp-capture: transactions as lines on a file descriptor.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "http/transaction.h"
#include "output/judgement.h"

namespace kp::capture {

/// Appends the line of a transaction, its line feed included: 15 columns separated by tabs.
void appendLine(std::string& lines, const Transaction& transaction, const Judgement& judgement);

/// Collects lines in a buffer and writes them in large pieces; to a terminal line by line.
///
/// Threads: one; isFailed() may be asked by others.
class TransactionPrinter {
public:
    /// The descriptor stays the caller's.
    explicit TransactionPrinter(int descriptor);

    /// Adds the line of a transaction; does nothing once isFailed().
    void print(const Transaction& transaction, const Judgement& judgement);

    bool hasCollected() const { return !buffer_.empty(); }

    /// Writes what was collected.
    void flush();

    /// The lines cannot be written any more, the reader has gone or the disk is full, say.
    bool isFailed() const { return error_ != 0; }
    /// Why, in the system's words.
    std::string failure() const;

private:
    static constexpr std::size_t kBufferSize = 262144;

    int descriptor_;
    bool isTerminal_;
    std::atomic<int> error_{0};  // the system's number
    std::string buffer_;
};

}  // namespace kp::capture
