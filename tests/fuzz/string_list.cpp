// Any bytes as the file of a list of named strings, read, written, and read again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "kp/kp.h"
#include "support/support.h"

namespace {

int read(KP_NamedStringList& list, const std::string& path, char separator, const char* set) {
    list.setOwner(1);
    const int result = list.readFile(path.c_str(), separator, set);
    int count = 0;
    for (KP_String* value = list.first(); value != nullptr; value = list.next()) {
        kp::fuzz::require(list.getCurrentName() != nullptr && value->getLength() < 256);
        ++count;
    }
    kp::fuzz::require(count == list.getCount());
    return result;
}

}  // namespace

// The first byte is the separator, the second says what is squeezed.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr const char* kSets[] = {nullptr, "", " \t", "ab="};
    if (size < 2)
        return 0;
    static const kp::fuzz::MemoryFile file;
    file.put({reinterpret_cast<const char*>(data) + 2, size - 2});
    const char separator = static_cast<char>(data[0]);
    const char* const set = kSets[data[1] % 4];
    KP_NamedStringList list;
    kp::fuzz::require(read(list, file.path(), separator, set) == 0);
    kp::fuzz::require(list.writeFile(file.path().c_str(), separator) == 0);
    KP_NamedStringList again;
    kp::fuzz::require(read(again, file.path(), separator, set) == 0);
    return 0;
}
