#include "support/support.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Ended {};

bool isWatched = false;

}  // namespace

// Takes the place of exit(), under another name because that one is declared to throw nothing.
[[noreturn]] void endOfProcess(int status) __asm__("exit");
void endOfProcess(int status) {
    if (isWatched)
        throw Ended();
    std::fflush(nullptr);
    _exit(status);
}

namespace kp::fuzz {

bool endsProcess(const std::function<void()>& body) {
    isWatched = true;
    bool hasEnded = false;
    try {
        body();
    } catch (const Ended&) {
        hasEnded = true;
    }
    isWatched = false;
    return hasEnded;
}

File fileOf(std::string_view bytes) {
    std::FILE* const file = bytes.empty()
                                ? std::fopen("/dev/null", "rb")
                                : fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb");
    require(file != nullptr);
    return {file, std::fclose};
}

MemoryFile::MemoryFile() : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)) {
    require(descriptor_ >= 0);
}

MemoryFile::~MemoryFile() {
    close(descriptor_);
}

void MemoryFile::put(std::string_view bytes) const {
    require(ftruncate(descriptor_, 0) == 0);
    require(pwrite(descriptor_, bytes.data(), bytes.size(), 0) ==
            static_cast<ssize_t>(bytes.size()));
}

Sockets::Sockets() {
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) == 0);
}

Sockets::~Sockets() {
    for (const int end : ends_)
        close(end);
}

void Sockets::sendAll(std::string_view bytes) const {
    const ssize_t sent = send(theirs(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    static_cast<void>(sent);
    shutdown(theirs(), SHUT_WR);
}

}  // namespace kp::fuzz
