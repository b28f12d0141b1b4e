#include "installation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <vector>

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

// A new file that replaces the one at its final path only when all is well.
class Replacement {
public:
    Replacement(fs::path final, fs::path temporary, mode_t mode)
        : final_(std::move(final)), temporary_(std::move(temporary)) {
        fs::remove(temporary_);
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
    }

    void write(const std::string& text) {
        if (::write(descriptor_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            fail("cannot write " + temporary_.string());
        }
    }
    // What was written is on the disk; false when it is not, or when nothing was written.
    bool complete(std::uintmax_t atLeast) const {
        return ::fsync(descriptor_) == 0 && fs::file_size(temporary_) >= atLeast;
    }
    void commit() { fs::rename(temporary_, final_); }
    const fs::path& finalPath() const { return final_; }

private:
    fs::path final_;
    fs::path temporary_;
    int descriptor_ = -1;
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
        if (::mkdir(each->c_str(), kDirectory) != 0 || ::chmod(each->c_str(), kDirectory) != 0)
            error.assign(errno, std::generic_category());
    }
    if (!fs::is_directory(path)) {
        throw std::system_error(error ? error : std::make_error_code(std::errc::not_a_directory),
                                "cannot make the directory " + path.string());
    }
}

// How many bytes a general configuration file has.
std::uintmax_t sizeOf(KP_Config& config) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const memory = ::open_memstream(&text, &size);
    if (memory == nullptr) {
        fail("cannot write the configuration");
    }
    config.saveTo(memory);
    std::fclose(memory);
    std::free(text);
    return size;
}

// The library writes a general configuration file under the configuration's name; a name of its own
// makes that the temporary file. It does not notice a disk that is full.
void saveAs(KP_Config& config, const std::string& temporaryName, const Replacement& file) {
    config.setName(temporaryName.c_str());
    errno = 0;
    config.save();
    if (!file.complete(sizeOf(config))) {
        errno = errno != 0 ? errno : ENOSPC;
        fail("cannot write " + file.finalPath().string());
    }
}

}  // namespace

std::vector<std::string> writeInstallation(const Plan& plan, KP_Config& config) {
    const fs::path directory(plan.directory);
    const fs::path admin = directory / "admin";
    const std::string paths[] = {(admin / (plan.name + "_prvt.cfg")).string(),
                                 (admin / (plan.name + "_prvtDef.cfg")).string(),
                                 (admin / (plan.name + "Install.cfg")).string()};
    for (const std::string& path : paths) {
        if (fs::exists(path) && !plan.force) {
            throw programs::SettingError(path + " exists already; --force overwrites it");
        }
    }
    makeDirectory(admin);
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
    if (!keyed.complete(1)) {
        fail("cannot write " + paths[2]);
    }
    general.commit();
    defaults.commit();
    keyed.commit();
    return {std::begin(paths), std::end(paths)};
}

}  // namespace kp::configure
