#include "groups.h"

#include <cstdio>

#include "kp/tools/tools.h"

namespace kp::query {

std::int64_t sumOf(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return a < 0 ? INT64_MIN : INT64_MAX;
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
