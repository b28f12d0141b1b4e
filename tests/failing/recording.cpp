// kp-failing-recording DIRECTORY: what kp-capture does when it starts, records, sees a day begin and
// ends, in short, so that each of its system calls can be made to fail. Each row's target is its
// number. The last line is "RECORDED LOST": what the recorder says that is in the files, and what is
// not.
#include <cstdio>
#include <exception>

#include "output/recorder.h"

namespace {

using kp::capture::Recorder;
using kp::records::Day;
using kp::records::today;

int run(const char* directory) {
    Recorder::Settings settings;
    settings.directory = directory;
    settings.mayWait = true;
    settings.daysToKeep = [] { return 3U; };
    settings.retryPeriod = std::chrono::milliseconds(0);
    settings.lockPatience = std::chrono::milliseconds(10);
    settings.tell = [](const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); };
    Recorder recorder(std::move(settings));
    recorder.open();
    if (recorder.start() != 0)
        return 3;
    const auto record = [&](int row, const Day& day) {
        kp::capture::Transaction transaction;
        transaction.time.seconds = day.start();
        transaction.method = "GET";
        transaction.target = "/" + std::to_string(row);
        recorder.record(std::move(transaction), {});
        recorder.flush();
        std::printf("%llu %llu\n", static_cast<unsigned long long>(recorder.recorded()),
                    static_cast<unsigned long long>(recorder.lost()));
        std::fflush(stdout);
    };
    record(0, today().plus(-2));
    record(1, today().plus(-1));
    recorder.dayBegan();
    record(2, today());
    record(3, today().plus(-2));
    recorder.finish();
    std::printf("%llu %llu\n", static_cast<unsigned long long>(recorder.recorded()),
                static_cast<unsigned long long>(recorder.lost()));
    return recorder.lost() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return argc == 2 ? run(argv[1]) : 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
