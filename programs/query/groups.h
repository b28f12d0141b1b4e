// kp-query: what is counted of groups of requests.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace kp::query {

/// a + b, or the number next to it that there is.
std::int64_t sumOf(std::int64_t a, std::int64_t b);

/// Sums over some requests.
struct Sums {
    std::int64_t requests = 0;
    std::int64_t bodyBytes = 0;
    std::int64_t answers = 0;
    std::int64_t responseTime = 0;  ///< microseconds, of all answers

    void add(const Sums& other);
    /// Mean response time in milliseconds; empty without an answer.
    std::string meanResponse() const;
};

/// Sums by host, client or whatever is asked for.
using Groups = std::unordered_map<std::string, Sums>;

/// The dotted form of an address in host byte order.
std::string addressText(std::int64_t address);

}  // namespace kp::query
