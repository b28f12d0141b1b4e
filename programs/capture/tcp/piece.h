// kp-capture: bytes of one direction of a connection, as they came.
#pragma once

#include <cstdint>
#include <string_view>

#include "kp/kp.h"
#include "packet/traffic.h"

namespace kp::capture {

/// What the packet that brought some bytes says of them.
struct Arrival {
    Timestamp time;
    CaptureTime clock = 0;           ///< of the segment
    std::uint32_t sequence = 0;      ///< number of the first byte
    std::uint32_t acknowledged = 0;  ///< what the sender had of the other direction until then
    bool hasAcknowledged = false;
};

/// A buffer that knows how its bytes came. Every buffer of a stream that a connection's sink gets
/// is one.
class Piece : public KP_Buffer {
public:
    /// Its bytes are @p bytes themselves, which stay the caller's.
    void borrow(std::string_view bytes, const Arrival& arrival);
    /// Its bytes are a copy, which ends with it. Throws std::bad_alloc.
    void keep(std::string_view bytes, const Arrival& arrival);

    std::string_view bytes() const { return {reinterpret_cast<char*>(buffer_), length_}; }
    const Arrival& arrival() const { return arrival_; }

    /// The piece that the stream's cursor is in.
    static const Piece& at(KP_BufferStream& stream) {
        return *static_cast<Piece*>(stream.getCurrentBuffer());
    }

private:
    Arrival arrival_;
};

}  // namespace kp::capture
