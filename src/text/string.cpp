// The string's storage: construction, assignment, joining, and what it is to the object model.
#include "kp/text/string.h"

#include <cstddef>
#include <cstdlib>
#include <ostream>
#include <utility>

#include "kp/core/no_more_memory_exception.h"

template class KP_Link<KP_String>;
template class KP_Key<unsigned long>;

namespace {

constexpr unsigned int kUsualRoom = 32;
constexpr unsigned long kNoKey = 0xFFFFFFFF;
constexpr std::size_t kLongestText = 0xFFFFFFFE;

// What a string without a block of its own shows; nobody writes to borrowed text.
char* emptyText() {
    return const_cast<char*>("");
}

std::size_t lengthOf(const char* s) {
    return s != nullptr ? std::strlen(s) : 0;
}

unsigned int notNegative(int n) {
    return n > 0 ? static_cast<unsigned int>(n) : 0;
}

std::uint32_t checked(std::size_t characters) {
    if (characters > kLongestText) {
        throw KP_NoMoreMemoryException();
    }
    return static_cast<std::uint32_t>(characters);
}

// The size of the block behind a text of so many characters. Capacities are exact; blocks are asked
// for in the steps in which allocators hand them out anyway, so that a small addition often finds
// its room there and needs no call.
std::size_t blockSize(std::size_t characters) {
    return (characters + 8) / 16 * 16 + 8;
}

// Room for so many characters and the terminator, which stands at the end already; or null.
char* tryAllocate(std::size_t characters) {
    auto* block = static_cast<char*>(std::malloc(blockSize(characters)));
    if (block != nullptr) {
        block[characters] = '\0';
    }
    return block;
}

char* allocate(std::size_t characters) {
    char* block = tryAllocate(checked(characters));
    if (block == nullptr) {
        throw KP_NoMoreMemoryException();
    }
    return block;
}

}  // namespace

KP_String::KP_String(NoText) : buffer_(emptyText()) {
    element_ = this;
    // In the copy of a derived object the base was copied, neighbours and all.
    next_ = previous_ = nullptr;
    KP_Key<unsigned long>::setKey(kNoKey);
}

KP_String::KP_String() : KP_String(kUsualRoom) {}

KP_String::KP_String(int n) : KP_String(notNegative(n)) {}

KP_String::KP_String(unsigned int n) : KP_String(NoText{}) {
    KP_String::init2(n);
}

KP_String::KP_String(const char* s, int flags) : KP_String(NoText{}) {
    if (s == nullptr) {
        KP_String::init2(1);
    } else if ((flags & 1) != 0) {
        length_ = checked(std::strlen(s));
        buffer_ = const_cast<char*>(s);
    } else {
        assign(s, std::strlen(s));
    }
}

KP_String::KP_String(const char* s, unsigned int extra) : KP_String(NoText{}) {
    const std::size_t length = lengthOf(s);
    resize(length + extra);
    append(s, length);
}

KP_String::KP_String(std::string_view text) : KP_String(NoText{}) {
    assign(text.data(), text.size());
}

KP_String::KP_String(const KP_String& t, unsigned int extra) : KP_String(NoText{}) {
    resize(std::size_t{t.capacity_ != 0 ? t.capacity_ : t.length_} + extra);
    append(t.buffer_, t.length_);
}

KP_String::KP_String(const KP_String& t, int extra) : KP_String(t, notNegative(extra)) {}

KP_String::KP_String(const KP_String& t) : KP_String(t, 0U) {}

KP_String::KP_String(KP_String&& t) noexcept : KP_String(NoText{}) {
    if (t.capacity_ == 0 && t.length_ != 0) {
        char* block = tryAllocate(t.length_);
        if (block != nullptr) {
            std::memcpy(block, t.buffer_, t.length_);
            t.adopt(block, t.length_, t.length_);
        }
    }
    exchangeText(t);
}

KP_String::~KP_String() {
    if (capacity_ != 0) {
        std::free(buffer_);
    }
}

KP_Object* KP_String::create() {
    return new KP_String;
}

KP_Object* KP_String::copy() {
    return new KP_String(*this);
}

int KP_String::init2(unsigned int n) {
    char* block = allocate(n);
    block[0] = '\0';
    buffer_ = block;
    length_ = 0;
    capacity_ = n + 1;
    return 0;
}

void KP_String::newBuffer(unsigned int n) {
    if (capacity_ <= n) {
        adopt(allocate(n), n, 0);
    }
    setLength(0);
}

void KP_String::grow(unsigned int n) {
    if (n >= capacity_) {
        resize(n);
    }
}

// --- storage ---

// Gives the text a block with room for so many characters, in place where the allocator can.
// There must be room for the length.
void KP_String::resize(std::size_t characters) {
    if (capacity_ == 0) {
        takeCopy(characters);
        return;
    }
    if (blockSize(checked(characters)) != blockSize(capacity_ - 1)) {
        auto* block = static_cast<char*>(std::realloc(buffer_, blockSize(characters)));
        if (block == nullptr) {
            throw KP_NoMoreMemoryException();
        }
        buffer_ = block;
    }
    buffer_[characters] = '\0';
    capacity_ = static_cast<std::uint32_t>(characters) + 1;
}

// Ends borrowing: a block of the string's own, with room for so many characters at least.
void KP_String::takeCopy(std::size_t characters) {
    if (characters < length_) {
        characters = length_;
    }
    char* block = allocate(characters);
    std::memcpy(block, buffer_, length_);
    adopt(block, characters, length_);
}

