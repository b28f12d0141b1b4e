// libkp: the tools that the programs share: text lines, keyed files, web content, addresses, time.
#pragma once

#include <cstdio>

#include "kp/export.h"

struct timeval;

/// Static operations on plain byte strings, buffered files, addresses and times.
///
/// Threads: every operation may be called from any thread; the exceptions say so. Nothing here
/// takes a lock, and only strdup() and readStringMalloc() hand out memory.
class KP_API KP_Tools {
public:
    KP_Tools() = delete;

    // --- lines and keyed text files (src/tools/parsing.cpp) ---

    /// One entry of the key table of readConfig(); a null key ends the table.
    struct Configuration {
        /// What a line must begin with; not owned.
        const char* key;
        /// The last value read: at most 127 characters. The caller puts the default here.
        char value[128];
        /// Called with the whole value text of each line and the caller's user data; may be null.
        void (*handler)(char* value, void* userData);
    };

    /// Removes characters of @p set from the front part of @p src.
    /// @p dst: where the result goes, room for all of @p src; null, or @p src itself: in place.
    /// @p count: 0 removes them throughout; otherwise they are removed until @p count runs of other
    /// characters have begun, and from the start of that run everything is copied as it is.
    /// @p set: null means blank, tab and line feed. Returns where the result is.
    static char* squeeze(char* src, char* dst, int count, const char* set);
    /// Reads one line of at most @p max characters into @p buf, which has room for max + 1.
    /// The line feed is consumed and not stored; the rest of a longer line comes with the next
    /// call. Returns the number of characters stored, or -1 when the file ended; what was read
    /// before the end is in @p buf all the same. A @p max of 0 or less reads nothing and returns 0.
    static int getline(std::FILE* f, char* const buf, int max);
    /// Reads a keyed text file: a key, optional blanks, an optional ':' or '=', optional blanks,
    /// value. Empty lines, lines that begin with '#', lines without a known key and a last line
    /// without a line feed are ignored. A key is matched as the beginning of a line,
    /// case-sensitively, and the first matching entry of @p table takes the line. An entry with a
    /// handler gets the value as it is; for the others the first run of blanks is removed from it
    /// and a '#' right there ends it, so "eth0   # card" becomes "eth0". The last line of a key
    /// wins. A value of more than 127 characters would become another value if it were cut: an
    /// entry without a handler keeps what it had and the log gets a line that names the key; an
    /// entry with a handler keeps the first 127 characters and its handler gets all of them.
    static void readConfig(std::FILE* f, Configuration* table, void* userData);
    /// The value of a line `name{value}`: the second piece of @p line when it is split at runs of
    /// braces and line feeds, or null when there is no second piece. Writes NULs into @p line,
    /// which the result points into. @p f is not used. Keeps no state between calls.
    static char* getConfigValue(std::FILE* f, char* line);
    /// Advances @p *p past blanks, tabs, line feeds and carriage returns; nulls are left alone.
    static void LWS_r(char** p);
    /// The same, but never beyond @p end.
    static void LWS(char** p, const char* end);
    /// Advances @p *p past blanks and tabs; nulls are left alone.
    static void RmWhiteSpace_r(char** p);
    /// 1 when two adjacent line-break characters (CR or LF, in any mixture) lie in [p, end), else
    /// 0.
    static int ScanLine_r(const char* p, const char* end);
    /// Moves @p *p just past the first such pair and returns 1; without one moves it to @p end and
    /// returns 0. A @p *p at or beyond @p end stays and gives 0.
    static int IgnoreLine_r(char** p, const char* end);

    // --- binary string records and byte patterns (src/tools/records.cpp) ---
    // A record is the length of the text in two bytes, least significant first, then the text.

    /// Reads a record into @p buf, which has room for @p size + 1 characters, as terminated text.
    /// Returns 0; -1 when the record is cut off, or longer than @p size, as all are for a negative
    /// one (then its text is unread and the debug log says so).
    static int readStringNoMalloc(char* buf, int size, std::FILE* f);
    /// Reads a record into new memory, to be freed with free(); an empty text gives a null pointer.
    /// Returns 0. Returns -1 with @p *out untouched when the length is missing, or above 2048 bytes
    /// (the debug log says so); with a null @p *out when memory runs out (the debug log says so);
    /// and with a terminated block when the text is cut off, its missing bytes being NULs.
    static int readStringMalloc(char** out, std::FILE* f);
    /// Writes @p s as a record; returns 0, or -1 when it could not be written.
    /// A text of more than 65535 bytes is refused, and nothing is written.
    static int writeString(const char* s, std::FILE* f);
    /// fopen(); the file is not handed on to programs that this process starts.
    static std::FILE* openFile(const char* path, const char* mode);
    /// The index in @p buffer of the first occurrence of @p pattern at or after @p start, or -1.
    /// Lengths are in bytes. @p exact: false compares the same way; there is no folding of case.
    /// Runs in time proportional to the buffer for ordinary data, at the speed of a memory scan.
    static int findPattern(const char* pattern, int patternLength, const char* buffer,
                           int bufferLength, bool exact, int start);

