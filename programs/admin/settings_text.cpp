#include "settings_text.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "common/password.h"
#include "common/settings.h"

namespace kp::admin {

namespace {

using Values = std::vector<std::string>;

std::uint32_t number(const std::string& key, const std::string& text) {
    std::uint32_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end)
        throw programs::SettingError(key + "=" + text + " is not a number");
    return value;
}

void setDevice(KP_Config& config, const std::string& device) {
    programs::checkText("the device", device, sizeof config.device - 1);
    std::memset(config.device, 0, sizeof config.device);
    std::memcpy(config.device, device.data(), device.size());
}

struct Key {
    const char* name;
    bool isList;
    void (*apply)(KP_Config& config, const Values& values);
};

const Key kKeys[] = {
    {"device", false, [](KP_Config& config, const Values& v) { setDevice(config, v[0]); }},
    {"port", false,
     [](KP_Config& config, const Values& v) { config.connectionPort = number("port", v[0]); }},
    {"filter", false,
     [](KP_Config& config, const Values& v) { programs::setFilter(config, v[0]); }},
    {"days", false,
     [](KP_Config& config, const Values& v) { programs::setDays(config, number("days", v[0])); }},
    {"mime", true, [](KP_Config& config, const Values& v) { programs::setMimeTypes(config, v); }},
    {"network", true, [](KP_Config& config, const Values& v) { programs::setNetworks(config, v); }},
    {"password-file", false,
     [](KP_Config& config, const Values& v) {
         programs::setPassword(config, programs::passwordFromFile(v[0]));
     }},
};

const Key& findKey(const std::string& name) {
    for (const Key& key : kKeys) {
        if (name == key.name)
            return key;
    }
    throw UsageError("there is no key '" + name + "'");
}

std::string dotted(std::uint32_t address) {
    char text[16];
    KP_Tools::IPAddressString(address, text);
    return text;
}

}  // namespace

Changes::Changes(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        const std::size_t separator = text.find('=');
        if (separator == std::string::npos)
            throw UsageError("'" + text + "' is not KEY=VALUE");
        const std::string name = text.substr(0, separator);
        const std::string value = text.substr(separator + 1);
        if (name == "range" || name == "name" || name == "dbpath" || name == "dir")
            throw UsageError(name + " is set by kp-configure");
        const Key& key = findKey(name);
        auto change = std::find_if(changes_.begin(), changes_.end(),
                                   [&](const Change& each) { return each.key == name; });
        if (change == changes_.end())
            change = changes_.insert(change, Change{name, {}});
        else if (!key.isList)
            throw UsageError(name + " is given twice");
        if (!key.isList || !value.empty())
            change->values.push_back(value);
    }
}

void Changes::apply(KP_Config& config) const {
    for (const Change& change : changes_)
        findKey(change.key).apply(config, change.values);
}

bool Changes::has(const std::string& key) const {
    return std::any_of(changes_.begin(), changes_.end(),
                       [&](const Change& change) { return change.key == key; });
}

std::vector<std::string> describe(const KP_Config& config) {
    std::vector<std::string> lines = {
        "device=" + std::string(config.device),
        "port=" + std::to_string(config.connectionPort),
        "filter=" + std::string(config.filterProgram),
        "days=" + std::to_string(config.daysOfDataToKeep),
    };
    for (int i = 0; i < config.numOfMimeTypes; ++i) {
        const KP_Config::MimeType& mime = config.mimeTypes[i];
        std::string line = "mime=" + std::string(mime.type) + "=";
        for (int p = 0; p < mime.numOfPostfixes; ++p)
            line += (p != 0 ? "," : "") + std::string(mime.postfixes[p]);
        lines.push_back(line);
    }
    // Networks that are kept and not applied do not keep anybody out.
    for (int i = 0; i < (config.applyNetAddress != 0 ? config.numOfNets : 0); ++i)
        lines.push_back("network=" + dotted(config.exampleAddress[i]) + "/" +
                        dotted(config.maskAddress[i]));
    return lines;
}

}  // namespace kp::admin
