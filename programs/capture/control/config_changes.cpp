#include "control/config_changes.h"

#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kp/tools/tools.h"

namespace kp::capture {

namespace {

constexpr std::size_t kMostListed = 8;  // entries of a list that are named; of more their number

using Texts = std::set<std::string>;

std::string dotted(std::uint32_t address) {
    char text[16];
    KP_Tools::IPAddressString(address, text);
    return text;
}

Texts rangesOf(const KP_Config& config) {
    Texts texts;
    for (int i = 0; i < config.numOfIPRanges; ++i)
        texts.insert(dotted(config.ipRanges[i].min) + "-" + dotted(config.ipRanges[i].max));
    return texts;
}

// Networks that are kept and not applied keep nobody out.
std::string administrationFrom(const KP_Config& config) {
    if (config.applyNetAddress == 0)
        return "everywhere";
    std::string text;
    for (int i = 0; i < config.numOfNets; ++i) {
        text += (i == 0 ? "" : " ") + dotted(config.exampleAddress[i]) + "/" +
                dotted(config.maskAddress[i]);
    }
    return text.empty() ? "nowhere" : text;
}

std::vector<std::string> mimeTypesOf(const KP_Config& config) {
    std::vector<std::string> texts;
    for (int i = 0; i < config.numOfMimeTypes; ++i) {
        const KP_Config::MimeType& mapping = config.mimeTypes[i];
        std::string text = mapping.type;
        for (int p = 0; p < mapping.numOfPostfixes; ++p)
            text += std::string(p == 0 ? "=" : ",") + mapping.postfixes[p];
        texts.push_back(std::move(text));
    }
    return texts;
}

// "ranges +10.0.0.0-10.0.0.255 -10.0.1.0-10.0.1.255", or their numbers.
std::string listChange(const char* what, const Texts& before, const Texts& now) {
    std::string text;
    std::size_t count = 0;
    for (const auto& [sign, from, without] :
         {std::tuple(" +", &now, &before), std::tuple(" -", &before, &now)}) {
        for (const std::string& entry : *from) {
            if (without->count(entry) == 0) {
                text += sign + entry;
                ++count;
            }
        }
    }
    if (count > kMostListed)
        text = " " + std::to_string(now.size()) + " instead of " + std::to_string(before.size());
    return text.empty() ? "" : what + text;
}

}  // namespace

std::string changesBetween(const KP_Config& before, const KP_Config& now) {
    std::vector<std::string> changes;
    if (std::strcmp(before.filterProgram, now.filterProgram) != 0) {
        changes.push_back("filter \"" + std::string(now.filterProgram) + "\" instead of \"" +
                          before.filterProgram + "\"");
    }
    if (before.daysOfDataToKeep != now.daysOfDataToKeep) {
        changes.push_back("days " + std::to_string(now.daysOfDataToKeep) + " instead of " +
                          std::to_string(before.daysOfDataToKeep));
    }
    if (const auto had = mimeTypesOf(before), has = mimeTypesOf(now); had != has) {
        const std::string text =
            listChange("MIME types", Texts(had.begin(), had.end()), Texts(has.begin(), has.end()));
        changes.push_back(text.empty() ? "order of the MIME types" : text);
    }
    if (const std::string had = administrationFrom(before), has = administrationFrom(now);
        had != has) {
        changes.push_back("administration from " + has + " instead of from " + had);
    }
    changes.push_back(listChange("ranges", rangesOf(before), rangesOf(now)));
    if (std::strcmp(before.password, now.password) != 0)
        changes.emplace_back("password changed");
    std::string text;
    for (const std::string& change : changes) {
        if (!change.empty())
            text += (text.empty() ? "" : ", ") + change;
    }
    return text.empty() ? "nothing" : text;
}

}  // namespace kp::capture
