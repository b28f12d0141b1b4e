// libkp: what a parser does with a sequence of bytes.
#pragma once

#include <type_traits>

#include "kp/core/object.h"

/// A sequence of bytes that comes in pieces, walked through a cursor that is on one of them.
///
/// The cursor is on no byte before setFirst(), and on an empty piece; getNext() then gives 0. There
/// are twenty marks, 0 to 19, for positions to come back to. bumpToNext(), lookNextIndex(), find(),
/// findPattern() and the copy() of text use mark 0 themselves.
///
/// KP_BufferStream is the library's implementation. Code that takes a KP_Stream works with a host's
/// own as well, and pays a virtual call a byte; KP_BufferStream tells of its faster walks.
///
/// Threads: one at a time; the cursor and the marks have no lock.
class KP_API KP_Stream : public virtual KP_Object {
public:
    ~KP_Stream() override;

    /// Puts the cursor on the first piece; returns 0, or -1 with the cursor unmoved when there is
    /// none or it has no block.
    virtual int setFirst() = 0;
    /// 1 when a byte follows in this piece or the piece after it, else 0.
    /// An empty piece hides what comes after it.
    virtual int isNext() = 0;
    /// The byte at the cursor, which stays; 0 when it is on none.
    virtual unsigned char getNext() = 0;
    /// The address of the byte at the cursor, or null when the cursor is nowhere.
    virtual unsigned char* getNextPtr() = 0;
    /// The address behind the last byte of the last piece, or null when there is none.
    /// Makes the last piece the current one but leaves the cursor on its byte, which is then in
    /// another piece: setFirst(), resetNext() or find() must be the next to use it.
    virtual unsigned char* getLastPtr() = 0;
    /// Moves the cursor to the following byte, or onto an empty piece that comes first.
    /// Returns 1, or 0 at the end, where the cursor stays, and on a piece without a block.
    virtual int incNext() = 0;
    /// incNext(), and the byte at the cursor, moved or not: at the end the last byte again.
    virtual unsigned char ontoNext() = 0;
    /// Moves the cursor by @p count bytes, back when it is negative; empty pieces count nothing.
    /// Returns 1, or 0 with the cursor unmoved when there are not as many.
    virtual int bumpToNext(long count) = 0;
    /// Keeps the current piece in @p mark.
    /// Returns the cursor's address, which the caller keeps for resetNext(); null when there is no
    /// such mark, or when the cursor is nowhere.
    virtual unsigned char* markNext(int mark) = 0;
    /// Returns to the piece in @p mark and puts the cursor at @p place, found by find() if it is in
    /// another one. Returns 0, or -1 with the cursor unmoved when the mark was not set or does not
    /// exist.
    virtual int resetNext(unsigned char* place, int mark) = 0;
    /// The same as getNextPtr(); @p distance is not used.
    virtual unsigned char* aheadNext(short distance) = 0;
    /// Does nothing.
    virtual void relNext() = 0;
    /// The address of the byte @p distance bytes ahead, or back when it is negative, or null.
    /// The cursor stays.
    virtual unsigned char* lookNextIndex(int distance) = 0;
    /// Puts the cursor at @p place, in the piece that holds it; searches back first, then ahead.
    /// When no piece does, the log says so, the piece stays, and the cursor is on that one byte,
    /// whoever it belongs to, in front of the piece that follows. Returns 1.
    virtual int find(unsigned char* place) = 0;
    /// Moves the cursor to the next place, its own first, where the first five bytes of @p pattern
    /// stand within one piece. A text that ends before counts as filled up with zero bytes. Returns
    /// 1, or 0 with the cursor at the start of the last piece, unless it was in that one already; 0
    /// as well before setFirst().
    virtual int findPattern(char* pattern) = 0;
    /// A new block with the first @p count bytes of the stream, or with all for 0; the caller frees
    /// it with std::free(). What the stream does not have is left as the allocator had it.
    /// Null when the stream has no piece, when memory runs out and when @p count has more than 32
    /// bits. Makes the piece where the copy ends the current one, as getLastPtr() does the last.
    virtual unsigned char* copy(unsigned long count) = 0;
    /// Copies up to @p count bytes from the cursor on to @p out, which has room for count + 1.
    /// A line feed or a carriage return ends the copy; a byte that does not print becomes '*'; a
    /// zero byte is added. The cursor is then on the first byte that was not copied. Returns 0, or
    /// -1 with nothing written when there is no byte @p count ahead (so the last byte of the stream
    /// is never copied), or @p count is negative.
    virtual int copy(unsigned char* out, int count) = 0;

    /// The same for a pattern that is constant, such as a literal; none of them is written to.
    template <class Char, class = std::enable_if_t<std::is_same_v<Char, const char>>>
    int findPattern(Char* pattern) {
        return findPattern(const_cast<char*>(pattern));
    }
    /// Any whole number is a count, so that copy(0) is not taken for the root's copy().
    template <class Count, class = std::enable_if_t<std::is_integral_v<Count>>>
    unsigned char* copy(Count count) {
        return copy(static_cast<unsigned long>(count));
    }
    using KP_Object::copy;

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x411CDB02; }
};
