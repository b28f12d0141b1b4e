#include "tcp/piece.h"

#include <new>

namespace kp::capture {

void Piece::borrow(std::string_view bytes, const Arrival& arrival) {
    auto* const block = reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data()));
    KP_Buffer::setBuffer(block, bytes.size());
    KP_Buffer::copyBuffer(block, bytes.size());
    arrival_ = arrival;
}

void Piece::keep(std::string_view bytes, const Arrival& arrival) {
    setOwner(1);
    if (KP_Buffer::initBuffer(bytes.size()) != 0)
        throw std::bad_alloc();
    KP_Buffer::copyBuffer(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    arrival_ = arrival;
}

}  // namespace kp::capture
