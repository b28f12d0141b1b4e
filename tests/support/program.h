// Running the product's own programs.
#pragma once

#include <string>
#include <vector>

#include "support/child.h"

namespace kp::test {

/// Runs @p path with @p arguments and without a terminal.
/// @p input is the file for its standard input; empty: /dev/null.
Outcome runProgram(const std::string& path, const std::vector<std::string>& arguments,
                   const std::string& input = "");

/// A program that runs beside the test; its end kills it.
class RunningProgram {
public:
    /// Starts @p path without a terminal; its output goes to the file @p output, its error beside
    /// it to output.err.
    RunningProgram(const std::string& path, const std::vector<std::string>& arguments,
                   const std::string& output);
    ~RunningProgram();
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    /// Whether it has not ended.
    bool isRunning() const;
    /// Kilobytes of memory that it has in use.
    long memory() const;
    /// Sends it a signal.
    void send(int signal) const;
    /// Sends it a signal, and waits for its end; its exit status, or 128 and its signal.
    int end(int signal);

private:
    int process_ = -1;
};

}  // namespace kp::test
