// A pool of threads counts the words of files, a task a file, while the main thread sleeps on an
// event until the last task has ended: thread_pool FILE...
#include <kp/kp.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

// How many files are left, and what tells the main thread that it has changed.
struct Rest {
    std::atomic<int> files;
    KP_Event changed;
};

struct Count {
    const char* path;
    Rest* rest;
    unsigned long words = 0;
    bool isRead = false;
};

void countWords(void* argument) {
    auto* const count = static_cast<Count*>(argument);
    std::ifstream file(count->path);
    for (std::string word; file >> word;)
        ++count->words;
    count->isRead = file.is_open() && !file.bad();
    --count->rest->files;
    count->rest->changed.signal();  // After the change: who waits asks again then.
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: thread_pool FILE...\n", stderr);
        return 2;
    }
    Rest rest{argc - 1, {}};
    std::vector<Count> counts;
    for (int i = 1; i < argc; ++i)
        counts.push_back({argv[i], &rest});
    // Declared last, so it ends first and waits for its workers: one may still be in signal().
    KP_ThreadPool pool(4);
    for (Count& count : counts)
        pool.addTask(countWords, &count, 0);
    pool.start();
    rest.changed.waitUntil([&] { return rest.files == 0; });

    unsigned long sum = 0;
    int status = 0;
    for (const Count& count : counts) {
        sum += count.words;
        std::printf("%8lu %s\n", count.words, count.path);
        if (!count.isRead) {
            std::fprintf(stderr, "thread_pool: cannot read all of %s\n", count.path);
            status = 1;
        }
    }
    std::printf("%8lu in all\n", sum);
    return status;
}
