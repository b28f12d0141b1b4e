#include "piece.h"

#include <new>

namespace kp::capture {

void Piece::borrow(std::string_view bytes, Timestamp time) {
    auto* const block = reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data()));
    KP_Buffer::setBuffer(block, bytes.size());
    KP_Buffer::copyBuffer(block, bytes.size());
    time_ = time;
}

void Piece::keep(std::string_view bytes, Timestamp time) {
    setOwner(1);
    if (KP_Buffer::initBuffer(bytes.size()) != 0)
        throw std::bad_alloc();
    KP_Buffer::copyBuffer(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    time_ = time;
}

}  // namespace kp::capture
