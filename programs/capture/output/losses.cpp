#include "output/losses.h"

#include <ifaddrs.h>
#include <linux/if_link.h>
#include <sys/socket.h>

#include <cstring>

namespace kp::capture {

namespace {

// A counter that has gone back has begun anew, unless it went over its end.
std::uint32_t growth(std::uint32_t before, std::uint32_t now) {
    const std::uint32_t step = now - before;
    return step <= 0x7FFFFFFF ? step : now;
}

}  // namespace

std::string LossTeller::tell(const Lost& lost, Clock::time_point now, bool isLast) {
    const bool isDue = isLast || !toldAt_ || now - *toldAt_ >= kPeriod;
    if (!isDue)
        return "";
    std::string text;
    const auto add = [&](std::uint64_t before, std::uint64_t after, const char* what) {
        if (after > before)
            text += (text.empty() ? "" : ", ") + std::to_string(after - before) + what;
    };
    add(told_.bySystem, lost.bySystem, " packets dropped by the system");
    add(told_.byInterface, lost.byInterface, " packets dropped by the interface");
    add(told_.left, lost.left, " captured packets not read at the end");
    add(told_.rows, lost.rows, " transactions not recorded");
    if (text.empty())
        return "";
    told_ = lost;
    toldAt_ = now;
    return "losses: " + text;
}

InterfaceDrops::InterfaceDrops(std::string device) : device_(std::move(device)) {
    last_ = look().value_or(Counters());
}

// The files below /sys/class/net may be those of another network namespace than ours; what the
// system answers to this question is about ours.
std::optional<InterfaceDrops::Counters> InterfaceDrops::look() const {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
        return {};
    std::optional<Counters> found;
    for (const ifaddrs* each = first; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_PACKET ||
            each->ifa_data == nullptr || device_ != each->ifa_name)
            continue;
        rtnl_link_stats statistics{};
        std::memcpy(&statistics, each->ifa_data, sizeof statistics);
        found = {statistics.rx_missed_errors + statistics.rx_fifo_errors, statistics.rx_dropped};
    }
    freeifaddrs(first);
    return found;
}

std::uint64_t InterfaceDrops::count(bool hasSeenTags) {
    if (const std::optional<Counters> now = look()) {
        missed_ += growth(last_.missed, now->missed);
        dropped_ += growth(last_.dropped, now->dropped);
        last_ = *now;
    }
    return missed_ + (hasSeenTags ? 0 : dropped_);
}

}  // namespace kp::capture
