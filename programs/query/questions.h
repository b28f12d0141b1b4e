// kp-query: the questions, each in a file of its own.
#pragma once

#include <cstdio>
#include <string>

#include "options.h"

namespace kp::query {

// Each writes its answer to a stream and throws what went wrong; @p directory holds the day files.

/// The requests, by their times.
void list(const std::string& directory, const Options& options, std::FILE* output);
/// The hosts, clients or others with the most.
void top(const std::string& directory, const Options& options, std::FILE* output);
/// How many requests there were, in all or by hour or day.
void totals(const std::string& directory, const Options& options, std::FILE* output);

}  // namespace kp::query
