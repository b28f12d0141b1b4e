// The configuration's queries, its copies and its dump.
#include "kp/config/config.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "kp/core/log.h"
#include "kp/core/no_more_memory_exception.h"
#include "kp/tools/tools.h"

namespace {

// A block of its own with the same records; null for none.
KP_Config::MimeType* duplicate(const KP_Config::MimeType* records, std::size_t count) {
    if (records == nullptr || count == 0) {
        return nullptr;
    }
    auto* copy = static_cast<KP_Config::MimeType*>(std::malloc(count * sizeof *records));
    if (copy == nullptr) {
        throw KP_NoMoreMemoryException();
    }
    std::memcpy(copy, records, count * sizeof *records);
    return copy;
}

}  // namespace

KP_ConfigBase::~KP_ConfigBase() = default;

KP_Config::KP_Config(const KP_Config& other)
    : KP_Object(other),
      KP_ConfigBase(other),
      mimeTypes(duplicate(other.mimeTypes, other.numOfMimeTypes)) {
    copyFields(other);
}

KP_Config& KP_Config::operator=(const KP_Config& other) {
    if (this != &other) {
        MimeType* copy = duplicate(other.mimeTypes, other.numOfMimeTypes);
        std::free(mimeTypes);
        mimeTypes = copy;
        KP_ConfigBase::operator=(other);
        copyFields(other);
    }
    return *this;
}

KP_Config::~KP_Config() {
    std::free(mimeTypes);
}

void KP_Config::copyFields(const KP_Config& other) {
    std::copy(std::begin(other.device), std::end(other.device), device);
    numOfIPRanges = other.numOfIPRanges;
    std::copy(std::begin(other.ipRanges), std::end(other.ipRanges), ipRanges);
    netStatsEnabled = other.netStatsEnabled;
    std::copy(std::begin(other.filterProgram), std::end(other.filterProgram), filterProgram);
    daysOfDataToKeep = other.daysOfDataToKeep;
    numOfMimeTypes = mimeTypes != nullptr ? other.numOfMimeTypes : 0;
    std::copy(std::begin(other.password), std::end(other.password), password);
    applyNetAddress = other.applyNetAddress;
    numOfNets = other.numOfNets;
    std::copy(std::begin(other.exampleAddress), std::end(other.exampleAddress), exampleAddress);
    std::copy(std::begin(other.maskAddress), std::end(other.maskAddress), maskAddress);
    std::copy(std::begin(other.netAddress), std::end(other.netAddress), netAddress);
    std::copy(std::begin(other.name), std::end(other.name), name);
}

int KP_Config::isValidPassword(const char* user, const char* typed) {
    // Takes as long for every text, so that nobody learns from the time how much of it is right. A
    // text that has ended goes on as zeros; volatile keeps the compiler from ending early.
    volatile unsigned char differences = 0;
    for (std::size_t i = 0, t = 0, p = 0; i < sizeof password; ++i) {
        differences = differences | (typed[t] ^ password[p]);
        t += typed[t] != '\0' ? 1 : 0;
        p += password[p] != '\0' ? 1 : 0;
    }
    return std::strcmp(user, "root") == 0 && differences == 0 ? 1 : 0;
}

int KP_Config::isValidSourceIP(unsigned long address) {
    if (applyNetAddress == 0) {
        return 1;
    }
    const auto source = static_cast<std::uint32_t>(address);
    const int nets = std::min<int>(numOfNets, kMaxNets);
    for (int i = 0; i < nets; ++i) {
        if ((source & maskAddress[i]) == netAddress[i]) {
            return 1;
        }
    }
    return 0;
}

int KP_Config::setName(const char* newName) {
    const std::size_t length = std::strlen(newName);
    if (length >= sizeof name) {
        KP_Log::ret("setName: the name %s has more than %d characters", newName,
                    static_cast<int>(sizeof name - 1));
        return -1;
    }
    std::memmove(name, newName, length + 1);
    return 0;
}

int KP_Config::reset() {
    std::free(mimeTypes);
    mimeTypes = nullptr;
    numOfMimeTypes = 0;
    return 0;
}

int KP_Config::print(std::FILE* file) {
    KP_Log::flog(file, "General Configuration\n");
    KP_Log::flog(file, "---------------------\n");
    KP_Log::flog(file, "databaseDir          = '%s'\n", databaseDir);
    KP_Log::flog(file, "device               = '%s'\n", device);
    KP_Log::flog(file, "filterProgram        = '%s'\n", filterProgram);
    KP_Log::flog(file, "netStatsEnabled      = '%d'\n", netStatsEnabled != 0 ? 1 : 0);
    KP_Log::flog(file, "connectionPort       = %u\n", connectionPort);
    KP_Log::flog(file, "daysOfDataToKeep     = %u\n", daysOfDataToKeep);
    KP_Log::flog(file, "\n");
    KP_Log::flog(file, "  IP Ranges: # = %d\n", numOfIPRanges);
    const int ranges = std::min<int>(numOfIPRanges, kMaxIPRanges);
    for (int i = 0; i < ranges; ++i) {
        char min[16];
        char max[16];
        KP_Tools::IPAddressString(ipRanges[i].min, min);
        KP_Tools::IPAddressString(ipRanges[i].max, max);
        KP_Log::flog(file, "    %s  %s\n", min, max);
    }
    KP_Log::flog(file, "\n");
    KP_Log::flog(file, "  MIME types: # = %d\n", numOfMimeTypes);
    for (int i = 0; mimeTypes != nullptr && i < numOfMimeTypes; ++i) {
        const MimeType& mime = mimeTypes[i];
        KP_Log::flog(file, "      %s ( ", mime.type);
        for (int j = 0; j < std::min<int>(mime.numOfPostfixes, kMaxPostfixes); ++j) {
            KP_Log::flog(file, "%s ", mime.postfixes[j]);
        }
        KP_Log::flog(file, ")\n");
    }
    KP_Log::flog(file, "\n");
    writeUser(file);
    return 0;
}
