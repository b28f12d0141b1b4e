// Looking inside the text: finding, removing, taking, inserting, cutting, wildcards.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "core/byte_search.h"
#include "kp/text/string.h"

namespace {

constexpr int kEveryOccurrence = 2;
constexpr char kAnyRun = '*';
constexpr char kAnyByte = '%';

std::size_t notNegative(int n) {
    return n > 0 ? static_cast<std::size_t>(n) : 0;
}

// The length of @p s, but of its first @p count characters at most if that is positive.
std::size_t lengthWithin(const char* s, int count) {
    if (count <= 0) {
        return std::strlen(s);
    }
    const void* end = std::memchr(s, '\0', static_cast<std::size_t>(count));
    return end != nullptr ? static_cast<std::size_t>(static_cast<const char*>(end) - s)
                          : static_cast<std::size_t>(count);
}

bool fits(const char* piece, std::size_t length, const char* place) {
    for (std::size_t i = 0; i < length; ++i) {
        if (piece[i] != kAnyByte && piece[i] != place[i]) {
            return false;
        }
    }
    return true;
}

// Where a piece of a pattern, which has no '*' in it, first stands in [text, end); or null.
const char* findPiece(const char* text, const char* end, const char* piece, std::size_t length) {
    const auto size = static_cast<std::size_t>(end - text);
    if (std::find(piece, piece + length, kAnyByte) == piece + length) {
        return kp::detail::findBytes(text, size, piece, length);
    }
    for (std::size_t i = 0; i + length <= size; ++i) {
        if (fits(piece, length, text + i)) {
            return text + i;
        }
    }
    return nullptr;
}

}  // namespace

const char* KP_String::find(const char* bytes, std::size_t count) const {
    return count != 0 ? kp::detail::findBytes(buffer_, length_, bytes, count) : nullptr;
}

int KP_String::findSubString(const char* s, int) const {
    const char* found = s != nullptr ? find(s, std::strlen(s)) : nullptr;
    return found != nullptr ? static_cast<int>(found - buffer_) : -1;
}

int KP_String::findSubString(const KP_String& s, int flags) const {
    return findSubString(s.text(), flags);
}

void KP_String::extractSubString(const char* s, int flags) {
    const std::size_t count = s != nullptr ? std::strlen(s) : 0;
    const char* found = find(s, count);
    if (found == nullptr) {
        return;
    }
    const auto position = static_cast<std::size_t>(found - buffer_);
    if (capacity_ == 0) {
        takeCopy(length_);
    }
    if ((flags & kEveryOccurrence) == 0) {
        char* place = buffer_ + position;
        std::memmove(place, place + count, length_ - position - count);
        setLength(length_ - count);
    } else if (isOwn(s)) {
        const KP_String wanted(s);
        removeAll(wanted.buffer_, count);
    } else {
        removeAll(s, count);
    }
}

void KP_String::extractSubString(const KP_String& s, int flags) {
    extractSubString(s.text(), flags);
}

// One pass: what is kept moves to the front as the search goes on. After each removal the search
// steps back over as much as the beginning of an occurrence that the removal completed can take.
void KP_String::removeAll(const char* bytes, std::size_t count) {
    char* kept = buffer_;
    char* rest = buffer_;
    char* const end = buffer_ + length_;
    for (;;) {
        const char* found =
            kp::detail::findBytes(rest, static_cast<std::size_t>(end - rest), bytes, count);
        if (found == nullptr) {
            break;
        }
        const auto before = static_cast<std::size_t>(found - rest);
        std::memmove(kept, rest, before);
        kept += before;
        rest += before + count;
        const std::size_t back = std::min(count - 1, static_cast<std::size_t>(kept - buffer_));
        kept -= back;
        rest -= back;
        std::memcpy(rest, kept, back);
    }
    const auto remaining = static_cast<std::size_t>(end - rest);
    std::memmove(kept, rest, remaining);
    setLength(static_cast<std::size_t>(kept - buffer_) + remaining);
}

KP_String KP_String::getSubString(int start, int count) const {
    const std::size_t from = notNegative(start);
    if (from > length_) {
        return KP_String(std::string_view());
    }
    const char* piece = text() + from;
    return KP_String(std::string_view(piece, lengthWithin(piece, count)));
}

void KP_String::setSubString(const KP_String& s, int pos, int count) {
    if (s.length_ != 0) {
        setSubString(s.text(), pos, count);
    }
}

void KP_String::setSubString(const char* s, int pos, int count) {
    const std::size_t position = notNegative(pos);
    const std::size_t length = s != nullptr ? lengthWithin(s, count) : 0;
    if (length != 0 && position <= length_) {
        insert(position, s, length);
    }
}

void KP_String::truncateString(int n) {
    const std::size_t wanted = notNegative(n);
    if (wanted >= length_) {
        return;
    }
    if (capacity_ == 0) {
        assign(buffer_, wanted);
    } else {
        setLength(wanted);
    }
}

bool KP_String::wildcardSearch(const char* pattern) const {
    if (pattern == nullptr || *pattern == '\0' || length_ == 0) {
        return false;
    }
    const char* const end = buffer_ + length_;
    const char* t = buffer_;
    const char* p = pattern;
    for (; *p != kAnyRun; ++p, ++t) {
        if (*p == '\0') {
            return t == end;
        }
        if (t == end || (*p != kAnyByte && *p != *t)) {
            return false;
        }
    }
    // From the end backwards: in front of the text there is room for '%', and for nothing else.
    const char* q = p + std::strlen(p) - 1;
    for (std::size_t left = length_; *q != kAnyRun; --q) {
        if (*q != kAnyByte && (left == 0 || *q != buffer_[left - 1])) {
            return false;
        }
        left -= left != 0 ? 1 : 0;
    }
    // A piece has a fixed length, so taking each at its first place leaves the most to the others.
    while (p != q) {
        const char* piece = p + 1;
        p = std::find(piece, q, kAnyRun);
        const auto length = static_cast<std::size_t>(p - piece);
        t = findPiece(t, end, piece, length);
        if (t == nullptr) {
            return false;
        }
        t += length;
    }
    return true;
}

bool KP_String::wildcardSearch(const KP_String& pattern) const {
    return wildcardSearch(pattern.text());
}
