// kp-capture: one HTTP request with its answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "packet/traffic.h"

namespace kp::capture {

/// A request and what came back; texts are as sent, without surrounding white space.
struct Transaction {
    std::uint64_t connection = 0;  ///< number of the packet that opened its connection
    Timestamp time;                ///< of the first byte of the request, or of an answer alone
    Endpoint client;
    Endpoint server;
    std::string method;
    std::string host;  ///< empty when the request names none
    std::string target;
    std::string referer;          ///< empty when the request names none
    bool hasRequest = true;       ///< false: an answer alone; method and target are "-"
    int status = 0;               ///< 0: no answer was seen
    std::string contentType;      ///< of the answer, without parameters; may be empty
    std::uint64_t bodyBytes = 0;  ///< of the answer's body, without the framing of chunks
    /// Microseconds from the first byte of the request to that of the answer; 0 for an answer alone,
    /// none without an answer.
    std::optional<std::int64_t> responseTime;
};

/// Receives the transactions, each when its answer has ended.
class TransactionSink {
public:
    virtual ~TransactionSink() = default;
    virtual void transaction(Transaction&& transaction) = 0;
    /// Says that a connection carried data, and no HTTP; at most once for each.
    virtual void notHttp() {}
};

}  // namespace kp::capture
