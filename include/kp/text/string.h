// libkp: the text of the library: a growable byte string that chains, compares, hashes and travels.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iosfwd>
#include <string_view>
#include <type_traits>

#include "kp/core/calc_hash.h"
#include "kp/export.h"
#include "kp/text/key.h"
#include "kp/text/link.h"

class KP_String;

namespace kp::detail {

/// Picks an overload for exactly `char`.
template <class T>
using IfChar = std::enable_if_t<std::is_same_v<T, char>, int>;

}  // namespace kp::detail

extern template class KP_API KP_Link<KP_String>;
extern template class KP_API KP_Key<unsigned long>;

/// A NUL-terminated byte string that is its own list link, has a key, compares and hashes.
///
/// Two constructors take a text and a number, and the number is no length: KP_String(buffer, n)
/// reads an int as flags, and any odd one makes the string borrow the buffer. The first n bytes of
/// a buffer are KP_String(std::string_view(buffer, n)).
///
/// Text: bytes without an encoding, at most 4294967294 of them. The string keeps their number, so
/// getLength() costs nothing. Who writes through a `char*` or a `char&` of the string can put the
/// first NUL elsewhere; the length stays what it was until stpcvt() counts again. Joining, finding,
/// removing and sending go by the length, comparing and printing by the first NUL, and none of them
/// leaves the buffer.
///
/// Memory: the text has a block of its own that grows to exactly what is needed. A string can
/// instead borrow text (see the constructor): it reads that text and neither writes nor frees it.
/// What would change a borrowed text takes a private copy first. Conversions and operator[] copy
/// nothing: what they hand out of a borrowed text is the lender's own memory, so who writes there
/// writes to the lender's text, and must not when that is constant.
///
/// Errors: what cannot get memory for text throws KP_NoMoreMemoryException and leaves the string as
/// it was. A null `const char*` is an empty text, except where it says otherwise.
///
/// Own text as operand: every operation may be given the string itself or a pointer into its text.
///
/// Links: a string in a list of strings is its own link. Neither copies nor moves nor assignments
/// touch the neighbours or the key (0xFFFFFFFF in a new string); text is all that they take over.
///
/// Threads: takes no lock. One thread at a time uses a string; several may read one that nobody
/// changes.
class KP_API KP_String : public virtual KP_Link<KP_String>,
                         public virtual KP_Key<unsigned long>,
                         public virtual KP_CalcHash {
public:
    /// An empty text with room for 32 characters.
    KP_String();
    /// An empty text with room for @p n characters. Here and below a negative room counts as 0.
    explicit KP_String(int n);
    explicit KP_String(unsigned int n);
    /// A copy of @p s, or with bit 0 of @p flags a string that borrows @p s itself; no length, as
    /// the class says first.
    /// The memory of a borrowed text stays the caller's and outlives the string. A null s is an
    /// empty text with room for 1 character.
    KP_String(const char* s, int flags);
    explicit KP_String(const char* s) : KP_String(s, 0) {}
    /// A copy of @p s with room for @p extra characters more.
    KP_String(const char* s, unsigned int extra);
    /// A copy of all bytes of @p text.
    explicit KP_String(std::string_view text);
    /// A copy of @p t with as much room as t has and for @p extra characters more.
    KP_String(const KP_String& t, unsigned int extra);
    KP_String(const KP_String& t, int extra);
    /// A copy of @p t; of a borrowed text a private one.
    KP_String(const KP_String& t);
    /// Takes over the text of @p t, which becomes empty and stays usable.
    /// A borrowed text is copied; if there is no memory for that, the loan itself moves.
    KP_String(KP_String&& t) noexcept;
    ~KP_String() override;

    /// A new empty string with room for 32 characters; null when there is no memory for the object.
    static KP_Object* create();
    /// The allocation step of the constructors: an empty text with room for @p n characters.
    /// Returns 0. It frees no earlier buffer, so on a finished string it loses that one.
    virtual int init2(unsigned int n);
    /// A new string with the same text, which the caller releases; null when there is no memory for
    /// the object.
    virtual KP_Object* copy();
    using KP_Object::copy;
    /// Makes room for @p n characters in all and keeps the text; a borrowed one is copied.
    /// A smaller n makes nothing smaller.
    void grow(unsigned int n);

    /// Takes over the text; a text that collates equal leaves this string's buffer as it is.
    KP_String& operator=(const KP_String& t);
    /// The same, and @p t becomes empty.
    KP_String& operator=(KP_String&& t) noexcept;
    /// Takes over the text; the string's own buffer as @p s changes nothing.
    KP_String& operator=(const char* s);
    KP_String& operator=(std::string_view text);

    // --- joining and removing ---

    /// A new string: this text followed by @p b.
    KP_String operator&(const KP_String& b) const;
    KP_String operator&(const char* b) const;
    /// Appends @p b; returns the string.
    KP_String& operator&=(const KP_String& b);
    KP_String& operator&=(const char* b) {
        append(b, b != nullptr ? std::strlen(b) : 0);
        return *this;
    }
    /// A new string: this text without the first occurrence of @p b.
    KP_String operator%(const KP_String& b) const;
    KP_String operator%(const char* b) const;
    /// Removes the first occurrence of @p b; returns the string.
    KP_String& operator%=(const KP_String& b);
    KP_String& operator%=(const char* b);

    // --- appending; each returns the string ---

    /// Appends a text.
    KP_String& operator<<(const char* s) { return *this &= s; }
    KP_String& operator<<(std::string_view text) {
        append(text.data(), text.size());
        return *this;
    }
    /// Appends the character itself; a NUL counts in the length as any other.
    KP_String& operator<<(char c);
    /// Numbers are appended in decimal: digits, and a "-" in front of a negative one.
    KP_String& operator<<(unsigned long value);
    KP_String& operator<<(unsigned short value);
    KP_String& operator<<(long value);
    KP_String& operator<<(short value);
    KP_String& operator<<(int value);
    KP_String& operator<<(unsigned int value);
    KP_String& operator<<(long long value);
    KP_String& operator<<(unsigned long long value);
    /// As printf's "%f": six decimals, with the decimal point of the current locale.
    KP_String& operator<<(double value);
    KP_String& operator<<(float value);

    // --- access ---

    /// The text. It stays where it is until the string changes or ends.
    operator const char*() { return text(); }
    operator const char*() const { return text(); }
    /// The text, to be written to within its length. If it is borrowed, this is the lender's own.
    operator char*() { return text(); }
    operator char*() const { return text(); }
    /// All bytes that the length counts; valid as long as the pointer to the text.
    std::string_view view() const { return {buffer_, length_}; }
    /// The number of characters.
    unsigned int getLength() const { return length_; }
    /// 1 when the length is 0, else 0.
    int operator!() const { return length_ == 0 ? 1 : 0; }
    /// The character at @p i, or the terminator beyond the length; a negative i means 0.
    /// Write characters, but leave the terminator alone, and a borrowed text that is constant.
    char& operator[](unsigned int i) { return text()[positionOf(i)]; }
    char& operator[](int i) { return text()[positionOf(i)]; }
    char operator[](unsigned int i) const { return characterAt(i); }
    char operator[](int i) const { return characterAt(i); }
    /// Indexes of every other integer type.
    template <class Index, std::enable_if_t<std::is_integral_v<Index>, int> = 0>
    char& operator[](Index i) {
        return text()[positionOf(i)];
    }
    template <class Index, std::enable_if_t<std::is_integral_v<Index>, int> = 0>
    char operator[](Index i) const {
        return characterAt(i);
    }

    // --- conversions in place ---

    /// Changes the letters up to the first NUL, byte by byte, by the current locale; in the default
    /// one A to Z, or a to z, only.
    void toLower();
    void toUpper();
    /// Cleans the text in place, counts its length again and returns it. Bits of @p flags:
    ///
    ///     1  remove every space
    ///     2  remove the spaces in front
    ///     4  remove the spaces at the end
    ///     8  one space for each run of spaces (not with 1)
    ///    16  what stands between two equal quotes (' or ") stays as it is; so do the quotes
    ///    32  to upper case
    ///    64  to lower case, also when 32 is set
    ///   128  remove control characters
    ///
    /// A space is a white-space character that is no control character: in the default locale the
    /// blank alone, for tabs and line ends are control characters. A control character ends a run
    /// of spaces even when it is removed. Bytes above 127 are neither, and have no case.
    char* stpcvt(int flags);
    /// Sets the text to the @p n bytes at @p data, two upper-case hexadecimal digits each.
    /// Null @p data give an empty text.
    void hexify(const void* data, unsigned long n);

    // --- searching; positions count bytes from 0, all comparison is byte for byte ---

    /// The position of the first occurrence of @p s, or -1; an empty s occurs nowhere.
    /// @p flags has no meaning. Time grows with the lengths added, whatever the texts.
    int findSubString(const char* s, int flags) const;
    int findSubString(const KP_String& s, int flags) const;
    /// Removes the first occurrence of @p s; with bit 1 (value 2) of @p flags all of them.
    /// All includes those that a removal brings together: "ab" vanishes from "aabb" altogether.
    void extractSubString(const char* s, int flags);
    void extractSubString(const KP_String& s, int flags);
    /// The @p count characters from @p start, up to the first NUL; a count of 0 or less means all.
    /// A negative start counts as 0; a start beyond the length gives an empty text.
    KP_String getSubString(int start, int count) const;
    /// Inserts the first @p count characters of @p s (all of them for 0 or less) at @p pos.
    /// A negative pos counts as 0; one beyond the length changes nothing.
    void setSubString(const KP_String& s, int pos, int count);
    void setSubString(const char* s, int pos, int count);
    /// Cuts the text to @p n characters, if it has more; a negative n counts as 0.
    void truncateString(int n);
    /// Whether the whole text matches @p pattern: '*' any run of bytes, '%' exactly one byte.
    /// An empty text and an empty or null pattern match nothing. What follows the last '*' is
    /// matched against the end, where a '%' in front of the whole text matches too, and the rest
    /// without regard to that end: "*%%" and "a*a" match "a".
    /// Time grows with pattern times text at most.
    bool wildcardSearch(const char* pattern) const;
    bool wildcardSearch(const KP_String& pattern) const;

    // --- comparing, by strcoll() of the current locale ---

    /// Compares by strcoll() of the current locale; 1 or 0. A null text is empty.
    int operator==(const KP_String& t) const { return collate(t.text()) == 0; }
    int operator!=(const KP_String& t) const { return collate(t.text()) != 0; }
    bool operator<(const KP_String& t) const { return collate(t.text()) < 0; }
    int operator>(const KP_String& t) const { return collate(t.text()) > 0; }
    int operator<=(const KP_String& t) const { return collate(t.text()) <= 0; }
    int operator>=(const KP_String& t) const { return collate(t.text()) >= 0; }
    int operator==(const char* s) const { return collate(s) == 0; }
    int operator!=(const char* s) const { return collate(s) != 0; }
    int operator<(const char* s) const { return collate(s) < 0; }
    int operator>(const char* s) const { return collate(s) > 0; }
    int operator<=(const char* s) const { return collate(s) <= 0; }
    int operator>=(const char* s) const { return collate(s) >= 0; }
    /// Text that is not const: without these, comparing the pointers would be as good a match.
    template <class Char, kp::detail::IfChar<Char> = 0>
    int operator==(Char* s) const {
        return collate(s) == 0;
    }
    template <class Char, kp::detail::IfChar<Char> = 0>
    int operator!=(Char* s) const {
        return collate(s) != 0;
    }
    template <class Char, kp::detail::IfChar<Char> = 0>
    int operator<(Char* s) const {
        return collate(s) < 0;
    }
    template <class Char, kp::detail::IfChar<Char> = 0>
    int operator>(Char* s) const {
        return collate(s) > 0;
    }
    template <class Char, kp::detail::IfChar<Char> = 0>
    int operator<=(Char* s) const {
        return collate(s) <= 0;
    }
    template <class Char, kp::detail::IfChar<Char> = 0>
    int operator>=(Char* s) const {
        return collate(s) >= 0;
    }

    /// -1, 0 or 1 as this text collates before, with or after @p other; -1 when that is no string.
    /// @p mode has no meaning.
    int compare(KP_Compare* other, int mode) override;
    /// h = (h * 127 + c) % buckets over the characters as signed bytes, from 0, in 32 bits.
    /// Bytes above 127 can make it negative, and so can more than 16 million buckets, for which the
    /// product wraps. -1 when @p buckets is not positive.
    int calcHash(int buckets) override;

    // --- the root's operations ---

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    /// Forgets the neighbours in the list; the text stays. Returns 0.
    int init() override;
    /// Writes "value\t\t: %s\n" to @p file, or to the log when it is null; returns 0.
    int print(std::FILE* file) override;
    /// Writes the text alone, to no file nothing; returns 0, also when the file refuses it.
    int write(std::FILE* file) override;
    /// Reads one line of at most 2048 characters and takes the text between its braces.
    /// A line label{text} gives text; a line without such a text (as write() writes it), the end of
    /// the file and no file give an empty one. Returns 0.
    int read(std::FILE* file) override;
    /// Sends the text and a line feed; returns 0, or -1 when the socket did not take them all. A
    /// line feed within the text ends it for the receiver.
    int writeJ(int socket) override;
    /// Receives one line of at most 2048 characters, the rest of a longer one with the next call.
    /// Returns 0, with an empty text when the peer has closed, or -1 with the text unchanged when
    /// receiving fails.
    int readJ(int socket) override;
    static unsigned long getClassID() { return 0x2371E481; }

protected:
    /// Makes the string empty, with room for @p n characters at least.
    void newBuffer(unsigned int n);

private:
    enum class NoText {};
    explicit KP_String(NoText);

    // The text, ended within its block whatever a caller may have written there.
    char* text() const {
        if (capacity_ != 0 && buffer_[capacity_ - 1] != '\0') {
            buffer_[capacity_ - 1] = '\0';
        }
        return buffer_;
    }
    char* ownText() {
        if (capacity_ == 0) {
            takeCopy(length_);
        }
        return text();
    }
    template <class Index>
    std::uint32_t positionOf(Index i) const {
        if constexpr (std::is_signed_v<Index>) {
            if (i < 0) {
                return 0;
            }
        }
        return static_cast<std::uint64_t>(i) < length_ ? static_cast<std::uint32_t>(i) : length_;
    }
    template <class Index>
    char characterAt(Index i) const {
        const std::uint32_t position = positionOf(i);
        return position < length_ ? buffer_[position] : '\0';
    }
    int collate(const char* s) const { return std::strcoll(text(), s != nullptr ? s : ""); }

    bool isOwn(const void* memory) const {
        const auto address = reinterpret_cast<std::uintptr_t>(memory);
        const auto start = reinterpret_cast<std::uintptr_t>(buffer_);
        return address >= start && address - start < capacity_;
    }
    void resize(std::size_t characters);
    void takeCopy(std::size_t characters);
    void adopt(char* block, std::size_t characters, std::size_t length);
    void setLength(std::size_t length) {
        buffer_[length] = '\0';
        length_ = static_cast<std::uint32_t>(length);
    }
    void makeEmpty();
    void exchangeText(KP_String& other) noexcept;
    void assign(const char* bytes, std::size_t count);
    void append(const char* bytes, std::size_t count);
    void insert(std::size_t position, const char* bytes, std::size_t count);
    void removeAll(const char* bytes, std::size_t count);
    const char* find(const char* bytes, std::size_t count) const;
    template <class Number>
    KP_String& appendInteger(Number value);

    std::uint32_t length_ = 0;
    std::uint32_t capacity_ = 0;
    char* buffer_;
};

