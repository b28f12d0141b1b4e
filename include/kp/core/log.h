// libkp: the one log of a process.
#pragma once

#include <cstdio>

#include "kp/export.h"

class KP_ExitHandler;

/// The log of the process: a text file that every part of the library reports through.
///
/// The file is `logs/<name>.log` below the installation directory (KP_Tools::getInstallDir()). It
/// is opened once at start-up, appended to, and flushed after every write, so it is complete
/// whenever somebody looks. While the log is closed, what would go into it is dropped.
///
/// Formats are printf's. Except for ret(), nothing is added to the caller's text: end lines with
/// "\n" yourself.
///
/// Threads: any thread may write at any time, but no signal handler; a write reaches the file in
/// one piece (a ret() line of more than about 1000 characters can be torn). No thread may write
/// while init() or reset() runs.
class KP_API KP_Log {
public:
    KP_Log() = delete;

    /// Closes the log if it is open and opens `logs/<name>.log` below the installation directory.
    /// @p name: without slashes, since what stands before one has to be a directory in `logs`; null
    /// is the empty name. @p level: the debug level, 0 for no debug output. @p handler: kept, not
    /// owned, may be null.
    ///
    /// Ends the process with status 1 when the directory or the file cannot be opened, or when the
    /// path is longer than 1023 characters. Nothing is written anywhere then: there is no log yet
    /// that could say so. So look before whether KP_INSTALLDIR names a directory, and whether that
    /// has a directory `logs` in which the program can write.
    static void init(const char* name, int level, KP_ExitHandler* handler);
    /// Opens the file anew under the name that it was opened with, after somebody has moved it away
    /// to begin a new one. Lines go into the old file or into the new one, none is lost or torn.
    /// Any thread may write meanwhile; one thread at a time calls this, and none during init() or
    /// reset(). Returns 0; -1 when no log is open or the file cannot be opened (errno says why):
    /// then lines go on going into the old one.
    static int reopen();
    /// Closes the log and forgets name, level and handler; returns 0.
    static int reset();
    /// The log file while it is open, else standard output. Not to be closed by the caller.
    static std::FILE* getFD();
    /// "(errno = N)" for a non-zero errno, else "". One buffer for all: each call rewrites it, so
    /// one thread at a time calls it.
    static char* sys_err_str();
    /// Writes the text to the log and ends the process with status 1 through std::exit(), so exit
    /// handlers and destructors of static objects run.
    [[noreturn]] static void quit(const char* format, ...) KP_PRINTF(1, 2);
    /// Writes to @p file, or to the log when it is null, if the debug level is at least @p level.
    /// The debug level is 0 while the log is closed.
    static void debugLevel(std::FILE* file, int level, const char* format, ...) KP_PRINTF(3, 4);
    /// Writes to the log if the debug level is not 0.
    static void debug(const char* format, ...) KP_PRINTF(1, 2);
    /// Writes to the log.
    static void log(const char* format, ...) KP_PRINTF(1, 2);
    /// Writes to @p file, or to the log when it is null.
    static void flog(std::FILE* file, const char* format, ...) KP_PRINTF(2, 3);
    /// Writes one line to the log: local time (KP_Tools::getTimeString1()), " - ", the text and a
    /// line feed.
    static void ret(const char* format, ...) KP_PRINTF(1, 2);
};
