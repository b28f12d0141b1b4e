// The words for socket errors.
#pragma once

namespace kp::detail {

/// The constant text of the socket error @p number (10004 to 11004); "Unknown" for all others.
const char* socketErrorText(int number);

}  // namespace kp::detail
