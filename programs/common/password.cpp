#include "common/password.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <fstream>

namespace kp::programs {

namespace {

// The controlling terminal with its echo off, for as long as the object lives.
class SilentTerminal {
public:
    SilentTerminal() : terminal_(::open("/dev/tty", O_RDWR | O_CLOEXEC)) {
        if (terminal_ < 0 || ::tcgetattr(terminal_, &before_) != 0) {
            throw PasswordError(
                "there is no terminal to ask for the password; use --password-file");
        }
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(terminal_, TCSAFLUSH, &silent);
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    ~SilentTerminal() {
        ::tcsetattr(terminal_, TCSAFLUSH, &before_);
        ::close(terminal_);
    }

    std::string ask(const std::string& prompt) {
        say(prompt);
        std::string answer;
        char c = '\0';
        for (ssize_t got = ::read(terminal_, &c, 1); c != '\n'; got = ::read(terminal_, &c, 1)) {
            if (got <= 0) {
                throw PasswordError("no password was given");
            }
            answer += c;
        }
        say("\n");
        return answer;
    }

private:
    void say(const std::string& text) {
        if (::write(terminal_, text.data(), text.size()) < 0) {
            throw PasswordError("cannot write to the terminal");
        }
    }

    int terminal_;
    termios before_ = {};
};

}  // namespace

std::string passwordFromFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string password;
    if (!file || (!std::getline(file, password) && !file.eof())) {
        throw PasswordError("cannot read the password file " + path);
    }
    if (!password.empty() && password.back() == '\r') {
        password.pop_back();
    }
    return password;
}

std::string askPassword(const std::string& prompt, bool twice) {
    SilentTerminal terminal;
    std::string password = terminal.ask(prompt + ": ");
    if (twice && terminal.ask(prompt + " again: ") != password) {
        throw PasswordError("the two passwords differ");
    }
    return password;
}

}  // namespace kp::programs
