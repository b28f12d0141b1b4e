#include "support/child.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

// A sanitizer's own exit status is 1, like that of a fatal fault; and memory that cannot be had is
// something the tests want to see.
extern "C" const char* __asan_default_options() {
    return "exitcode=99:allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "exitcode=99:allocator_may_return_null=1";
}

namespace kp::test {

namespace {

constexpr unsigned kChildSeconds = 60;

std::string contentOf(std::FILE* file) {
    std::string content;
    std::rewind(file);
    for (int c = std::getc(file); c != EOF; c = std::getc(file)) {
        content += static_cast<char>(c);
    }
    std::fclose(file);
    return content;
}

}  // namespace

Outcome runInChild(const std::function<int()>& body) {
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(kChildSeconds);
        ::dup2(::fileno(out), STDOUT_FILENO);
        ::dup2(::fileno(err), STDERR_FILENO);
        // Whoever calls exit() ends here: the tests' own destructors belong to the parent.
        ::on_exit(
            [](int status, void*) {
                std::fflush(stdout);
                ::_exit(status);
            },
            nullptr);
        std::exit(body());
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contentOf(out),
            contentOf(err)};
}

}  // namespace kp::test
