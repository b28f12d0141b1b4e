// libkp: the tools that the programs share: text lines, keyed files, web content, addresses, time.
#pragma once

#include <cstddef>
#include <cstdio>
#include <type_traits>
#include <utility>

#include "kp/export.h"

struct timeval;

/// Static operations on plain byte strings, buffered files, addresses and times.
///
/// Where it does not say otherwise, texts are terminated and pointers are not null. Files are open
/// and stay the caller's. Only strdup() and readStringMalloc() hand out memory.
///
/// Threads: every operation may be called from any thread; the exceptions say so. Nothing here
/// guards what it is given: a text, file or array is for one thread at a time.
class KP_API KP_Tools {
public:
    KP_Tools() = delete;

    // --- lines and keyed text files (src/tools/parsing.cpp) ---

    /// A function that takes a value text and user data, whatever it returns, which is ignored; or
    /// none. A function, a lambda without captures, and null convert to it.
    class Handler {
    public:
        /// No function.
        constexpr Handler(std::nullptr_t = nullptr) {}
        /// A function, which outlives the handler as functions do.
        constexpr Handler(void (*function)(char*, void*)) : function_(function) {}
        /// One that returns something.
        template <class Result>
        Handler(Result (*function)(char*, void*))
            : other_(reinterpret_cast<void (*)()>(function)), call_(&callAs<Result>) {}
        /// A lambda, by the function that it converts to.
        template <class Lambda, class Result = std::invoke_result_t<Lambda, char*, void*>,
                  class = std::enable_if_t<std::is_class_v<Lambda> &&
                                           std::is_convertible_v<Lambda, Result (*)(char*, void*)>>>
        constexpr Handler(Lambda lambda) : Handler(static_cast<Result (*)(char*, void*)>(lambda)) {}

        /// Whether there is a function.
        constexpr explicit operator bool() const {
            return function_ != nullptr || other_ != nullptr;
        }
        /// As a pointer to a function compares with null.
        friend bool operator==(const Handler& handler, std::nullptr_t) { return !handler; }
        /// The same, the other way around.
        friend bool operator==(std::nullptr_t, const Handler& handler) { return !handler; }
        /// Whether there is a function.
        friend bool operator!=(const Handler& handler, std::nullptr_t) { return !!handler; }
        /// The same, the other way around.
        friend bool operator!=(std::nullptr_t, const Handler& handler) { return !!handler; }
        /// As a pointer to a function: the handler itself.
        const Handler& operator*() const { return *this; }
        /// Calls the function, which there must be.
        void operator()(char* value, void* userData) const {
            if (function_ != nullptr) {
                function_(value, userData);
            } else {
                call_(other_, value, userData);
            }
        }

    private:
        template <class Result>
        static void callAs(void (*function)(), char* value, void* userData) {
            static_cast<void>(
                reinterpret_cast<Result (*)(char*, void*)>(function)(value, userData));
        }

        void (*function_)(char*, void*) = nullptr;
        // One that returns something, and what calls it by its own type.
        void (*other_)() = nullptr;
        void (*call_)(void (*)(), char*, void*) = nullptr;
    };

    /// One entry of the key table of readConfig(); a null key ends the table.
    struct Configuration {
        /// What a line must begin with; not owned.
        const char* key;
        /// The last value read: at most 127 characters. The caller puts the default here.
        char value[128];
        /// Called with the whole value text of each line, which it may change and which lasts until
        /// it returns, and with the caller's user data; may be null.
        Handler handler = nullptr;
    };

