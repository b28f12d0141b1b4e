#include "source/pcap_support.h"

#include <algorithm>
#include <cstdint>

#include "packet/link_layer.h"
#include "source/packet_source.h"

namespace kp::capture {

void refuseUnknownLink(const std::string& name, int linkType) {
    if (isKnownLink(linkType))
        return;
    const char* text = pcap_datalink_val_to_name(linkType);
    throw PacketSourceError(name + ": links of type " +
                            (text != nullptr ? text : std::to_string(linkType)) +
                            " are not supported");
}

Timestamp timestampOf(const timeval& time) {
    constexpr std::int64_t kLatest = 253402300799;  // the end of the year 9999
    const std::int64_t micros = std::max<std::int64_t>(time.tv_usec, 0);
    const std::int64_t seconds = std::clamp<std::int64_t>(time.tv_sec, 0, kLatest);
    return {seconds + micros / 1000000, static_cast<std::uint32_t>(micros % 1000000)};
}

}  // namespace kp::capture
