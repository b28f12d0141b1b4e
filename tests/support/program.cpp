#include "support/program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

namespace kp::test {

namespace {

// Becomes the program; returns when there is none.
void execute(const std::string& path, const std::vector<std::string>& arguments) {
    std::vector<std::string> texts = {path};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& text : texts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    ::execv(path.c_str(), argv.data());
}

}  // namespace

Outcome runProgram(const std::string& path, const std::vector<std::string>& arguments,
                   const std::string& input) {
    return runInChild([&] {
        ::setsid();
        const int standardInput = ::open(input.empty() ? "/dev/null" : input.c_str(), O_RDONLY);
        ::dup2(standardInput, STDIN_FILENO);
        execute(path, arguments);
        return 127;
    });
}

RunningProgram::RunningProgram(const std::string& path, const std::vector<std::string>& arguments,
                               const std::string& output)
    : process_(::fork()) {
    if (process_ != 0) {
        return;
    }
    ::setsid();
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    ::dup2(::open(output.c_str(), kFlags, 0600), STDOUT_FILENO);
    ::dup2(::open((output + ".err").c_str(), kFlags, 0600), STDERR_FILENO);
    execute(path, arguments);
    ::_exit(127);
}

RunningProgram::~RunningProgram() {
    if (process_ > 0) {
        end(SIGKILL);
    }
}

bool RunningProgram::isRunning() const {
    siginfo_t ended = {};
    ::waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOHANG | WNOWAIT);
    return ended.si_pid == 0;
}

long RunningProgram::memory() const {
    std::ifstream status("/proc/" + std::to_string(process_) + "/status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            long kilobytes = 0;
            status >> kilobytes;
            return kilobytes;
        }
    }
    return 0;
}

void RunningProgram::send(int signal) const {
    ::kill(process_, signal);
}

int RunningProgram::end(int signal) {
    send(signal);
    int status = 0;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace kp::test
