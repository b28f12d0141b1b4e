// kp-query: the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "filter.h"
#include "table.h"

namespace kp::query {

/// What may be ranked.
enum class Ranked { kHosts, kClients, kServers, kTypes, kMethods, kTargets };
/// What a ranking goes by, the largest first.
enum class Order { kRequests, kBytes, kResponseTime };
/// What totals are told of.
enum class Period { kAll, kDay, kHour };

struct Options {
    enum class Question { kList, kTop, kTotals };

    std::string database;   ///< the directory of the day files; empty: the installation's
    std::string directory;  ///< the installation; empty: where KP_INSTALLDIR says
    std::string name = "kp-capture";
    Filter filter;
    Format format = Format::kTable;
    bool resolve = false;
    Question question = Question::kList;
    std::optional<std::uint64_t> limit;  ///< rows
    Ranked ranked = Ranked::kHosts;
    Order order = Order::kRequests;
    Period period = Period::kAll;
};

/// Reads the command line into @p options. Returns the exit status when the program has nothing
/// more to do: 0 after --help and --version, 2 after a mistake, which was told on standard error.
std::optional<int> readOptions(int argc, char** argv, Options& options);

}  // namespace kp::query
