#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"

namespace {

constexpr std::size_t kDirectorySize = 256;
constexpr std::size_t kTimeTextSize = 60;

char installDirectory[kDirectorySize];

// Appends what fits; false when it does not fit whole.
bool append(char* text, const char* more) {
    const std::size_t length = std::strlen(text);
    const int added = std::snprintf(text + length, kDirectorySize - length, "%s", more);
    return added >= 0 && static_cast<std::size_t>(added) < kDirectorySize - length;
}

}  // namespace

char* KP_Tools::getInstallDir() {
    installDirectory[0] = '\0';
    const char* configured = std::getenv("KP_INSTALLDIR");
    const bool known = configured != nullptr
                           ? append(installDirectory, configured)
                           : kp::platform::programFolder(installDirectory, kDirectorySize) &&
                                 append(installDirectory, kp::platform::kConfigurationFolder);
    if (!known || !kp::platform::isDirectory(installDirectory)) {
        KP_Log::quit("getInstallDir: INSTALLDIR=%s does not exist or can't be opened",
                     configured != nullptr ? configured : installDirectory);
    }
    return installDirectory;
}

void KP_Tools::getTimeString1(char* dst) {
    std::tm local = {};
    dst[0] = '\0';
    if (kp::platform::localTime(std::time(nullptr), &local)) {
        std::strftime(dst, kTimeTextSize, "%Y%b%d-%H:%M", &local);
    }
}
