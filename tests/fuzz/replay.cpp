// Runs a fuzz target over files and the files of folders, for builds without a fuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    int count = 0;
    const auto run = [&count](const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
        // A copy of its own size, so that the sanitizer sees a step beyond it.
        const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
        LLVMFuzzerTestOneInput(input.data(), input.size());
        ++count;
    };
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            run(argv[i]);
            continue;
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(argv[i]))
            run(entry.path());
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
