#include "common/password.h"

#include <bsd/readpassphrase.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace kp::programs {

namespace {

constexpr std::size_t kBufferSize = 1024;

// A buffer whose text does not stay in memory.
struct Buffer {
    ~Buffer() { explicit_bzero(text, sizeof text); }
    char text[kBufferSize] = {};
};

// A signal during the question, such as Ctrl-C, restores the terminal's echo before it does what it
// does; a stopped program that is continued asks again.
std::string ask(const std::string& prompt) {
    Buffer buffer;
    if (readpassphrase(prompt.c_str(), buffer.text, sizeof buffer.text, RPP_REQUIRE_TTY) ==
        nullptr) {
        if (errno == ENOTTY || errno == ENXIO) {
            throw PasswordError(
                "there is no terminal to ask for the password; use --password-file");
        }
        throw PasswordError(std::string("cannot ask for the password: ") + std::strerror(errno));
    }
    const std::string answer = buffer.text;
    if (answer.empty()) {
        throw PasswordError("no password was given");
    }
    if (answer.size() + 1 == sizeof buffer.text) {
        throw PasswordError("the password is too long");
    }
    return answer;
}

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
    std::string password = ask(prompt + ": ");
    if (twice && ask(prompt + " again: ") != password) {
        throw PasswordError("the two passwords differ");
    }
    return password;
}

}  // namespace kp::programs
