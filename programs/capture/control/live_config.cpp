#include "control/live_config.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "common/general_file.h"
#include "control/config_changes.h"
#include "control/installation_file.h"
#include "control/log_line.h"
#include "source/packet_source.h"

namespace kp::capture {

namespace {

namespace fs = std::filesystem;

constexpr unsigned kDefaultPort = 8189;

// A text of the general file stands on a line of its own.
std::string textFault(const char* what, const char* text, bool mayBeEmpty) {
    if (text[0] == '\0')
        return mayBeEmpty ? "" : std::string(what) + " must not be empty";
    for (const char* c = text; *c != '\0'; ++c) {
        if (std::iscntrl(static_cast<unsigned char>(*c)) != 0)
            return std::string(what) + " contains a control character";
    }
    return "";
}

// An open directory. What was renamed in it is there after a loss of power once it is synced.
class Directory {
public:
    explicit Directory(const fs::path& path)
        : descriptor_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    ~Directory() {
        if (isOpen())
            ::close(descriptor_);
    }
    bool isOpen() const { return descriptor_ >= 0; }
    void sync() const { ::fsync(descriptor_); }

private:
    int descriptor_;
};

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// Writes the configuration beside the file that it is to replace, where only its owner can read it:
// it holds the password. Returns why it could not. Not by save(), which opens its file by itself
// and ends the process when another thread has taken the last descriptor.
std::string writeBeside(const KP_ConfigAdmin& config, const fs::path& path) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const int descriptor = ::open(path.c_str(), kFlags, 0600);
    const std::unique_ptr<std::FILE, CloseFile> file(descriptor < 0 ? nullptr
                                                                    : ::fdopen(descriptor, "w"));
    if (!file) {
        const std::string reason = std::strerror(errno);
        if (descriptor >= 0)
            ::close(descriptor);
        return "the configuration file cannot be written: " + reason;
    }
    KP_ConfigAdmin copy = config;
    errno = 0;
    if (copy.saveTo(file.get()) != 0 || std::fflush(file.get()) != 0 || ::fsync(descriptor) != 0)
        return std::string("the configuration file could not be written completely: ") +
               std::strerror(errno);
    const std::string wrong = programs::generalFileFault(path.string());
    return wrong.empty()
               ? ""
               : "the configuration file could not be written completely; is the disk full? " +
                     wrong;
}

// Keeps the file under another name. A second name costs no space; not every file system has any.
std::string keep(const fs::path& file, const fs::path& kept) {
    const fs::path part = kept.string() + ".part";
    std::error_code error;
    std::error_code ignored;
    fs::remove(part, ignored);
    fs::create_hard_link(file, part, error);
    if (error) {
        error.clear();
        fs::copy_file(file, part, error);  // with the permissions: it holds the password
    }
    if (!error)
        fs::rename(part, kept, error);
    fs::remove(part, ignored);  // also where both names were of one file, which rename() leaves
    return error ? "the previous configuration file cannot be kept: " + error.message() : "";
}

}  // namespace

std::string generalFile(const std::string& name) {
    return std::string(KP_Tools::getInstallDir()) + "/admin/" + name + "_prvt.cfg";
}

std::string keptFile(const std::string& name) {
    return generalFile(name) + ".last";
}

std::string installationFile(const std::string& name) {
    return std::string(KP_Tools::getInstallDir()) + "/admin/" + name + "Install.cfg";
}

LiveConfig::LiveConfig(KP_ConfigAdmin& config, std::function<void()> changed)
    : config_(config),
      changed_(std::move(changed)),
      linkType_(PacketSource::kEthernet),
      current_(std::make_shared<KP_ConfigAdmin>(config)) {}

std::shared_ptr<KP_ConfigAdmin> LiveConfig::current() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return current_;
}

