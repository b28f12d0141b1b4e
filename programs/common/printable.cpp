#include "common/printable.h"

namespace kp::programs {

void appendPrintable(std::string& line, std::string_view text, Backslash backslash) {
    constexpr char kHex[] = "0123456789ABCDEF";
    for (const char c : text) {
        if (isPrintable(c) && (c != '\\' || backslash == Backslash::kKeep)) {
            line += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            line += "\\x";
            line += kHex[byte >> 4];
            line += kHex[byte & 15];
        }
    }
}

std::string printable(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    appendPrintable(result, text);
    return result;
}

}  // namespace kp::programs