    // --- web content (src/tools/web_content.cpp) ---

    /// 1 when @p contentType contains "text/", "audio/", "video/" or "application/" in just that
    /// case.
    static int isContentMIME(const char* contentType);
    /// 1 when @p status begins with 200, 201, 202, 203 or 304: a page was delivered.
    static int isValidPage(const char* status);
    /// Whether a request is where a visitor entered a site, 1 or 0.
    /// 0 when @p location (of which the first 1022 characters count) contains @p excluded, in any
    /// case; else isContentMIME(contentType). An empty @p location gives isContentMIME() at once if
    /// that is 1. Programs pass the referring page as location and the site's own name as excluded.
    /// Changes @p excluded to lower case, unless the answer came from an empty location.
    static int isEntryPoint(char* excluded, const char* location, const char* contentType);
    /// 1 when @p s is empty or all white space.
    static int isAllSpace(const char* s);

    // --- addresses, time and system (src/tools/system.cpp) ---
    // IPv4 addresses are numbers in host byte order: the first number of the dotted form on top.

    /// Writes the dotted form of @p address to @p dst: at most 16 bytes.
    static void IPAddressString(unsigned long address, char* dst);
    /// Writes the host name of @p *address in lower case to @p dst, or its dotted form when it has
    /// none. Needs 256 bytes. Asks the system's name service, which can take seconds.
    static void resolveIP(const unsigned long* address, char* dst);
    /// The difference a - b in microseconds, cut to 32 bits: beyond 2147 seconds it wraps around.
    static long timeSubtract(timeval* a, timeval* b);
    /// Sets @p tv to the current time in whole seconds; its microseconds become 0.
    static void gettimeofday(timeval* tv, void* zone);
    /// Suspends the calling thread for @p seconds; 0 and less only yield the processor.
    static void sleep(int seconds);
    /// Converts @p s in place with the locale's tolower(); in the default locale A to Z only.
    static void toLowerCase(char* s);
    /// Converts @p s in place with the locale's toupper(); in the default locale a to z only.
    static void toUpperCase(char* s);
    /// A copy of @p s, to be freed with free(); null when memory runs out.
    static char* strdup(const char* s);
    /// The next piece of @p s (null: of the last text) between runs of @p delimiters, or null.
    /// Writes NULs into the text. The position is kept per thread; @p state is not used.
    static char* strtok(char* s, const char* delimiters, char** state);
    /// Sorts the @p n object pointers at @p base with @p comparison, which gets pointers to entries
    /// and must not contradict itself. Null compares the objects through KP_Compare (mode 0); two
    /// that do not know it give -1, and the order is then any. Equal entries may change places.
    static void sort(void* base, int n, int (*comparison)(const void*, const void*));
    /// 1: every device name is taken as one that can be opened; nothing is opened to find out.
    /// Whether it captures, and may, shows when a program opens it.
    static int testPromiscEthernet(const char* device);
    /// Performs the control operation @p command, without an argument, on @p socket; returns 0.
    /// @p value and @p data are not used, nor is the outcome reported: hosts that need it call the
    /// system.
    static int strioctl(int socket, int command, int value, char* data);
    /// 1 when a TCP socket can be bound to @p port (its low 16 bits) on all local addresses, else 0
    /// with a log line that says why. No socket stays open. (src/wire/socket_test.cpp)
    static int testSocket(int port);

    // --- installation directory and time text (src/tools/installation.cpp) ---

    /// The installation directory: KP_INSTALLDIR, or "../conf" as seen from the program's folder.
    /// One buffer of 256 characters for all: each call rewrites it, so keep a copy, and call it
    /// during start-up only; KP_Log::init() and whatever opens configuration files call it too. A
    /// path that is no directory, or is longer than 255 characters, ends the process with status 1
    /// and a message in the log.
    static char* getInstallDir();
    /// Writes the local time, as in 2000Mar07-14:05, to @p dst, which has room for 60 characters.
    static void getTimeString1(char* dst);
};
