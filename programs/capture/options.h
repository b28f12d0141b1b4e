// kp-capture: the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kp::capture {

struct Options {
    std::string directory;  ///< the installation; empty: where the library finds it
    std::string name = "kp-capture";
    std::string replay;  ///< file to read, "-" for standard input; empty: none
    std::string device;  ///< empty: the configured one
    unsigned readers = 1;
    unsigned buffer = 64;  ///< MiB
    bool wait = false;
    unsigned threads = 1;
    /// When the first packet of a replay is to arrive, in seconds since 1970.
    std::optional<std::int64_t> start;
    std::optional<bool> record;  ///< none: a device is recorded, a file is not
    bool deleteOld = false;      ///< also before a pause in the records
    bool answersAlone = false;
    bool serve = false;
    unsigned clientTimeout = 60;  ///< seconds
    bool verbose = false;
    bool print = false;
    bool all = false;

    bool isRecorded() const { return record.value_or(replay.empty()); }
};

/// Reads the command line into @p options. Returns the exit status when the program has nothing
/// more to do: 0 after --help and --version, 2 after a mistake, which was told on standard error.
std::optional<int> readOptions(int argc, char** argv, Options& options);

}  // namespace kp::capture
