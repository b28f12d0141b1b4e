// What comes from outside, made harmless before it reaches a terminal or a log.
#pragma once

#include <string>
#include <string_view>

namespace kp::programs {

/// Whether a byte is a character of ASCII that a terminal shows and does nothing else with.
constexpr bool isPrintable(char c) {
    return c >= 0x20 && c < 0x7F;
}

/// What becomes of a backslash, which is printable itself.
enum class Backslash {
    kKeep,   // people read the text
    kEscape  // programs read it, and want every byte back
};

/// Appends @p text to @p line with every other byte as \xHH: control characters, line ends, and
/// all bytes from 0x80 on.
///
/// Those are escaped although they may be UTF-8. Which of them are commands depends on what the
/// terminal takes them for: the second byte of a letter in UTF-8 is a control character
/// everywhere else, and UTF-8 has controls of its own that reverse or hide what is beside them.
void appendPrintable(std::string& line, std::string_view text,
                     Backslash backslash = Backslash::kKeep);

/// @p text itself, made printable.
std::string printable(std::string_view text);

}  // namespace kp::programs
