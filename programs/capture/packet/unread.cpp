#include "packet/unread.h"

namespace kp::capture {

std::vector<std::pair<std::string, std::uint64_t>> Unread::named() const {
    return {{"not_ipv4", notIPv4},
            {"not_tcp", notTcp},
            {"truncated", truncated},
            {"fragments_given_up", fragments},
            {"not_http", notHttp}};
}

std::string Unread::text() const {
    std::string text;
    const auto add = [&](std::uint64_t count, const char* what) {
        if (count != 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + what;
    };
    add(notIPv4, " packets not IPv4");
    add(notTcp, " not TCP");
    add(truncated, " truncated");
    add(fragments, " given up as fragments are missing");
    add(notHttp, " connections not HTTP");
    return text;
}

void UnreadPackets::addTo(Unread& unread) const {
    unread.notIPv4 += counts_[kNotIPv4];
    unread.notTcp += counts_[kNotTcp];
    unread.truncated += counts_[kTruncated];
    unread.fragments += fragments_;
}

}  // namespace kp::capture
