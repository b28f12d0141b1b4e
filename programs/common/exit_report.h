// A word on standard error when the library ends the process.
#pragma once

#include <string>

namespace kp::programs {

/// Says what could not be done when the process ends while the object lives.
///
/// The library ends the process where it cannot go on, and tells why in the log; a program without
/// a log would end without a word. Construct it around what may end so. Objects nest.
/// Threads: one, which need not be the one that ends the process.
class ExitReport {
public:
    /// @p text is what standard error gets, with the program's name and without a line end.
    explicit ExitReport(std::string text);
    ~ExitReport();
    ExitReport(const ExitReport&) = delete;
    ExitReport& operator=(const ExitReport&) = delete;

private:
    static void tell();

    const std::string text_;
    const ExitReport* const outer_;
};

}  // namespace kp::programs