void KP_String::adopt(char* block, std::size_t characters, std::size_t length) {
    if (capacity_ != 0) {
        std::free(buffer_);
    }
    buffer_ = block;
    capacity_ = static_cast<std::uint32_t>(characters) + 1;
    setLength(length);
}

void KP_String::makeEmpty() {
    if (capacity_ != 0) {
        setLength(0);
    } else {
        buffer_ = emptyText();
        length_ = 0;
    }
}

void KP_String::exchangeText(KP_String& other) noexcept {
    std::swap(length_, other.length_);
    std::swap(capacity_, other.capacity_);
    std::swap(buffer_, other.buffer_);
}

// The bytes may be some of the string's own, here and in append() and insert().
void KP_String::assign(const char* bytes, std::size_t count) {
    if (count >= capacity_) {
        char* block = allocate(count);
        if (count != 0) {
            std::memcpy(block, bytes, count);
        }
        adopt(block, count, count);
    } else {
        if (count != 0) {
            std::memmove(buffer_, bytes, count);
        }
        setLength(count);
    }
}

void KP_String::append(const char* bytes, std::size_t count) {
    if (count == 0) {
        return;
    }
    const std::size_t sum = length_ + count;
    if (sum >= capacity_) {
        const bool own = isOwn(bytes);
        const std::ptrdiff_t offset = own ? bytes - buffer_ : 0;
        resize(sum);
        bytes = own ? buffer_ + offset : bytes;
    }
    std::memmove(buffer_ + length_, bytes, count);
    setLength(sum);
}

void KP_String::insert(std::size_t position, const char* bytes, std::size_t count) {
    if (isOwn(bytes)) {
        const KP_String piece(std::string_view(bytes, count));
        insert(position, piece.buffer_, count);
        return;
    }
    const std::size_t sum = length_ + count;
    if (sum >= capacity_) {
        resize(sum);
    }
    char* place = buffer_ + position;
    std::memmove(place + count, place, length_ - position);
    std::memcpy(place, bytes, count);
    setLength(sum);
}

// --- assignment ---

KP_String& KP_String::operator=(const KP_String& t) {
    if (this != &t && collate(t.text()) != 0) {
        assign(t.buffer_, t.length_);
    }
    return *this;
}

KP_String& KP_String::operator=(KP_String&& t) noexcept {
    const bool differs = this != &t && collate(t.text()) != 0;
    if (differs && t.length_ >= capacity_) {
        KP_String taken(std::move(t));
        exchangeText(taken);
    } else if (this != &t) {
        if (differs) {
            assign(t.buffer_, t.length_);
        }
        t.makeEmpty();
    }
    return *this;
}

KP_String& KP_String::operator=(const char* s) {
    if (s == nullptr) {
        makeEmpty();
    } else if (s != buffer_) {
        assign(s, std::strlen(s));
    }
    return *this;
}

KP_String& KP_String::operator=(std::string_view text) {
    assign(text.data(), text.size());
    return *this;
}

// --- joining and removing ---

KP_String KP_String::operator&(const KP_String& b) const {
    KP_String result(NoText{});
    result.resize(std::size_t{length_} + b.length_);
    result.append(buffer_, length_);
    result.append(b.buffer_, b.length_);
    return result;
}

KP_String KP_String::operator&(const char* b) const {
    KP_String result(NoText{});
    const std::size_t added = lengthOf(b);
    result.resize(length_ + added);
    result.append(buffer_, length_);
    result.append(b, added);
    return result;
}

KP_String& KP_String::operator&=(const KP_String& b) {
    append(b.buffer_, b.length_);
    return *this;
}

KP_String KP_String::operator%(const KP_String& b) const {
    return *this % b.text();
}

KP_String KP_String::operator%(const char* b) const {
    KP_String result(*this);
    result.extractSubString(b, 0);
    return result;
}

KP_String& KP_String::operator%=(const KP_String& b) {
    return *this %= b.text();
}

KP_String& KP_String::operator%=(const char* b) {
    extractSubString(b, 0);
    return *this;
}

KP_String operator&(const char* s, const KP_String& a) {
    if (s == nullptr) {
        return a;
    }
    KP_String result(s, a.getLength());
    result &= a;
    return result;
}

KP_String operator%(const char* s, const KP_String& a) {
    if (s == nullptr) {
        return a;
    }
    KP_String result(s);
    result %= a;
    return result;
}

// --- what it is to the object model ---

int KP_String::compare(KP_Compare* other, int) {
    void* view = nullptr;
    if (other == nullptr || other->queryInterface(getClassID(), &view) != 0) {
        return -1;
    }
    const int order = collate(static_cast<KP_String*>(view)->text());
    return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

int KP_String::calcHash(int buckets) {
    if (buckets <= 0) {
        return -1;
    }
    std::int32_t hash = 0;
    for (const char* c = text(); *c != '\0'; ++c) {
        // Multiplied without a sign, because it is told to wrap at 32 bits.
        const std::uint32_t next = static_cast<std::uint32_t>(hash) * 127U +
                                   static_cast<std::uint32_t>(static_cast<signed char>(*c));
        hash = static_cast<std::int32_t>(next) % buckets;
    }
    return hash;
}

char* KP_String::getClassName() {
    return kp::className("KP_String");
}

int KP_String::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_String, KP_Link<KP_String>, KP_Compare, KP_Object, KP_Key<unsigned long>,
                        KP_CalcHash>(this, id, out);
}

int KP_String::init() {
    return KP_Link<KP_String>::init();
}

std::ostream& operator<<(std::ostream& out, const KP_String& s) {
    return out << s.view();
}
