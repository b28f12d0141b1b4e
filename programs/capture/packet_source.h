// kp-capture: packets from a capture file or from a device.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "traffic.h"

namespace kp::capture {

/// A packet as it was captured; the bytes are valid until the next one is asked for.
struct Packet {
    Timestamp time;
    int linkType = 0;        ///< libpcap's DLT_ number
    std::string_view bytes;  ///< from the link's header on; may be cut at the snap length
};

/// A source that cannot be opened, or a filter that it does not take; what() is for the user.
class PacketSourceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads packets through libpcap, of pcapng files by our own reader, one at a time, that pass a
/// filter. One that does not name `vlan` is asked about the packets in tagged Ethernet frames, too.
///
/// Threads: one thread uses a source; stop() and filterFault() may be called from anywhere at any
/// time, signal handlers included.
class PacketSource {
public:
    enum class Result {
        kPacket,
        kNothing,  ///< no packet this time: it did not pass the filter, or the device was silent
        kEnd,      ///< the file has ended, or stop() was called
        kFault     ///< fault() says why reading had to end; the packets before it are good
    };

    /// Opens a pcap or pcapng file; "-" is standard input. @p filter is BPF, empty for all packets.
    static std::unique_ptr<PacketSource> openFile(const std::string& path,
                                                  const std::string& filter);
    /// Watches a device in promiscuous mode. A source that opens with a warning of the system's
    /// (no promiscuous mode, say) has it in warning().
    static std::unique_ptr<PacketSource> openDevice(const std::string& device,
                                                    const std::string& filter);

    PacketSource(const PacketSource&) = delete;
    PacketSource& operator=(const PacketSource&) = delete;
    ~PacketSource();

    static const int kEthernet;  ///< libpcap's DLT_ number
    /// Why a filter is refused for links of a type; empty when it is not.
    static std::string filterFault(const std::string& filter, int linkType = kEthernet);
    /// The type of the source's links.
    int linkType() const;

    /// Replaces the filter from the next packet on. Returns why it was refused, and then the old
    /// one holds; empty when it was taken.
    std::string setFilter(const std::string& filter);

    /// Gives the next packet. On a device it returns after a tenth of a second at the latest.
    Result next(Packet& packet);

    /// Makes next() return kEnd.
    void stop();

    bool isLive() const;
    /// The device, or the file as the user named it.
    const std::string& name() const;
    const std::string& warning() const;
    const std::string& fault() const;
    /// Packets that did not pass the filter; of a device they are not known.
    std::uint64_t filteredOut() const;
    /// Packets that the system could not keep for us; 0 for a file.
    std::uint64_t dropped() const;
    /// Tells whether next() may have to wait without a limit: for a pipe that is empty just now.
    bool mayWait() const;
    /// How much of the file was read, 0 to 1; negative when its size is not known.
    double progress() const;

private:
    struct Handle;
    explicit PacketSource(std::unique_ptr<Handle> handle);
    static void openPcapng(Handle& handle);
    Result nextOfPcapng(Packet& packet);

    std::unique_ptr<Handle> handle_;
    std::atomic<bool> stopped_{false};
};

}  // namespace kp::capture