std::string LiveConfig::refusal(const KP_ConfigAdmin& wanted) const {
    const std::string installFile = std::string(wanted.name) + "Install.cfg";
    if (std::strcmp(wanted.device, config_.device) != 0)
        return "the device is set in " + installFile + " and read at the start";
    if (wanted.connectionPort != config_.connectionPort)
        return "the port is set in " + installFile + " and read at the start";
    if (wanted.configVersion != config_.configVersion)
        return "unknown version of the configuration";
    if (wanted.daysOfDataToKeep == 0 || wanted.daysOfDataToKeep > 0x7FFFFFFF)
        return "the days must be from 1 to 2147483647";
    for (const std::string& fault : {textFault("the password", wanted.password, false),
                                     textFault("the filter", wanted.filterProgram, true)}) {
        if (!fault.empty())
            return fault;
    }
    if (std::strpbrk(wanted.password, "{}") != nullptr)
        return "the password contains a brace";
    for (int i = 0; i < wanted.numOfMimeTypes; ++i) {
        const KP_Config::MimeType& mapping = wanted.mimeTypes[i];
        std::string fault = textFault("a MIME type", mapping.type, false);
        if (std::strpbrk(mapping.type, " \t") != nullptr)
            fault = "a MIME type contains a blank";
        for (int p = 0; p < mapping.numOfPostfixes && fault.empty(); ++p) {
            fault = textFault("an extension", mapping.postfixes[p], false);
            if (std::strchr(mapping.postfixes[p], ' ') != nullptr)
                fault = "an extension contains a blank";
        }
        if (!fault.empty())
            return fault;
    }
    return PacketSource::filterFault(wanted.filterProgram, linkType_);
}

std::string LiveConfig::change(const KP_ConfigAdmin& wanted, const std::string& client) {
    const std::lock_guard<std::mutex> one(changing_);
    std::string reason = refusal(wanted);
    if (!reason.empty())
        return reason;
    auto next = std::make_shared<KP_ConfigAdmin>(wanted);
    // They do not travel, and may have been read again since the client's copy was made.
    next->numOfIPRanges = config_.numOfIPRanges;
    std::copy(std::begin(config_.ipRanges), std::end(config_.ipRanges), next->ipRanges);
    for (int i = 0; i < next->numOfNets; ++i)
        next->netAddress[i] = next->exampleAddress[i] & next->maskAddress[i];

    const fs::path file = generalFile(config_.name);
    const fs::path kept = keptFile(config_.name);
    const fs::path beside = generalFile("." + std::string(config_.name) + ".new");
    const Directory directory(file.parent_path());
    if (!directory.isOpen())
        return std::string("the configuration file cannot be replaced: ") + std::strerror(errno);
    std::error_code error;
    fs::remove(beside, error);
    std::string fault = writeBeside(*next, beside);
    if (fault.empty() && programs::generalFileFault(file.string()).empty())
        fault = keep(file, kept);
    if (fault.empty()) {
        fs::rename(beside, file, error);
        if (error)
            fault = "the configuration file cannot be replaced: " + error.message();
        else
            directory.sync();
    }
    if (!fault.empty()) {
        fs::remove(beside, error);
        return fault;
    }
    const std::string changes = changesBetween(config_, *next);
    putInForce(next);
    logLine("a client at " + client + " has changed the configuration: " + changes);
    return "";
}

void LiveConfig::putInForce(const std::shared_ptr<KP_ConfigAdmin>& next) {
    config_ = *next;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        current_ = next;
    }
    changed_();
}

// Returns what is to be told. Of the other keys a changed one cannot be put in force while the
// engine runs; whoever changed it shall not believe so.
std::string LiveConfig::takeRanges() {
    const InstallationFile file = readInstallationFile(installationFile(config_.name));
    auto next = std::make_shared<KP_ConfigAdmin>(config_);
    next->numOfIPRanges = static_cast<std::uint16_t>(file.ranges.size());
    std::copy(file.ranges.begin(), file.ranges.end(), next->ipRanges);
    const std::string changes = changesBetween(config_, *next);
    putInForce(next);
    std::string text = "the installation file was read again: " + changes;
    if (file.ranges.empty())
        text += "; no address ranges are configured, nothing is watched";
    const std::string directory = file.databaseDir == "default"
                                      ? KP_Tools::getInstallDir() + std::string("/db")
                                      : file.databaseDir;
    const std::string port = file.port == "default" ? std::to_string(kDefaultPort) : file.port;
    const std::string device = file.device == "default" ? "" : file.device;
    if (device != config_.device || directory != config_.databaseDir ||
        std::stoul(port) != config_.connectionPort)
        text += "; device, port and dbpath are taken at the next start";
    return text;
}

void LiveConfig::reload() {
    std::string text;
    {
        const std::lock_guard<std::mutex> one(changing_);
        try {
            text = takeRanges();
        } catch (const std::exception& error) {
            text = std::string("the installation file is refused, nothing has changed: ") +
                   error.what();
        } catch (const KP_NoMoreMemoryException&) {
            text = "the installation file is refused, nothing has changed: out of memory";
        }
    }
    logLine(text);
    const std::lock_guard<std::mutex> lock(mutex_);
    reloaded_ = text;
}

std::string LiveConfig::reloaded() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return reloaded_;
}

}  // namespace kp::capture
