// kp-query: the questions, each in a file of its own.
#pragma once

#include <cstdio>
#include <string>

#include "options.h"

namespace kp::query {

// Each writes its answer to a stream and throws what went wrong; @p directory holds the day files.
// False is an answer without days that could not be read, which was told.

/// The requests, by their times.
bool list(const std::string& directory, const Options& options, std::FILE* output);
/// The hosts, clients or others with the most.
bool top(const std::string& directory, const Options& options, std::FILE* output);
/// How many requests there were, in all or by hour or day.
bool totals(const std::string& directory, const Options& options, std::FILE* output);

}  // namespace kp::query
