#include "support/program.h"

#include <fcntl.h>
#include <unistd.h>

namespace kp::test {

Outcome runProgram(const std::string& path, const std::vector<std::string>& arguments,
                   const std::string& input) {
    return runInChild([&] {
        ::setsid();
        const int standardInput = ::open(input.empty() ? "/dev/null" : input.c_str(), O_RDONLY);
        ::dup2(standardInput, STDIN_FILENO);
        std::vector<std::string> texts = {path};
        texts.insert(texts.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& text : texts) {
            argv.push_back(text.data());
        }
        argv.push_back(nullptr);
        ::execv(path.c_str(), argv.data());
        return 127;
    });
}

}  // namespace kp::test
