// kp-capture: several readers of one device.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace kp::capture {

/// Sockets of one device among which the system deals out the packets: all of a connection, in both
/// directions, go to one socket. It puts fragments together first, since only the first of them
/// tells the ports.
///
/// The group has a number that no other program's has. It is made by its first member and ends with
/// its last one, so that a device of the same name gets a new group when it returns.
///
/// Threads: any.
class FanoutGroup {
public:
    /// Returns why the packet socket @p descriptor could not join; empty when it did. While
    /// members of a device that has gone are left, others are refused.
    std::string join(int descriptor);
    /// The socket of a member was closed.
    void leave();

private:
    std::mutex mutex_;
    unsigned members_ = 0;
    std::uint16_t number_ = 0;
};

}  // namespace kp::capture
