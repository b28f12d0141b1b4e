// libkp: one piece of captured data.
#pragma once

#include <cstdint>
#include <cstdio>

#include "kp/core/object.h"

/// A block of bytes with a capacity, its size, and the number of bytes in use, its length.
///
/// The block comes from initBuffer(), or is one of the caller's, borrowed with setBuffer().
/// Changing the block leaves the length as it was; where that exceeds the new size, only the bytes
/// of the block count as used.
///
/// Ownership: by default a block of initBuffer() outlives the buffer. It is leaked unless
/// resetBuffer() frees it before another takes its place and before the buffer ends, or whoever
/// kept its address does so with std::free(), after setBuffer(nullptr, 0). After setOwner(1) the
/// buffer looks after it: such a block is freed as well when another takes its place and when the
/// buffer ends, as when the stream that the buffer is in releases it. A borrowed block is never
/// freed.
///
/// A block that was filled in place is told its length by copyBuffer() of its own bytes, which
/// copies nothing then. So data comes into a stream by
///
///     KP_Buffer* const buffer = KP_Buffer::create();
///     if (buffer == nullptr || buffer->initBuffer(4096) != 0) ...
///     buffer->setOwner(1);                            // The block ends with the buffer.
///     const std::size_t n = std::fread(buffer->getBuffer(), 1, buffer->getSize(), file);
///     buffer->copyBuffer(buffer->getBuffer(), n);     // Sets the length.
///     stream.add(buffer);                             // Gives the buffer to the stream.
///
/// A copy borrows the block of its source and does not outlive it. Assignment gives up the target's
/// block as setBuffer() does.
///
/// A host's class that overrides getSize(), getLength() or getBuffer() keeps the three in step;
/// streams ask them and nothing else.
///
/// Threads: takes no lock.
class KP_API KP_Buffer : public virtual KP_Object {
public:
    /// A buffer without a block, of length 0, with setOwner(0).
    KP_Buffer() = default;
    /// Borrows the block of @p other.
    KP_Buffer(const KP_Buffer& other);
    KP_Buffer& operator=(const KP_Buffer& other);
    ~KP_Buffer() override;

    /// The capacity of the block in bytes.
    virtual unsigned long getSize();
    /// The number of bytes in use, as copyBuffer() set it.
    virtual unsigned long getLength();
    /// The block; null when there is none.
    virtual unsigned char* getBuffer();
    /// Frees the block if it is of initBuffer(), forgets it if it is borrowed, and sets the size to
    /// 0. The length stays. Returns 0.
    virtual int resetBuffer();
    /// Takes a new block of @p size bytes, whose contents are anything.
    /// Returns 0, or -1 with the buffer as it was when there is no memory or @p size has more than
    /// 32 bits.
    virtual int initBuffer(unsigned long size);
    /// Borrows @p block of @p size bytes, which stays the caller's; it may be null.
    /// Returns 0, or -1 with the buffer as it was when @p size has more than 32 bits.
    virtual int setBuffer(unsigned char* block, unsigned long size);
    /// Copies @p length bytes to the start of the block, and makes that the length.
    /// The bytes may be the block's own; when they stand at its start already, only the length is
    /// set. Returns 0, or -1 with the buffer as it was when they do not fit, or when @p bytes is
    /// null and @p length is not 0.
    virtual int copyBuffer(const unsigned char* bytes, unsigned long length);

    /// Non-zero: a block of initBuffer(), held now or later, ends with the buffer or with its next
    /// block. Returns 0.
    int setOwner(int on);

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    /// Sets the length to 0; the block stays. Returns 0.
    int reset() override;
    /// Writes the length on a line of its own, and the used bytes as they are; returns 0.
    int print(std::FILE* file) override;
    static unsigned long getClassID() { return 0x411CDB01; }
    /// A new buffer without a block, or null when memory runs out.
    static KP_Buffer* create();

protected:
    /// What getBuffer(), getLength() and getSize() tell.
    unsigned char* buffer_ = nullptr;
    std::uint32_t length_ = 0;
    std::uint32_t size_ = 0;

private:
    void replaceBlock(unsigned char* block, std::uint32_t size, bool allocated);

    unsigned char* allocated_ = nullptr;  // by initBuffer(); what is in use may be a part of it
    std::uint32_t allocatedSize_ = 0;
    bool owner_ = false;
};
