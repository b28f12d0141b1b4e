// The programs: one way of telling that something cannot be done.
#pragma once

#include <stdexcept>

namespace kp::programs {

/// Thrown by a function that cannot do what its name says. what() is for the user: one sentence
/// without a line end, which names the file, the device or the argument that it is about. Foreign
/// text in it is made printable where it is written, not here.
class Fault : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace kp::programs
