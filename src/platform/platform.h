// The small layer between the library and the operating system: nothing else includes its headers.
//
// Functions are dumb wrappers: they translate names and error numbers, never policy. All of them
// may be called from any thread. Names of files and hosts are NUL-terminated bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#if defined(_WIN32)
#include <winsock2.h>  // struct timeval
#else
#include <sys/time.h>  // struct timeval
#endif

namespace kp::platform {

// --- files and directories ---

/// Whether @p path exists and is a directory.
bool isDirectory(const char* path);
/// fopen() with the file closed in programs that this process starts; null with errno on failure.
std::FILE* openFile(const char* path, const char* mode);
/// openFile() for configuration files: a file that it creates is its owner's alone, and a directory
/// is refused with EISDIR.
std::FILE* openConfigurationFile(const char* path, const char* mode);
/// Writes the folder of the running program's file to @p folder; false when it is not known or has
/// @p size characters or more. The separator before the file name is not part of it.
bool programFolder(char* folder, std::size_t size);
/// The path of the configuration folder as seen from the program's folder, separators included.
extern const char* const kConfigurationFolder;

// --- time ---

/// Local time of @p time; false when the system cannot tell.
bool localTime(std::time_t time, std::tm* local);
/// Suspends the calling thread; 0 only yields the processor.
void sleepSeconds(int seconds);

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