    /// Removes characters of @p set from the front part of @p src.
    /// @p dst: where the result goes, room for all of @p src and its terminator; null, or @p src
    /// itself: in place. @p count: 0 and less remove them throughout; otherwise they are removed
    /// until @p count runs of other characters have begun, and from the start of that run
    /// everything is copied as it is: "  a b c" becomes "abc" with 0, "a b c" with 1 and "ab c"
    /// with 2.
    /// @p set: null means blank, tab and line feed. Returns where the result is.
    static char* squeeze(char* src, char* dst, int count, const char* set);
    /// Reads one line of at most @p max characters into @p buf, which has room for max + 1 bytes.
    /// The line feed is consumed and not stored; the rest of a longer line comes with the next
    /// call. Of a line of exactly @p max characters the rest is its line feed: an empty line
    /// follows. Returns the number of characters stored, or -1 when the file ended; what was read
    /// before the end is in @p buf all the same. A @p max of 0 or less reads nothing and returns 0.
    static int getline(std::FILE* f, char* const buf, int max);
    /// Reads a keyed text file from @p f to its end: a line is a key, optional blanks, an optional
    /// ':' or '=', optional blanks, and the value. Blanks in front of a key, empty lines, lines
    /// that begin with '#', lines without a known key and a last line without a line feed are
    /// ignored. A line of more than 1024 characters counts as several.
    ///
    /// A key is matched as the beginning of a line, case-sensitively, and the first matching entry
    /// of @p table takes the line. An entry with a handler gets the value as it is, and @p userData
    /// with it; for the others the first run of blanks is removed from it and a '#' right there
    /// ends it, so "eth0   # card" becomes "eth0", and "a b c" becomes "ab c". The last line of a
    /// key wins. A value of more than 127 characters would become another value if it were cut: an
    /// entry without a handler keeps what it had and the log gets a line that names the key; an
    /// entry with a handler keeps the first 127 characters and its handler gets all of them.
    static void readConfig(std::FILE* f, Configuration* table, void* userData);
    /// The value of a line `name{value}`: the second piece of @p line when it is split at runs of
    /// braces and line feeds, or null when there is no second piece, as of `name{}`. Writes NULs
    /// into @p line, which the result points into. @p f is not used and may be null. Keeps no state
    /// between calls.
    static char* getConfigValue(std::FILE* f, char* line);
    /// Advances @p *p past blanks, tabs, line feeds and carriage returns; nulls are left alone.
    static void LWS_r(char** p);
    /// The same, but never beyond @p end; the text needs no terminator then.
    static void LWS(char** p, const char* end);
    /// Advances @p *p past blanks and tabs; nulls are left alone.
    static void RmWhiteSpace_r(char** p);
    /// 1 when two adjacent line-break characters (CR or LF, in any mixture) lie in [p, end), else
    /// 0. Here and below the text needs no terminator.
    static int ScanLine_r(const char* p, const char* end);
    /// Moves @p *p just past the first such pair and returns 1; without one moves it to @p end and
    /// returns 0. A @p *p at or beyond @p end stays and gives 0.
    static int IgnoreLine_r(char** p, const char* end);

    // --- binary string records and byte patterns (src/tools/string_records.cpp) ---
    // A record is the length of the text in two bytes, least significant first, then the text.

    /// Reads a record into @p buf, which has room for @p size + 1 bytes, as terminated text.
    /// Returns 0; -1 when the record is cut off, what there was of its text being in @p buf, or
    /// longer than @p size (then its text is unread and the debug log says so). The size is taken
    /// without its sign: a negative one is larger than every record, which has 65535 bytes at most.
    static int readStringNoMalloc(char* buf, int size, std::FILE* f);
    /// Reads a record into new memory, to be freed with free(); an empty text gives a null pointer.
    /// Returns 0. Returns -1 with @p *out untouched when the length is missing, or above 2048 bytes
    /// (the debug log says so); with a null @p *out when memory runs out (the debug log says so);
    /// and with a terminated block when the text is cut off, its missing bytes being NULs.
    static int readStringMalloc(char** out, std::FILE* f);
    /// Writes @p s as a record; returns 0, or -1 when it could not be written.
    /// A text of more than 65535 bytes is refused, and nothing is written.
    static int writeString(const char* s, std::FILE* f);
    /// fopen(), but a directory is refused, and the file is not handed on to programs that this
    /// process starts. To be closed with fclose(); null on failure, with the reason in errno.
    static std::FILE* openFile(const char* path, const char* mode);
    /// The index in @p buffer of the first occurrence of @p pattern at or after @p start, or -1, as
    /// for a null, an empty pattern, and a start outside of the buffer.
    /// Lengths and indexes are in bytes, indexes from 0. @p exact: false compares the same way;
    /// there is no folding of case. Time grows with the two lengths added, whatever the bytes.
    static int findPattern(const char* pattern, int patternLength, const char* buffer,
                           int bufferLength, bool exact, int start);

    // --- web content (src/tools/web_content.cpp) ---

