// kp-query: names of addresses.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace kp::query {

/// Asks the name service for addresses, several at a time and each one once.
///
/// Threads: one.
class Resolver {
public:
    /// Finds the names of those that were not asked for yet; returns when all are known, which can
    /// take seconds.
    void resolve(const std::vector<std::int64_t>& addresses);
    /// The name of an address that was resolved; empty when it has none.
    const std::string& nameOf(std::int64_t address) const { return names_.at(address); }

private:
    std::unordered_map<std::int64_t, std::string> names_;
};

}  // namespace kp::query
