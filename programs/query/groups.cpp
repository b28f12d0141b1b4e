#include "groups.h"

#include <cstdio>

#include "kp/tools/tools.h"

namespace kp::query {

std::int64_t sumOf(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

void Sums::add(const Sums& other) {
    requests = sumOf(requests, other.requests);
    bodyBytes = sumOf(bodyBytes, other.bodyBytes);
    answers = sumOf(answers, other.answers);
    responseTime = sumOf(responseTime, other.responseTime);
}

std::string Sums::meanResponse() const {
    if (answers == 0)
        return {};
    char text[64];
    std::snprintf(text, sizeof text, "%.3f",
                  static_cast<double>(responseTime) / static_cast<double>(answers) / 1000);
    return text;
}

std::string addressText(std::int64_t address) {
    char text[16];
    KP_Tools::IPAddressString(static_cast<std::uint32_t>(address), text);
    return text;
}

}  // namespace kp::query