    /// 1 when @p contentType contains "text/", "audio/", "video/" or "application/" in just that
    /// case, else 0.
    static int isContentMIME(const char* contentType);
    /// Whether a page was delivered: 1 when @p status begins with 200, 201, 202, 203 or 304, else
    /// 0.
    static int isValidPage(const char* status);
    /// Whether a request is where a visitor entered a site, 1 or 0.
    /// Programs pass the referring page as @p location, of which the first 1022 characters count,
    /// and the site's own name as @p excluded. 0 when isContentMIME(contentType) is 0; else 1 when
    /// location is empty, or does not contain excluded, in upper or lower case (an empty one is in
    /// all). Changes @p excluded to lower case, unless an empty location gave 1.
    static int isEntryPoint(char* excluded, const char* location, const char* contentType);
    /// 1 when @p s is empty or all white space, else 0. Bytes above 127 are none.
    static int isAllSpace(const char* s);

    // --- addresses, time and system (src/tools/system.cpp) ---
    // IPv4 addresses are numbers in host byte order: the first number of the dotted form on top.

    /// Writes the dotted form of the low 32 bits of @p address to @p dst, which has room for 16
    /// bytes.
    static void IPAddressString(unsigned long address, char* dst);
    /// Writes the host name of @p *address in lower case to @p dst, which has room for 256 bytes,
    /// or its dotted form when it has none. Asks the system's name service, which can take seconds.
    static void resolveIP(const unsigned long* address, char* dst);
    /// The difference a - b in microseconds, cut to 32 bits: beyond 2147 seconds it wraps around.
    static long timeSubtract(timeval* a, timeval* b);
    /// Sets @p tv to the current time, seconds since 1970; its microseconds become 0. @p zone is
    /// not used and may be null.
    static void gettimeofday(timeval* tv, void* zone);
    /// Suspends the calling thread for @p seconds, which no signal shortens; 0 and less only yield
    /// the processor.
    static void sleep(int seconds);
    /// Converts @p s in place with the locale's tolower(); in the default locale A to Z only.
    static void toLowerCase(char* s);
    /// Converts @p s in place with the locale's toupper(); in the default locale a to z only.
    static void toUpperCase(char* s);
    /// A copy of @p s, to be freed with free(); null when memory runs out.
    static char* strdup(const char* s);
    /// The next piece of @p s (null: of the last text) between runs of @p delimiters, or null.
    /// Writes NULs into the text, which the result points into. The position is kept per thread;
    /// @p state is not used and may be null.
    static char* strtok(char* s, const char* delimiters, char** state);
    /// Sorts the array of @p n `KP_Object*` at @p base with @p comparison, which gets pointers to
    /// entries, answers as qsort()'s does and must not contradict itself. Null compares the objects
    /// through KP_Compare (mode 0); a pair of which one does not know it gives -1, and the order is
    /// then any. Equal entries may change places.
    static void sort(void* base, int n, int (*comparison)(const void*, const void*));
    /// 1: every device name is taken as one that can be opened; nothing is opened to find out.
    /// Whether it captures, and may, shows when a program opens it.
    static int testPromiscEthernet(const char* device);
    /// Performs the control operation @p command, without an argument, on @p socket; returns 0.
    /// @p value and @p data are not used, nor is the outcome reported: hosts that need it call the
    /// system.
    static int strioctl(int socket, int command, int value, char* data);
    /// 1 when a TCP socket can be bound to @p port (its low 16 bits) on all local addresses, else 0
    /// with a log line that says why. No socket stays open. (src/wire/port_check.cpp)
    static int testSocket(int port);

    // --- installation directory and time text (src/tools/installation.cpp) ---

    /// The installation directory: the environment variable KP_INSTALLDIR as it is, or when there
    /// is none "../conf" as seen from the folder of the program's file.
    /// One buffer of 256 bytes for all: each call rewrites it, so keep a copy, and call it during
    /// start-up or from one thread at a time; KP_Log::init() and whatever opens configuration files
    /// call it too.
    ///
    /// A path that is no directory, or is longer than 255 characters, ends the process with status
    /// 1. The message goes to the log; while that is closed, as it is when KP_Log::init() asks,
    /// nobody is told. So look at KP_INSTALLDIR first (KP_Log::init()).
    static char* getInstallDir();
    /// Writes the local time, as in 2000Mar07-14:05, to @p dst, which has room for 60 bytes; an
    /// empty text when the system cannot tell.
    static void getTimeString1(char* dst);
};
