#include "control/installation.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "common/general_file.h"
#include "common/installation_lock.h"
#include "common/printable.h"
#include "control/live_config.h"
#include "control/log_line.h"

namespace kp::capture {

namespace {

enum class Stage { kDirectory, kLog, kConfiguration, kRunning, kOver };

// How far this run has come, for the report of an exit in its middle. Global, because exit handlers get no
// argument.
struct StartUp {
    Stage stage = Stage::kDirectory;
    std::string name;
    std::string logPath;
    std::streamoff logBefore = 0;  // size of the log when this run began to write
};

StartUp& startUp() {
    static StartUp state;
    return state;
}

bool isRegularFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool isDirectory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// A line of the log without the time in front of it.
std::string withoutTime(const std::string& line) {
    constexpr std::size_t kTimeSize = 15;  // 2000Mar07-14:05
    const bool hasTime = line.size() > kTimeSize + 3 && line.compare(kTimeSize, 3, " - ") == 0;
    return hasTime ? line.substr(kTimeSize + 3) : line;
}

// What this run wrote to the log, in one line.
std::string writtenToLog() {
    std::ifstream log(startUp().logPath);
    log.seekg(startUp().logBefore);
    std::string text;
    std::string line;
    while (std::getline(log, line)) {
        line = withoutTime(line);
        const std::size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos)
            continue;
        if (!text.empty())
            text += ' ';
        text += line.substr(first);
    }
    return text;
}

// The last line of the log that this run has written.
std::string lastWords() {
    constexpr std::streamoff kMost = 1024;
    std::ifstream log(startUp().logPath, std::ios::binary | std::ios::ate);
    log.seekg(std::max(std::streamoff{log.tellg()} - kMost, startUp().logBefore));
    std::string last;
    for (std::string line; std::getline(log, line);) {
        if (!line.empty())
            last = withoutTime(line);
    }
    return last;
}

std::string hintOfKeptFile(const std::string& name) {
    const std::string kept = keptFile(name);
    return isRegularFile(kept) ? "; the last good configuration is kept as " + kept : "";
}

void reportExit() {
    const StartUp& state = startUp();
    std::string reason;
    switch (state.stage) {
        case Stage::kOver:  // ended by ourselves, or the reason was told otherwise
            return;
        case Stage::kRunning:
            std::fprintf(stderr, "kp-capture: ended: %s (log: %s)\n",
                         programs::printable(lastWords()).c_str(),
                         programs::printable(state.logPath).c_str());
            return;
        case Stage::kDirectory:
            reason = "no installation directory; give --dir DIR or set KP_INSTALLDIR";
            break;
        case Stage::kLog:
            reason = "cannot open the log " + state.logPath;
            break;
        case Stage::kConfiguration: {
            endLogLine();  // the library's last words do not
            reason = writtenToLog();
            const bool isGeneralFile = reason.find("readGeneralConfigFile") != std::string::npos ||
                                       reason.find(generalFile(state.name)) != std::string::npos;
            reason += " (log: " + state.logPath + ")";
            if (isGeneralFile)
                reason += hintOfKeptFile(state.name);
            break;
        }
    }
    std::fprintf(stderr, "kp-capture: could not start: %s\n", programs::printable(reason).c_str());
}

void checkDirectory(const std::string& directory) {
    constexpr std::size_t kLongest = 255;  // what the library can keep
    if (directory.size() > kLongest) {
        throw InstallationError(directory + ": the path of an installation has at most " +
                                std::to_string(kLongest) + " characters");
    }
    if (!isDirectory(directory))
        throw InstallationError(directory + ": no such directory");
    for (const char* part : {"/logs", "/admin"}) {
        if (!isDirectory(directory + part)) {
            throw InstallationError(directory + " is not an installation: it has no directory \"" +
                                    (part + 1) + "\"; kp-configure makes one");
        }
    }
}

// A file that the library would read from the wrong lines, without noticing, ends the start. What it
// does notice, and files that it cannot open, are left to its own words.
void checkGeneralFile(const std::string& path, const std::string& hint) {
    if (access(path.c_str(), R_OK) != 0)
        return;
    const std::string fault = programs::generalFileFault(path);
    if (fault.empty())
        return;
    KP_Log::ret("kp-capture: could not start: %s", programs::printable(fault).c_str());
    throw InstallationError("could not start: " + fault + hint);
}

// Reads both configurations while nobody writes them.
void readConfigurations(KP_EngineMgr& engine, const std::string& admin, const std::string& name) {
    using programs::InstallationLock;
    const InstallationLock lock(admin, InstallationLock::Kind::kShared);
    checkGeneralFile(generalFile(name), hintOfKeptFile(name));
    checkGeneralFile(admin + "/" + name + "_prvtDef.cfg", "");
    for (KP_Config* config : {engine.getConfigAdmin(), engine.getConfig()}) {
        config->setName(name.c_str());
        config->init();
        // The file may have been changed in between by somebody who knows no lock.
        if (config->password[0] == '\0')
            throw InstallationError("could not start: the password is empty");
    }
}

}  // namespace

KP_ConfigAdmin& configurationOf(KP_EngineMgr& engine) {
    return dynamic_cast<KP_ConfigAdmin&>(*engine.getConfigAdmin());
}

EnginePointer startInstallation(const std::string& directory, const std::string& name,
                                bool isVerbose) {
    StartUp& state = startUp();
    if (!directory.empty()) {
        checkDirectory(directory);
        if (setenv("KP_INSTALLDIR", directory.c_str(), 1) != 0) {
            throw InstallationError("cannot set KP_INSTALLDIR");
        }
    }
    std::atexit(reportExit);
    const std::string found = KP_Tools::getInstallDir();
    state.stage = Stage::kOver;
    checkDirectory(found);

    state.stage = Stage::kLog;
    state.name = name;
    state.logPath = found + "/logs/" + name + ".log";
    struct stat status {};
    if (stat(state.logPath.c_str(), &status) == 0)
        state.logBefore = status.st_size;
    std::string program = name;
    char verbose[] = "-v";
    char* arguments[] = {program.data(), verbose, nullptr};
    EnginePointer engine(new KP_EngineMgr(isVerbose ? 2 : 1, arguments, nullptr, nullptr));
    if (!engine)
        throw InstallationError("out of memory");
    endLogLine();  // of an engine that was killed, or of another program of this name

    state.stage = Stage::kConfiguration;
    try {
        readConfigurations(*engine, found + "/admin", name);
    } catch (...) {
        state.stage = Stage::kOver;  // Its reason is told by whoever catches it.
        throw;
    }
    state.stage = Stage::kRunning;
    return engine;
}

void installationEnds() {
    startUp().stage = Stage::kOver;
}

}  // namespace kp::capture
