// The small layer between the library and the operating system: nothing else includes its headers.
//
// Functions are dumb wrappers: they translate names and error numbers, never policy. All of them
// may be called from any thread. Names of files and hosts are NUL-terminated bytes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#if defined(_WIN32)
#include <winsock2.h>  // struct timeval
#else
#include <sys/time.h>  // struct timeval
#endif

// A function marked KP_TARGET_AVX2 may only run when hasAvx2() says so; without KP_WITH_AVX2 the
// compiler or the processor family has no such thing.
#if defined(__GNUC__) && defined(__x86_64__)
#define KP_WITH_AVX2
#define KP_TARGET_AVX2 __attribute__((target("avx2")))
#endif

namespace kp::platform {

#if defined(KP_WITH_AVX2)
inline bool hasAvx2() {
    return __builtin_cpu_supports("avx2") != 0;
}
#endif

// --- files and directories ---

/// Whether @p path exists and is a directory.
bool isDirectory(const char* path);
/// fopen() with the file closed in programs that this process starts; null with errno on failure. A
/// directory is refused with EISDIR.
std::FILE* openFile(const char* path, const char* mode);
/// Makes a file that was opened with "a+" the one that is now at @p path, created if there is none.
/// Writes of other threads go to the old one or the new one. False with errno: it stays the old
/// one.
bool reopenLog(std::FILE* file, const char* path);
/// openFile() for configuration files: a file that it creates is its owner's alone.
std::FILE* openConfigurationFile(const char* path, const char* mode);
/// Writes the folder of the running program's file to @p folder; false, with an empty folder, when
/// it is not known or the file's path has @p size characters or more. The separator before the file
/// name is not part of it.
bool programFolder(char* folder, std::size_t size);
/// The path of the configuration folder as seen from the program's folder, separators included.
extern const char* const kConfigurationFolder;

/// The bytes of a file, one at a time and for one thread while this lives: the lock of the file is
/// taken once and not for each.
class FileBytes {
public:
    explicit FileBytes(std::FILE* file);
    ~FileBytes();
    FileBytes(const FileBytes&) = delete;
    FileBytes& operator=(const FileBytes&) = delete;

