#include "installation.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "common/exit_report.h"
#include "common/general_file.h"
#include "common/installation_lock.h"
#include "common/settings.h"

namespace kp::configure {

namespace fs = std::filesystem;

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr mode_t kReadable = 0644;
constexpr mode_t kDirectory = 0750;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// A new file beside the one that it is to replace.
class Replacement {
public:
    Replacement(fs::path final, fs::path temporary, mode_t mode)
        : final_(std::move(final)), temporary_(std::move(temporary)), before_(temporary_) {
        before_ += ".before";
        fs::remove(temporary_);
        fs::remove(before_);
        descriptor_ = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (descriptor_ < 0) {
            fail("cannot write " + temporary_.string());
        }
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;
    ~Replacement() {
        ::close(descriptor_);
        std::error_code ignored;
        fs::remove(temporary_, ignored);
        fs::remove(before_, ignored);
    }

    void write(const std::string& text) {
        if (::write(descriptor_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            fail("cannot write " + temporary_.string());
        }
    }
    void sync() const {
        if (::fsync(descriptor_) != 0) {
            fail("cannot write " + temporary_.string());
        }
    }
    const fs::path& finalPath() const { return final_; }
    const fs::path& temporaryPath() const { return temporary_; }

    // The file of before keeps a second name until all is done.
    void commit() {
        std::error_code error;
        fs::create_hard_link(final_, before_, error);
        if (error && error != std::errc::no_such_file_or_directory) {
            fs::copy_file(final_, before_);  // where a file cannot have two names
        }
        fs::rename(temporary_, final_);
        isCommitted_ = true;
    }
    void undo() noexcept {
        std::error_code error;
        if (!isCommitted_) {
            return;
        }
        fs::rename(before_, final_, error);
        if (error == std::errc::no_such_file_or_directory) {
            fs::remove(final_, error);  // there was none before
        }
    }

private:
    fs::path final_;
    fs::path temporary_;
    fs::path before_;
    int descriptor_ = -1;
    bool isCommitted_ = false;
};

// Keeps signals away, so that Ctrl-C finds all files new or all old.
class SignalsWait {
public:
    SignalsWait() {
        sigset_t all;
        ::sigfillset(&all);
        ::sigprocmask(SIG_SETMASK, &all, &before_);
    }
    SignalsWait(const SignalsWait&) = delete;
    SignalsWait& operator=(const SignalsWait&) = delete;
    ~SignalsWait() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_ = {};
};

std::string installationText(const Plan& plan, const KP_Config& config) {
    std::ostringstream text;
    text << "# Installation of " << plan.name << "\n";
    text << "port " << plan.port << "\n";
    if (!plan.device.empty()) {
        text << "device " << plan.device << "\n";
    }
    if (!plan.databasePath.empty()) {
        text << "dbpath " << plan.databasePath << "\n";
    }
    for (int i = 0; i < config.numOfIPRanges; ++i) {
        char low[16];
        char high[16];
        KP_Tools::IPAddressString(config.ipRanges[i].min, low);
        KP_Tools::IPAddressString(config.ipRanges[i].max, high);
        text << "range " << low << " " << high << "\n";
    }
    return text.str();
}

// What is new is for its owner, and for its group to read, whatever the umask.
void makeDirectory(const fs::path& path) {
    std::error_code error;
    std::vector<fs::path> missing;
    for (fs::path each = path; !each.empty() && !fs::exists(each, error); each = each.parent_path())
        missing.push_back(each);
    error.clear();
    for (auto each = missing.rbegin(); each != missing.rend() && !error; ++each) {
        const bool isMade = ::mkdir(each->c_str(), kDirectory) == 0;
        if (!isMade && errno == EEXIST)
            continue;  // somebody else makes the same installation
        if (!isMade || ::chmod(each->c_str(), kDirectory) != 0)
            error.assign(errno, std::generic_category());
    }
    if (!fs::is_directory(path)) {
        throw std::system_error(error ? error : std::make_error_code(std::errc::not_a_directory),
                                "cannot make the directory " + path.string());
    }
}

// The library writes a general configuration file under the configuration's name; a name of its own
// makes that the temporary file. Writing ends without a word where the disk is full.
void saveAs(KP_Config& config, const std::string& temporaryName, const Replacement& file) {
    config.setName(temporaryName.c_str());
    {
        const programs::ExitReport report("kp-configure: cannot write " +
                                          file.temporaryPath().string());
        config.save();
    }
    file.sync();
    const std::string fault = programs::generalFileFault(file.temporaryPath().string());
    if (!fault.empty()) {
        throw std::runtime_error("cannot write " + file.finalPath().string() + ": " + fault);
    }
}

// All files are replaced, or none.
void commit(std::initializer_list<Replacement*> files, const programs::InstallationLock& lock) {
    const SignalsWait wait;
    try {
        for (Replacement* file : files) {
            file->commit();
        }
        lock.sync();
    } catch (...) {
        for (Replacement* file : files) {
            file->undo();
        }
        throw;
    }
}

}  // namespace

std::vector<std::string> writeInstallation(const Plan& plan, KP_Config& config) {
    const fs::path directory(plan.directory);
    const fs::path admin = directory / "admin";
    const std::string paths[] = {(admin / (plan.name + "_prvt.cfg")).string(),
                                 (admin / (plan.name + "_prvtDef.cfg")).string(),
                                 (admin / (plan.name + "Install.cfg")).string()};
    makeDirectory(admin);
    const programs::InstallationLock lock(admin.string(), programs::InstallationLock::Kind::kAlone);
    for (const std::string& path : paths) {
        if (fs::exists(path) && !plan.force) {
            throw programs::SettingError(path + " exists already; --force overwrites it");
        }
    }
    makeDirectory(directory / "logs");
    makeDirectory(plan.databasePath.empty() ? directory / "db" : fs::path(plan.databasePath));
    if (::setenv("KP_INSTALLDIR", plan.directory.c_str(), 1) != 0) {
        fail("cannot set KP_INSTALLDIR");
    }

    Replacement general(paths[0], admin / ".new_prvt.cfg", kOwnerOnly);
    Replacement defaults(paths[1], admin / ".newDef_prvt.cfg", kOwnerOnly);
    Replacement keyed(paths[2], admin / ".newInstall.cfg", kReadable);
    saveAs(config, ".new", general);
    saveAs(config, ".newDef", defaults);
    keyed.write(installationText(plan, config));
    keyed.sync();
    commit({&general, &defaults, &keyed}, lock);
    return {std::begin(paths), std::end(paths)};
}

}  // namespace kp::configure
