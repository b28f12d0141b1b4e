// A temporary installation directory, and faults that end a process which starts from it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <string>

namespace kp::test {

/// An installation directory with admin/, logs/ and db/, named by KP_INSTALLDIR while it lives.
/// Its end closes the log, removes the directory and restores the variable.
class Installation {
public:
    Installation();
    ~Installation();
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    std::string path(const std::string& below = "") const;
    void write(const std::string& below, const std::string& content) const;
    std::string read(const std::string& below) const;
    /// A file with @p content, open for reading.
    std::FILE* file(const std::string& content) const;
    /// Opens logs/test.log with a debug level.
    void openLog(int level = 0) const;
    /// What was added to that log since the last call, with "TIME" for each time stamp.
    std::string newLog();

private:
    std::string root_;
    std::optional<std::string> previous_;
    std::size_t seen_ = 0;
};

/// What is in the file at @p path; fails the test when there is none.
std::string contentOf(const std::string& path);

class InstallationTest : public ::testing::Test {
protected:
    Installation site_;
};

/// Expects @p body to end the process with status 1, and to add just @p log to the open log.
void expectQuit(Installation& site, const std::function<void()>& body, const std::string& log);

/// @p text with its first @p from replaced by @p to; fails the test when there is none.
std::string with(std::string text, const std::string& from, const std::string& to);

}  // namespace kp::test
