#include "plan.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cctype>
#include <new>

#include "common/settings.h"

namespace kp::configure {

namespace {

constexpr std::size_t kLongestDirectory = 255;
constexpr std::size_t kLongestKeyedValue = 127;
constexpr std::uint32_t kLowestPort = 255;
constexpr std::uint32_t kHighestPort = 65535;
constexpr int kSnapLength = 65535;

using programs::checkText;

[[noreturn]] void refuse(const std::string& why) {
    throw programs::SettingError(why);
}

// The installation file drops blanks within a value and separators before it.
void checkKeyedValue(const std::string& what, const std::string& text) {
    checkText(what, text, kLongestKeyedValue);
    if (text.find(' ') != std::string::npos ||
        (!text.empty() && (text[0] == ':' || text[0] == '='))) {
        refuse(what + " '" + text + "' contains a blank or begins with ':' or '='");
    }
}

void checkFilter(const std::string& filter) {
    pcap_t* dead = ::pcap_open_dead(DLT_EN10MB, kSnapLength);
    if (dead == nullptr) {
        throw std::bad_alloc();
    }
    bpf_program program = {};
    std::string error;
    if (::pcap_compile(dead, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0) {
        ::pcap_freecode(&program);
    } else {
        error = ::pcap_geterr(dead);
    }
    ::pcap_close(dead);
    if (!error.empty()) {
        refuse("the filter '" + filter + "' is not a packet filter: " + error);
    }
}

// A dot would end the name of the log, and kp-capture takes none.
void checkName(const std::string& name) {
    constexpr std::size_t kLongest = 100;
    const bool plain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '-';
    });
    if (name.empty() || !plain || name.size() > kLongest) {
        refuse("the name '" + name + "' must be 1 to " + std::to_string(kLongest) +
               " letters, digits, '_' or '-'");
    }
}

}  // namespace

void apply(const Plan& plan, KP_Config& config) {
    checkText("the directory", plan.directory, kLongestDirectory);
    checkName(plan.name);
    checkKeyedValue("the device", plan.device);
    checkKeyedValue("the database path", plan.databasePath);
    if (plan.port < kLowestPort || plan.port > kHighestPort) {
        refuse("the port must be from " + std::to_string(kLowestPort) + " to " +
               std::to_string(kHighestPort));
    }
    programs::setDays(config, plan.days);
    programs::setFilter(config, plan.filter);
    checkFilter(plan.filter);
    programs::setPassword(config, plan.password);
    programs::setRanges(config, plan.ranges);
    programs::setMimeTypes(config, plan.mimeTypes);
    programs::setNetworks(config, plan.networks);
    config.setName(plan.name.c_str());
}

}  // namespace kp::configure
