// kp-query: which requests are asked for.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "day_file.h"
#include "records/database.h"
#include "records/day.h"

namespace kp::query {

/// A condition that cannot be; what() is a sentence for the user.
class FilterError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Numbers from low to high.
struct Numbers {
    std::int64_t low;
    std::int64_t high;
};

/// An address, LOW-HIGH or A.B.C.D/BITS. Throws FilterError.
Numbers parseAddresses(const std::string& text);
/// A status, Nxx, LOW-HIGH, or none, which is 0 to 0. Throws FilterError.
Numbers parseStatus(const std::string& text);

/// Conditions, all of which hold.
struct Filter {
    std::optional<std::int64_t> from;  ///< seconds since 1970
    std::optional<std::int64_t> to;    ///< before it
    std::optional<std::string> host;   ///< pattern
    std::optional<Numbers> client;
    std::optional<Numbers> server;
    std::optional<Numbers> status;
    std::optional<std::string> type;  ///< pattern
    bool content = false;
    bool page = false;
    bool entry = false;

    /// Whether some request of a day can lie within the times, recorded in another time zone, too.
    bool touches(const records::Day& day) const;
    /// The same conditions for one day file: without the times, if all of its requests lie within.
    Filter within(const DayFile& file) const;
    /// Whether it takes everything.
    bool isEmpty() const { return !from && !to && isOfTimesOnly(); }
    /// Whether it takes each row of the file's table "slots" whole or not at all.
    bool isOfWholeSlots(const DayFile& file) const;

    /// The conditions for the table "transactions" as a WHERE clause; empty for none.
    std::string where() const;
    /// Gives a statement with that clause, and no parameter before it, its values; returns the
    /// parameter behind them.
    int bind(records::Statement& statement) const;

private:
    bool isOfTimesOnly() const;
};

}  // namespace kp::query
