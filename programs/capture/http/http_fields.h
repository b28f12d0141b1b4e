// kp-capture: reading single lines and fields of HTTP/1.x heads; pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kp::capture {

/// The parts of a request line, pointing into it.
struct RequestLine {
    std::string_view method;
    std::string_view target;
};

/// What a head says about the length of its body.
struct BodyLength {
    enum class Form { kAbsent, kBytes, kChunked, kUnclear };
    Form form = Form::kAbsent;
    std::uint64_t bytes = 0;  ///< with kBytes
};

/// Reads "METHOD TARGET HTTP/1.x"; the method is any token of at most 256 characters, the target is
/// everything between the outer blanks.
std::optional<RequestLine> parseRequestLine(std::string_view line);

/// Reads the status of "HTTP/1.x NNN ...", with or without a reason phrase.
std::optional<int> parseStatusLine(std::string_view line);

/// Tells whether @p part can be the beginning of a request line, a status line or a blank line.
/// Once it cannot, no continuation makes it one.
bool canBeginStartLine(std::string_view part);

/// Tells whether @p part can be the beginning of a status line, up to its three digits.
bool canBeginStatusLine(std::string_view part);

/// Judges the two fields; a coding wins over a length. A length that is no number, exceeds 64
/// bits, or is told twice with different values is kUnclear, and so is a coding whose last step
/// is not "chunked".
BodyLength parseBodyLength(std::string_view transferEncoding, std::string_view contentLength);

/// Compares without regard to the case of ASCII letters.
bool equalNoCase(std::string_view a, std::string_view b);

/// Takes blanks and tabs from both ends.
std::string_view trim(std::string_view text);

}  // namespace kp::capture
