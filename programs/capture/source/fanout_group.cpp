#include "source/fanout_group.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace kp::capture {

std::string FanoutGroup::join(int descriptor) {
    const std::lock_guard<std::mutex> lock(mutex_);
    unsigned flags = PACKET_FANOUT_HASH | PACKET_FANOUT_FLAG_DEFRAG;
    if (members_ == 0) {
        flags |= PACKET_FANOUT_FLAG_UNIQUEID;
        number_ = 0;
    }
    const std::uint32_t wanted = flags << 16 | number_;
    if (::setsockopt(descriptor, SOL_PACKET, PACKET_FANOUT, &wanted, sizeof wanted) != 0)
        return std::strerror(errno);
    std::uint32_t given = 0;
    socklen_t size = sizeof given;
    if (members_ == 0 && ::getsockopt(descriptor, SOL_PACKET, PACKET_FANOUT, &given, &size) != 0)
        return std::strerror(errno);
    if (members_ == 0)
        number_ = static_cast<std::uint16_t>(given);
    ++members_;
    return "";
}

void FanoutGroup::leave() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --members_;
}

}  // namespace kp::capture
