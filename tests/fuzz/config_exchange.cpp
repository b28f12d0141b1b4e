// Any bytes as a configuration that a front end sends. What the engine takes, it sends as
// something that kp-admin takes, with the same values.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "config_message.h"
#include "kp/kp.h"
#include "support/support.h"

namespace {

using kp::fuzz::require;

void requireEqual(const KP_Config& a, const KP_Config& b) {
    require(a.configVersion == b.configVersion && a.connectionPort == b.connectionPort);
    require(std::strcmp(a.device, b.device) == 0 && std::strcmp(a.password, b.password) == 0);
    require(std::strcmp(a.filterProgram, b.filterProgram) == 0);
    require(a.daysOfDataToKeep == b.daysOfDataToKeep && a.numOfMimeTypes == b.numOfMimeTypes);
    for (int i = 0; i < a.numOfMimeTypes; ++i) {
        const KP_Config::MimeType& one = a.mimeTypes[i];
        const KP_Config::MimeType& other = b.mimeTypes[i];
        require(std::strcmp(one.type, other.type) == 0);
        require(one.numOfPostfixes == other.numOfPostfixes);
        for (int p = 0; p < one.numOfPostfixes; ++p)
            require(std::strcmp(one.postfixes[p], other.postfixes[p]) == 0);
    }
    require(a.applyNetAddress == b.applyNetAddress && a.numOfNets == b.numOfNets);
    for (int i = 0; i < a.numOfNets; ++i) {
        require(a.exampleAddress[i] == b.exampleAddress[i]);
        require(a.maskAddress[i] == b.maskAddress[i]);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kMost = 4096;  // more of it is more of the same
    if (size > kMost)
        return 0;
    const kp::fuzz::Sockets engine;
    engine.sendAll({reinterpret_cast<const char*>(data), size});
    KP_Config taken;
    if (taken.readJ(engine.ours()) != 0)
        return 0;
    const kp::fuzz::Sockets admin;
    require(taken.writeJ(admin.theirs()) == 0);
    KP_Config shown;
    require(kp::admin::receiveConfig(admin.ours(), shown));
    requireEqual(taken, shown);
    return 0;
}