    /// As std::getc().
    int next() const {
#if defined(_WIN32)
        return ::_getc_nolock(file_);
#else
        return ::getc_unlocked(file_);
#endif
    }

private:
    std::FILE* file_;
};

/// Opens a file for reading and writing, or creates it for its owner alone, closed in programs that
/// this process starts; a descriptor, or -1 with errno.
int openLockFile(const char* path);
/// Sets a file's permissions to reading and writing by its owner alone; false with errno.
bool giveToOwner(int descriptor);
int descriptorOf(std::FILE* file);
void closeFile(int descriptor);
/// Locks the first byte of an opened file against other openings of it, without waiting; one that
/// is open for reading only, against those who lock it for writing. False with errno. Goes to the
/// start of the file.
bool lockFirstByte(int descriptor);
/// The counterpart, which also succeeds when there is no lock.
bool unlockFirstByte(int descriptor);

// --- time ---

/// Local time of @p time in the zone that the environment names now; false when the system cannot
/// tell.
bool localTime(std::time_t time, std::tm* local);
/// Local time in the words of the language's ctime(), line end included; empty when the system
/// cannot tell.
void timeText(std::time_t time, char (&text)[32]);
/// Suspends the calling thread; 0 only yields the processor.
void sleepSeconds(int seconds);
/// The decimal point of the calling thread's locale; valid until that changes.
const char* decimalPoint();

// --- signals ---

/// Makes the log, which appends, known to writeSignalLog(); null when there is none any more.
/// One thread at a time.
void setSignalLog(std::FILE* file);
/// Appends to the log in one piece. May be called from a signal handler; keeps errno.
void writeSignalLog(const char* text, std::size_t size);
/// Installs a handler that stays; interrupted calls of the system go on. False on failure.
bool handleSignal(int number, void (*handler)(int));

// --- waiting and waking ---

/// A moment on the clock that no change of the system time touches.
struct Deadline {
    std::int64_t seconds = 0;
    std::int64_t nanoseconds = 0;
};

/// Tells the processor that the caller looks at a word in a loop: some nanoseconds' rest.
inline void pauseBriefly() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

/// The moment @p milliseconds from now.
Deadline deadlineIn(int milliseconds);
/// Sleeps while @p word holds @p value, until a wake, a signal or the deadline (null: none).
/// May return early for no reason; returns false only when the deadline has passed.
bool waitWhileEqual(const std::atomic<std::uint32_t>& word, std::uint32_t value,
                    const Deadline* deadline);
/// Wakes one thread that sleeps on @p word; false when the system refuses. The word may be gone
/// already, if the thread to be woken has seen its new value and destroyed it.
bool wakeOne(const std::atomic<std::uint32_t>& word);
void wakeAll(const std::atomic<std::uint32_t>& word);

// A host's thread sanitizer does not see the atomic operations of a library that was built without
// it. These tell it that what a thread did before happensBefore() of an address is visible to one
// that comes after happensAfter() of it. Without a sanitizer they cost a look at a pointer.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KP_SEES_ATOMICS
#endif
#endif
#if defined(__SANITIZE_THREAD__) || !defined(__GNUC__)
#define KP_SEES_ATOMICS
#endif
#if defined(KP_SEES_ATOMICS)
inline void happensBefore(const void*) {}
inline void happensAfter(const void*) {}
#else
extern "C" void __tsan_release(void*) __attribute__((weak));
extern "C" void __tsan_acquire(void*) __attribute__((weak));
inline void happensBefore(const void* address) {
    if (&__tsan_release != nullptr) {
        __tsan_release(const_cast<void*>(address));
    }
}
inline void happensAfter(const void* address) {
    if (&__tsan_acquire != nullptr) {
        __tsan_acquire(const_cast<void*>(address));
    }
}
#endif

// --- threads ---

/// Identifies a thread of startThread() to abandonWork().
using ThreadId = std::uintptr_t;

/// Starts a thread that runs entry(argument); false when the system refuses.
bool startThread(void (*entry)(void*), void* argument);
ThreadId currentThread();
/// Runs work(argument), which abandonWork() may break off in the middle of anything while
/// setAbandonable() allows it; returns whether it ran to its end. Nothing is unwound and no
/// destructor runs in what was broken off.
bool runWork(void (*work)(void*), void* argument);
/// Says whether the calling thread's runWork() may be broken off from now on, and breaks it off at
/// once if somebody asked for it meanwhile. Returns what was allowed before; a thread that is not
/// in runWork() gets false and nothing happens.
bool setAbandonable(bool allowed);
/// Breaks off the runWork() of @p thread, which must exist; at once or when it is next allowed.
/// Work that keeps all signals from its thread cannot be broken off.
void abandonWork(ThreadId thread);
/// Whether somebody has asked for the calling thread's runWork() to be broken off: what waits where
/// that is not allowed comes to an end then.
bool isAbandonWanted();

// --- addresses and names ---

/// The address of a text in the forms that inet_addr() knows, in host byte order;
/// all ones for anything else.
std::uint32_t parseAddress(const char* text);
/// Writes the host name of @p address (host byte order) to @p name; false when there is none.
bool hostName(std::uint32_t address, char* name, std::size_t size);

// --- sockets ---

/// A TCP socket that programs started by this process do not inherit; -1 on failure.
int createTcpSocket();
/// Sets SO_REUSEADDR; 0 or -1.
int setReuseAddress(int socket);
/// Binds to @p port on all local addresses; 0 or -1.
int bindToPort(int socket, std::uint16_t port);
void closeSocket(int socket);
/// The number of the last socket error in the numbering of the library's table of texts;
/// 0 for an error that has no number there.
int lastSocketError();
/// Receives up to @p size bytes: their number, 0 when the peer has closed, -1 on failure.
/// An interruption by a signal is no failure.
long receiveBytes(int socket, void* buffer, std::size_t size);
/// Sends up to @p size bytes: their number, or -1. A peer that has gone is a failure, no signal.
long sendBytes(int socket, const void* buffer, std::size_t size);
/// The socket control operation @p command without an argument.
int controlSocket(int socket, int command);

}  // namespace kp::platform
