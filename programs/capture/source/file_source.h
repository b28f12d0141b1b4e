// kp-capture: packets from a capture file.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "source/packet_source.h"

namespace kp::capture {

/// Reads a pcap file through libpcap, a pcapng file by our own reader.
class FileSource : public PacketSource {
public:
    /// Opens a pcap or pcapng file; "-" is standard input. @p filter is BPF, empty for all packets.
    /// Throws PacketSourceError.
    static std::unique_ptr<FileSource> open(const std::string& path, const std::string& filter);
    ~FileSource() override;

    /// Of a pipe it returns before it would have to wait for the next packet.
    Result read(PacketSink& sink) override;
    void stop() override;
    int linkType() const override;
    std::string setFilter(const std::string& filter) override;
    bool isLive() const override { return false; }
    const std::string& name() const override;
    const std::string& warning() const override;
    const std::string& fault() const override;
    std::uint64_t filteredOut() const override;
    std::uint64_t dropped() override { return 0; }
    double progress() const override;

private:
    enum class Step { kPacket, kNothing, kEnd, kFault };
    struct Handle;

    explicit FileSource(std::unique_ptr<Handle> handle);
    static void openPcapng(Handle& handle);
    Step next(Packet& packet);
    Step nextOfPcap(Packet& packet);
    Step nextOfPcapng(Packet& packet);
    bool mayWait() const;

    std::unique_ptr<Handle> handle_;
    std::atomic<bool> stopped_{false};
};

}  // namespace kp::capture
