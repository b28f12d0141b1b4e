// kp-capture: the running engine, from the packets to the lines and the front end.
#pragma once

#include "kp/kp.h"
#include "options.h"

namespace kp::capture {

/// Runs the engine of an installation that has started; returns the exit status. Lines go to
/// @p output, a file descriptor that stays the caller's; warnings and the summary to standard
/// error.
///
/// End: the source's end or a signal; then, in this order, the stages work off what was read, the
/// summary is written, with --serve the front end goes on until a signal comes, the stages are told
/// to come to an end, stopped and joined.
int runEngine(KP_EngineMgr& manager, const Options& options, int output);

}  // namespace kp::capture
