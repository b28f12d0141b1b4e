#include "kp/wire/buffer.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "kp/core/log.h"

namespace {

bool fits(unsigned long count) {
    return count <= UINT32_MAX;
}

}  // namespace

KP_Buffer::KP_Buffer(const KP_Buffer& other)
    : KP_Object(other), buffer_(other.buffer_), length_(other.length_), size_(other.size_) {}

KP_Buffer& KP_Buffer::operator=(const KP_Buffer& other) {
    if (this != &other) {
        replaceBlock(other.buffer_, other.size_, false);
        length_ = other.length_;
    }
    return *this;
}

KP_Buffer::~KP_Buffer() {
    replaceBlock(nullptr, 0, false);
}

// Replaces the block. A buffer that is the owner frees the block that it had allocated, unless the
// new one is a part of it: then the whole block is still to be freed later.
void KP_Buffer::replaceBlock(unsigned char* block, std::uint32_t size, bool allocated) {
    const auto offset =
        reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(allocated_);
    const bool isWithin = allocated_ != nullptr && block != nullptr && offset <= allocatedSize_;
    if (allocated || !isWithin) {
        if (owner_) {
            std::free(allocated_);
        }
        allocated_ = allocated ? block : nullptr;
        allocatedSize_ = allocated ? size : 0;
    }
    buffer_ = block;
    size_ = size;
}

unsigned long KP_Buffer::getSize() {
    return size_;
}

unsigned long KP_Buffer::getLength() {
    return length_;
}

unsigned char* KP_Buffer::getBuffer() {
    return buffer_;
}

int KP_Buffer::resetBuffer() {
    std::free(allocated_);
    allocated_ = nullptr;
    allocatedSize_ = 0;
    buffer_ = nullptr;
    size_ = 0;
    return 0;
}

int KP_Buffer::initBuffer(unsigned long size) {
    if (!fits(size)) {
        return -1;
    }
    auto* block = static_cast<unsigned char*>(std::malloc(std::max(size, 1UL)));
    if (block == nullptr) {
        return -1;
    }
    replaceBlock(block, static_cast<std::uint32_t>(size), true);
    return 0;
}

int KP_Buffer::setBuffer(unsigned char* block, unsigned long size) {
    if (!fits(size)) {
        return -1;
    }
    replaceBlock(block, static_cast<std::uint32_t>(size), false);
    return 0;
}

int KP_Buffer::copyBuffer(const unsigned char* bytes, unsigned long length) {
    if (length > size_ || (length != 0 && (bytes == nullptr || buffer_ == nullptr))) {
        return -1;
    }
    if (length != 0 && bytes != buffer_) {
        std::memmove(buffer_, bytes, length);
    }
    length_ = static_cast<std::uint32_t>(length);
    return 0;
}

int KP_Buffer::setOwner(int on) {
    owner_ = on != 0;
    return 0;
}

char* KP_Buffer::getClassName() {
    return kp::className("KP_Buffer");
}

int KP_Buffer::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Buffer>(this, id, out);
}

int KP_Buffer::reset() {
    length_ = 0;
    return 0;
}

int KP_Buffer::print(std::FILE* file) {
    KP_Log::flog(file, "length: %4d\n", static_cast<int>(getLength()));
    const auto* place = reinterpret_cast<const char*>(getBuffer());
    std::size_t left = place != nullptr ? std::min(getLength(), getSize()) : 0;
    while (left != 0) {
        // All at once up to a zero byte, where a text would end.
        const std::size_t most = std::min<std::size_t>(left, INT_MAX);
        const void* zero = std::memchr(place, '\0', most);
        const std::size_t run =
            zero != nullptr ? static_cast<std::size_t>(static_cast<const char*>(zero) - place)
                            : most;
        KP_Log::flog(file, "%.*s", static_cast<int>(run), place);
        if (zero != nullptr) {
            KP_Log::flog(file, "%c", '\0');
        }
        const std::size_t done = run + (zero != nullptr ? 1 : 0);
        place += done;
        left -= done;
    }
    return 0;
}

KP_Buffer* KP_Buffer::create() {
    return kp::createAndInit<KP_Buffer>();
}
