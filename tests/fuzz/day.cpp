// Any bytes as the file of a day: each question ends, with an answer or a refusal.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "options.h"
#include "questions.h"
#include "records/time_text.h"

namespace {

namespace fs = std::filesystem;
using namespace kp::query;

// A database directory of one day, in memory where the machine has such a place.
class Directory {
public:
    Directory() {
        const fs::path memory = "/dev/shm";
        path_ = (fs::exists(memory) ? memory : fs::temp_directory_path()) / "kp-fuzz-XXXXXX";
        if (::mkdtemp(path_.data()) == nullptr)
            std::abort();
    }
    ~Directory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const std::string& path() const { return path_; }
    void write(const std::uint8_t* data, std::size_t size) const {
        const std::string file = path_ + "/2023-11-15.sqlite";
        const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (::write(descriptor, data, size) != static_cast<ssize_t>(size))
            std::abort();
        ::close(descriptor);
    }

private:
    std::string path_;
};

// Takes an answer; one that is longer than the file explains is a fault.
struct Answer {
    std::size_t left;

    static ssize_t take(void* self, const char*, std::size_t size) {
        std::size_t& left = static_cast<Answer*>(self)->left;
        if (size > left)
            std::abort();
        left -= size;
        return static_cast<ssize_t>(size);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Directory directory;
    ::setenv("TZ", "UTC", 1);
    directory.write(data, size);
    // Two questions an input, which its bytes choose: each takes long against the rest of a run.
    unsigned sum = 0;
    for (std::size_t i = 0; i < size; ++i)
        sum += data[i];
    const int question = static_cast<int>(sum % 6);
    Options options;
    options.format = static_cast<Format>(question % 3);
    options.period = question % 2 == 0 ? Period::kHour : Period::kDay;
    options.ranked = static_cast<Ranked>(question);
    if (sum / 12 % 2 == 0) {
        options.filter.host = "*";
        options.filter.from = kp::records::parseTime("2023-11-15 12:07").start;
    }
    Answer answer{1000 * (size + 100000)};
    cookie_io_functions_t functions = {};
    functions.write = Answer::take;
    std::FILE* const output = ::fopencookie(&answer, "w", functions);
    if (output == nullptr)
        std::abort();
    if (sum / 6 % 2 == 0)
        list(directory.path(), options, output);
    else
        totals(directory.path(), options, output);
    top(directory.path(), options, output);
    std::fclose(output);
    return 0;
}

// Of the fuzzer.
extern "C" [[gnu::weak]] std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size,
                                                      std::size_t most);

// Most changes are small and behind the schema, since a file with another one is refused at once.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned seed) {
    constexpr std::size_t kSchema = 5120;
    constexpr std::size_t kChanged = 32;
    if (size < kSchema + kChanged || seed % 8 == 0)
        return LLVMFuzzerMutate(data, size, most);
    const std::size_t place = kSchema + seed / 8 % (size - kSchema - kChanged + 1);
    LLVMFuzzerMutate(data + place, kChanged, kChanged);
    return size;
}
