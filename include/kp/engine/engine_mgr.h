// libkp: the start of an engine, from its command line to its log, signals and configurations.
#pragma once

#include <cstdint>

#include "kp/config/config_admin.h"
#include "kp/config/config_def.h"
#include "kp/core/exit_handler.h"
#include "kp/engine/message_handler.h"
#include "kp/text/named_string_list.h"
#include "kp/threads/event.h"
#include "kp/threads/thread_list.h"

/// Turns a program into an engine: opens its log, logs its signals, and holds what it runs with.
///
/// It is the list of the program's threads (it owns them), an event to wait on, and the root of its
/// message handlers (it owns none). The log is the process's: one engine manager at a time.
///
/// Command line: `-v` sets the log's debug level to 1, `-h` and `-?` print the usage to standard
/// output and go on; `-i` and `-r` have no effect. Everything else is left to the program, also two
/// letters in one argument.
///
/// Log name: of the first 127 characters of argv[0] those before the first dot, and of these what
/// follows the last backslash; "program" without an argv. Slashes stay: "./engine" writes to
/// `logs/.log`, and "bin/engine" ends the process unless there is a directory `logs/bin`. So hand
/// over a bare name in place of what the system gives.
///
/// Signals 15 (SIGTERM) and 2 (SIGINT) write a line to the log and do nothing else, every time they
/// come, whatever the program does at that moment: the handlers take no lock and no memory. A
/// program that wants to end by them installs its own handlers afterwards, and may call the
/// replaced ones from there. These stay installed when the manager ends, and write nothing then.
///
/// Threads: constructor and destructor run while no other thread writes to the log.
class KP_API KP_EngineMgr : public virtual KP_ThreadList,
                            public virtual KP_Event,
                            public virtual KP_MessageHandler {
public:
    /// @p argv may be null when @p argc is 0 or 1. @p optionList may be null, is not owned, and is
    /// looked at here only: if its entry "Debug" reads as the number 0, as every text that is no
    /// number does, the debug level is 1, whatever `-v` says. @p exitHandler goes to the log.
    ///
    /// When the log cannot be opened KP_Log::init() ends the process with status 1, and nobody is
    /// told why: look before whether KP_INSTALLDIR names a directory, and whether that has a
    /// directory `logs` in which the program can write.
    ///
    /// The configurations are not read here: give them a name and call their init().
    KP_EngineMgr(int argc, char** argv, KP_NamedStringList* optionList = nullptr,
                 KP_ExitHandler* exitHandler = nullptr);
    /// There is one log, and threads have one owner.
    KP_EngineMgr(const KP_EngineMgr&) = delete;
    KP_EngineMgr& operator=(const KP_EngineMgr&) = delete;
    /// Closes the log. Stop and join the threads before: their work may write to the log.
    ~KP_EngineMgr() override;

    /// A hook for derived classes, which the library does not call; returns 0.
    virtual int input();
    /// Seconds since 1970 at construction, in 32 bits: they wrap in January 2038.
    virtual long getStartTime();
    /// The configuration of the installation: a KP_ConfigAdmin, to be cast to one. Owned by this
    /// object.
    virtual KP_Config* getConfigAdmin();
    /// The default configuration: a KP_ConfigDef. Owned by this object.
    virtual KP_Config* getConfig();

    /// Does nothing and returns 0: the constructor has done it all.
    int init() override;

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BF76; }
    /// A manager without a command line, whose log is "program"; null when memory runs out.
    static KP_EngineMgr* create();
    /// Says "Quitting capture engine." on standard output and ends the process with status 0
    /// through std::exit(). The argument is not used. Its type is that of a signal handler, but it
    /// must not be one: it writes through stdio.
    [[noreturn]] static void cleanup(int);

protected:
    /// 1 after `-i`, else 0; nothing in the library looks at it.
    std::int32_t interactive_ = 0;

private:
    std::int32_t startTime_ = 0;
    KP_ConfigAdmin configAdmin_;
    KP_ConfigDef config_;
    KP_NamedStringList* optionList_;
};
