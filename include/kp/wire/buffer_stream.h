// libkp: captured data, chained in the order of its arrival and walked as one sequence of bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "kp/text/list.h"
#include "kp/wire/buffer.h"
#include "kp/wire/stream.h"

/// A chain of buffers with a cursor on one of their bytes.
///
/// The stream owns its buffers: it releases them when it is reset and when it ends. Their blocks
/// end with them only after KP_Buffer::setOwner(1). A buffer that is in a stream keeps its block
/// and its length; add() adds the length to the total, as it is then.
///
/// The cursor never leaves the bytes that were added, whatever it is asked, with one exception:
/// find() of an address that no buffer holds believes its caller, and the cursor is then on that
/// single byte, in front of the buffer that follows the current one.
///
/// There are three walks; what a byte costs is compared with a loop over an array:
///
/// - run() and nextRun(), the same: the one to take where code can look at all bytes of a buffer
///   and then carry on in the next, as below.
/// - step(), 3 times as much: a byte at a time, with the cursor on it for the other operations. The
///   byte is stream.KP_BufferStream::getNext(), no virtual call when it is written like this.
/// - ontoNext(), 6 times as much, or incNext() and getNext(), which are two calls: for code that
///   takes a KP_Stream, and for classes that override them.
///
///     for (bool more = stream.firstRun(); more; more = stream.nextRun()) {
///         const std::string_view run = stream.run();
///         ...
///     }
///
/// The cursor is on a byte, never behind the last one: who consumes a stream that grows remembers
/// whether that byte was taken. Parsed buffers stay until reset(); a long connection copies what is
/// left into a new buffer, resets the stream and adds that.
///
/// A class that overrides incNext() overrides ontoNext() and the copy() of text as well, which do
/// not call it.
///
/// Threads: one at a time, add() included; a stream that several threads use needs a lock of
/// theirs.
class KP_API KP_BufferStream : public virtual KP_Stream {
public:
    /// A stream without buffers.
    KP_BufferStream();
    /// A copy walks the same buffers with a cursor and marks of its own, which begin where those of
    /// the source are. It owns no buffer, also none that is added to it later, and does not outlive
    /// its source's. Assignment first releases what the target owned and the source does not have:
    /// a stream that is set back to a copy of itself goes back to the copy's cursor and keeps its
    /// buffers. Either throws KP_NoMoreMemoryException when there is no memory for the links.
    KP_BufferStream(const KP_BufferStream& other);
    KP_BufferStream& operator=(const KP_BufferStream& other);
    ~KP_BufferStream() override;

    /// Adds @p buffer, whose owner the stream becomes, at the end. The cursor stays where it is.
    /// Returns 0; -1 for null. Throws KP_NoMoreMemoryException when there is no memory for a link;
    /// the buffer is then still the caller's.
    virtual int add(KP_Buffer* buffer);
    /// The bytes that were in use in the buffers when they were added, modulo 2^32.
    virtual unsigned long total();

    int setFirst() override;
    int isNext() override;
    unsigned char getNext() override;
    unsigned char* getNextPtr() override;
    unsigned char* getLastPtr() override;
    int incNext() override;
    unsigned char ontoNext() override;
    int bumpToNext(long count) override;
    unsigned char* markNext(int mark) override;
    int resetNext(unsigned char* place, int mark) override;
    unsigned char* aheadNext(short distance) override;
    void relNext() override;
    unsigned char* lookNextIndex(int distance) override;
    int find(unsigned char* place) override;
    int findPattern(char* pattern) override;
    using KP_Stream::findPattern;
    unsigned char* copy(unsigned long count) override;
    int copy(unsigned char* out, int count) override;
    using KP_Stream::copy;

    /// incNext() without a virtual call; true where that is 1.
    bool step() {
        if (end_ - next_ > 1) {
            ++next_;
            return true;
        }
        return next_ != nullptr && stepBuffer();
    }
    /// The bytes of the current buffer from the cursor on, where they lie; none when the cursor is
    /// nowhere.
    std::string_view run() const {
        return {reinterpret_cast<const char*>(next_), static_cast<std::size_t>(end_ - next_)};
    }
    /// Puts the cursor on the first byte of all; false when there is none, and it then stays.
    bool firstRun();
    /// Moves the cursor to the first byte of the next buffer that has one.
    /// Returns false when there is none; the cursor then stays.
    bool nextRun();
    /// findPattern() for bytes of any number and value: zero bytes count as any other. A match that
    /// spans two buffers is not found; an empty pattern stands at the cursor.
    bool findBytes(std::string_view pattern);
    /// The buffer that the cursor is in; null when the cursor is nowhere.
    KP_Buffer* getCurrentBuffer();

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    /// Releases all buffers and unsets the marks; the cursor is nowhere. Returns 0.
    int reset() override;
    /// Writes the total; returns 0.
    int print(std::FILE* file) override;
    static unsigned long getClassID() { return 0x411CDB04; }
    /// A new empty stream, or null when memory runs out.
    static KP_BufferStream* create();

protected:
    /// What total() tells.
    std::uint32_t m_iTotal = 0;

private:
    static constexpr int kMarks = 20;
    using Link = KP_Link<KP_Object>;

    struct Position {
        Link* link;
        unsigned char* start;
        unsigned char* next;
        unsigned char* end;
    };
    void copyPlaces(const KP_BufferStream& other);
    Position position();
    void setPosition(const Position& position);
    bool enter(KP_Object* element);
    void restore(const Position& position);
    bool isNowhere();
    bool stepTo(Link* link);
    bool stepBuffer();
    bool stepBufferBack();
    bool isInCurrent();

    KP_List<KP_Object> chain_;  // its cursor is the current buffer
    Link* marks_[kMarks] = {};
    unsigned char* next_ = nullptr;
    unsigned char* end_ = nullptr;    // behind the used bytes that next_ is in
    unsigned char* start_ = nullptr;  // of them
};
