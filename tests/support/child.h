// Children in which the process may end.
#pragma once

#include <functional>
#include <string>

namespace kp::test {

/// How a child ended: its exit status, or 128 and its signal, and what it wrote to 1 and 2.
struct Outcome {
    int status;
    std::string out;
    std::string err;
};

/// Runs @p body in a forked child; what it returns is the exit status, unless it ends the process.
/// A child that hangs for a minute is killed.
Outcome runInChild(const std::function<int()>& body);

}  // namespace kp::test
