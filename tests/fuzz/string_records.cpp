// Any bytes as records of strings, read both ways, and compared with what stands there.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "kp/kp.h"
#include "support/support.h"

namespace {

using kp::fuzz::require;

constexpr std::size_t kLongest = 2048;

// The record at the beginning, if it is whole.
bool isWhole(std::string_view rest, std::size_t& length) {
    if (rest.size() < 2)
        return false;
    length = static_cast<unsigned char>(rest[0]) + static_cast<unsigned char>(rest[1]) * 256U;
    return rest.size() - 2 >= length;
}

void readAllocated(std::string_view bytes) {
    const kp::fuzz::File file = kp::fuzz::fileOf(bytes);
    for (;;) {
        std::size_t length = 0;
        const bool isGood = isWhole(bytes, length) && length <= kLongest;
        char* text = nullptr;
        const int result = KP_Tools::readStringMalloc(&text, file.get());
        const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
        require(result == (isGood ? 0 : -1));
        if (!isGood)
            return;
        require(length == 0 ? text == nullptr : std::memcmp(text, bytes.data() + 2, length) == 0);
        bytes.remove_prefix(2 + length);
    }
}

void readInto(std::string_view bytes, std::size_t size) {
    const kp::fuzz::File file = kp::fuzz::fileOf(bytes);
    const std::unique_ptr<char[]> buffer(new char[size + 1]);  // just as much as is promised
    for (;;) {
        std::size_t length = 0;
        const bool isGood = isWhole(bytes, length) && length <= size;
        const int result =
            KP_Tools::readStringNoMalloc(buffer.get(), static_cast<int>(size), file.get());
        require(result == (isGood ? 0 : -1));
        if (!isGood)
            return;
        require(std::memcmp(buffer.get(), bytes.data() + 2, length) == 0 && buffer[length] == '\0');
        bytes.remove_prefix(2 + length);
    }
}

}  // namespace

// The first byte is the size of the buffer.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    readAllocated(bytes);
    readInto(bytes, data[0]);
    return 0;
}
