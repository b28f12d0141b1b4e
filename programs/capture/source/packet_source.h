// kp-capture: where packets come from.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "packet/traffic.h"

namespace kp::capture {

/// A packet as it was captured; the bytes are valid until the sink returns.
struct Packet {
    Timestamp time;
    int linkType = 0;        ///< libpcap's DLT_ number
    std::string_view bytes;  ///< from the link's header on; may be cut at the snap length
};

/// Takes packets, one after the other.
class PacketSink {
public:
    virtual void packet(const Packet& packet) = 0;

protected:
    ~PacketSink() = default;
};

/// A source that cannot be opened, or a filter that it does not take; what() is for the user.
class PacketSourceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Gives packets that pass a filter: of a file (FileSource), or of a device (DeviceSource). A
/// filter that does not name `vlan` is asked about the packets in tagged Ethernet frames, too.
///
/// Threads: one thread uses a source; stop() and filterFault() may be called from anywhere at any
/// time, signal handlers included.
class PacketSource {
public:
    enum class Result {
        kMore,   ///< there may be more at once
        kEmpty,  ///< there is nothing more at the moment; the next call may wait
        kEnd,    ///< the file has ended, or stop() was called
        kFault   ///< fault() says why reading had to end; the packets before it are good
    };

    static const int kEthernet;  ///< libpcap's DLT_ number
    /// Why a filter is refused for links of a type; empty when it is not. Looks up the names in it,
    /// once for the sources that get it then.
    static std::string filterFault(const std::string& filter, int linkType = kEthernet);

    PacketSource() = default;
    PacketSource(const PacketSource&) = delete;
    PacketSource& operator=(const PacketSource&) = delete;
    virtual ~PacketSource() = default;

    /// Gives @p sink the next packets, some thousand at most.
    virtual Result read(PacketSink& sink) = 0;
    /// Makes read() return kEnd.
    virtual void stop() = 0;

    /// The type of the source's links.
    virtual int linkType() const = 0;
    /// Replaces the filter from the next packet on. Returns why it was refused, and then the old
    /// one holds; empty when it was taken.
    virtual std::string setFilter(const std::string& filter) = 0;

    virtual bool isLive() const = 0;
    /// Whether its device is not there, or down: nothing can be seen until that changes.
    virtual bool isBlind() const { return false; }
    /// The device, or the file as the user named it.
    virtual const std::string& name() const = 0;
    /// What the system said when the source was opened nevertheless: no promiscuous mode, say.
    virtual const std::string& warning() const = 0;
    virtual const std::string& fault() const = 0;
    /// Packets that did not pass the filter; of a device they are not known.
    virtual std::uint64_t filteredOut() const = 0;
    /// Packets that the system could not keep for us; 0 for a file. Asks the system: not to be
    /// called for each packet.
    virtual std::uint64_t dropped() = 0;
    /// Packets that the system had captured before stop() and that were not read, for want of time.
    virtual std::uint64_t left() const { return 0; }
    /// How much of the file was read, 0 to 1; negative when its size is not known.
    virtual double progress() const = 0;
};

}  // namespace kp::capture