/// @p s followed by @p a; a null s gives a copy of a.
KP_API KP_String operator&(const char* s, const KP_String& a);
/// @p s without the first occurrence of @p a; a null s gives a copy of a.
KP_API KP_String operator%(const char* s, const KP_String& a);

/// As the string's own, with the text in front.
inline int operator==(const char* s, const KP_String& t) {
    return t == s;
}
inline int operator!=(const char* s, const KP_String& t) {
    return t != s;
}
inline int operator<(const char* s, const KP_String& t) {
    return t > s;
}
inline int operator>(const char* s, const KP_String& t) {
    return t < s;
}
inline int operator<=(const char* s, const KP_String& t) {
    return t >= s;
}
inline int operator>=(const char* s, const KP_String& t) {
    return t <= s;
}
template <class Char, kp::detail::IfChar<Char> = 0>
int operator==(Char* s, const KP_String& t) {
    return t == s;
}
template <class Char, kp::detail::IfChar<Char> = 0>
int operator!=(Char* s, const KP_String& t) {
    return t != s;
}
template <class Char, kp::detail::IfChar<Char> = 0>
int operator<(Char* s, const KP_String& t) {
    return t > s;
}
template <class Char, kp::detail::IfChar<Char> = 0>
int operator>(Char* s, const KP_String& t) {
    return t < s;
}
template <class Char, kp::detail::IfChar<Char> = 0>
int operator<=(Char* s, const KP_String& t) {
    return t >= s;
}
template <class Char, kp::detail::IfChar<Char> = 0>
int operator>=(Char* s, const KP_String& t) {
    return t <= s;
}

/// Writes the text as any text is written: with the stream's width and fill.
KP_API std::ostream& operator<<(std::ostream& out, const KP_String& s);
