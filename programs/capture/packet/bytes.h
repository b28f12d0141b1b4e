// kp-capture: numbers in the byte order of the network. The caller has looked at the length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kp::capture {

inline std::uint32_t byteAt(std::string_view bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

inline std::uint16_t read16(std::string_view bytes, std::size_t at) {
    return static_cast<std::uint16_t>(byteAt(bytes, at) << 8 | byteAt(bytes, at + 1));
}

inline std::uint32_t read32(std::string_view bytes, std::size_t at) {
    return std::uint32_t{read16(bytes, at)} << 16 | read16(bytes, at + 2);
}

}  // namespace kp::capture
