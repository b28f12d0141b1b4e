#include "live_config.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "packet_source.h"

namespace kp::capture {

namespace {

namespace fs = std::filesystem;

// A text of the general file stands on a line of its own, where blanks at its front are lost.
std::string textFault(const char* what, const char* text, bool mayBeEmpty) {
    if (text[0] == '\0')
        return mayBeEmpty ? "" : std::string(what) + " must not be empty";
    for (const char* c = text; *c != '\0'; ++c) {
        if (std::iscntrl(static_cast<unsigned char>(*c)) != 0)
            return std::string(what) + " contains a control character";
    }
    return "";
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// The file ends with the block of the networks; one that does not was cut off.
bool isWhole(const fs::path& path) {
    const std::string content = contentOf(path);
    const std::size_t last = content.rfind("maskAddress{");
    return last != std::string::npos && content.find('}', last) != std::string::npos;
}

}  // namespace

std::string generalFile(const std::string& name) {
    return std::string(KP_Tools::getInstallDir()) + "/admin/" + name + "_prvt.cfg";
}

std::string keptFile(const std::string& name) {
    return generalFile(name) + ".last";
}

LiveConfig::LiveConfig(KP_ConfigAdmin& config, KP_MessageHandler& engine)
    : config_(config), engine_(engine), current_(std::make_shared<KP_ConfigAdmin>(config)) {}

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
    if (wanted.daysOfDataToKeep == 0 || wanted.daysOfDataToKeep > 36500)
        return "days must be 1 to 36500";
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
    return PacketSource::filterFault(wanted.filterProgram);
}

std::string LiveConfig::change(const KP_ConfigAdmin& wanted) {
    const std::lock_guard<std::mutex> one(changing_);
    const std::string reason = refusal(wanted);
    if (!reason.empty())
        return reason;
    auto next = std::make_shared<KP_ConfigAdmin>(wanted);
    for (int i = 0; i < next->numOfNets; ++i)
        next->netAddress[i] = next->exampleAddress[i] & next->maskAddress[i];

    // save() rewrites the file in place and ends the process when it cannot open it.
    const fs::path file = generalFile(config_.name);
    const fs::path kept = keptFile(config_.name);
    std::error_code error;
    if (!std::ofstream(file, std::ios::app))
        return "the configuration file cannot be written: " + std::string(std::strerror(errno));
    const fs::path part = kept.string() + ".part";
    fs::remove(part, error);
    fs::copy_file(file, part, error);  // with the permissions: it holds the password
    if (!error)
        fs::rename(part, kept, error);
    if (error)
        return "the last configuration file cannot be kept: " + error.message();
    next->save();
    if (!isWhole(file)) {
        fs::copy_file(kept, file, fs::copy_options::overwrite_existing, error);
        return "the configuration file could not be written to its end; is the disk full?";
    }
    config_ = *next;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        current_ = next;
    }
    KP_Message message(kConfigurationChanged, nullptr);
    engine_.sendMessage(&message);
    KP_Log::ret("kp-capture: the front end has changed the configuration");
    return "";
}

}  // namespace kp::capture
