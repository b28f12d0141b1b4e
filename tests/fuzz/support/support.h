// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kp::fuzz {

/// Ends the run as a finding, and says in which line of the target.
inline void require(bool isTrue, int line = __builtin_LINE()) {
    if (isTrue)
        return;
    std::fprintf(stderr, "line %d: not as it should be\n", line);
    std::abort();
}

/// Whether @p body ends the process, which it does not do here: exit() is an exception that unwinds
/// out of @p body instead.
bool endsProcess(const std::function<void()>& body);

/// A file that holds @p bytes, open for reading.
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
File fileOf(std::string_view bytes);

/// A file of the memory, with a path.
class MemoryFile {
public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
    /// Makes @p bytes all that it holds.
    void put(std::string_view bytes) const;

private:
    int descriptor_;
};

/// Two connected sockets of the kernel's memory. What a peer sends before it goes is in one of them.
class Sockets {
public:
    Sockets();
    ~Sockets();
    Sockets(const Sockets&) = delete;
    Sockets& operator=(const Sockets&) = delete;

    int ours() const { return ends_[0]; }
    int theirs() const { return ends_[1]; }
    /// The peer sends @p bytes, as many as go in, and says that it has no more.
    void sendAll(std::string_view bytes) const;

private:
    int ends_[2] = {-1, -1};
};

/// Takes an input apart, a number at a time; after its end there are zeros.
class Script {
public:
    Script(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    bool isOver() const { return rest_.empty(); }
    unsigned number() {
        if (rest_.empty())
            return 0;
        const auto byte = static_cast<unsigned char>(rest_.front());
        rest_.remove_prefix(1);
        return byte;
    }
    /// The next bytes, as many as the next number says, up to what is left.
    std::string_view text() {
        const std::string_view text = rest_.substr(0, number());
        const std::string_view found = rest_.substr(0, text.size());
        rest_.remove_prefix(found.size());
        return found;
    }

private:
    std::string_view rest_;
};

}  // namespace kp::fuzz
