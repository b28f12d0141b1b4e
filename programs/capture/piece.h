// kp-capture: bytes of one direction of a connection, as they came.
#pragma once

#include <string_view>

#include "kp/kp.h"
#include "traffic.h"

namespace kp::capture {

/// A buffer that knows when its bytes came. Every buffer of a stream that a connection's sink gets
/// is one.
class Piece : public KP_Buffer {
public:
    /// Its bytes are @p bytes themselves, which stay the caller's.
    void borrow(std::string_view bytes, Timestamp time);
    /// Its bytes are a copy, which ends with it. Throws std::bad_alloc.
    void keep(std::string_view bytes, Timestamp time);

    std::string_view bytes() const { return {reinterpret_cast<char*>(buffer_), length_}; }
    Timestamp time() const { return time_; }

    /// The piece that the stream's cursor is in.
    static const Piece& at(KP_BufferStream& stream) {
        return *static_cast<Piece*>(stream.getCurrentBuffer());
    }

private:
    Timestamp time_;
};

}  // namespace kp::capture
