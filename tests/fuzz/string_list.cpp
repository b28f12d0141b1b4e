// Any bytes as the file of a list of named strings, read, written, and read again.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "kp/kp.h"
#include "support/support.h"

namespace {

// A file of the memory, with a path.
class MemoryFile {
public:
    MemoryFile() : descriptor_(memfd_create("list", MFD_CLOEXEC)) {
        kp::fuzz::require(descriptor_ >= 0);
    }
    ~MemoryFile() { close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
    void put(const void* bytes, std::size_t size) const {
        kp::fuzz::require(ftruncate(descriptor_, 0) == 0);
        kp::fuzz::require(pwrite(descriptor_, bytes, size, 0) == static_cast<ssize_t>(size));
    }

private:
    int descriptor_;
};

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
    static const MemoryFile file;
    file.put(data + 2, size - 2);
    const char separator = static_cast<char>(data[0]);
    const char* const set = kSets[data[1] % 4];
    KP_NamedStringList list;
    kp::fuzz::require(read(list, file.path(), separator, set) == 0);
    kp::fuzz::require(list.writeFile(file.path().c_str(), separator) == 0);
    KP_NamedStringList again;
    kp::fuzz::require(read(again, file.path(), separator, set) == 0);
    return 0;
}
