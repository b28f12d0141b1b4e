// kp-capture: packets from a device.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "source/fanout_group.h"
#include "source/packet_source.h"

namespace kp::capture {

/// Watches a device in promiscuous mode, through libpcap.
///
/// The system collects packets in blocks of a ring that it shares with us, and hands over a block
/// when it is full or a tenth of a second old. A read takes all packets of the blocks that are
/// there, so the number of system calls depends on the time that passes and not on the packets.
///
/// When the device goes down or disappears, the source is blind: it looks several times a second
/// whether a device of that name is there and up, and watches that one then.
///
/// After stop() it reads on to what was captured after that moment, but no longer than two seconds.
class DeviceSource : public PacketSource {
public:
    /// Is told when the source becomes blind, sees again, or still cannot for another reason.
    using Listener = std::function<void(const std::string& text)>;

    struct Settings {
        std::string name;
        std::string filter;    ///< BPF, empty for all packets
        int buffer = 0;        ///< bytes of the ring
        bool mayWait = false;  ///< a device that is missing or down at the start is waited for
        FanoutGroup* group = nullptr;  ///< of several readers; outlives the source
        Listener listener;             ///< is called on the thread that reads
    };

    /// Throws PacketSourceError.
    explicit DeviceSource(Settings settings);
    ~DeviceSource() override;

    /// Waits at most a tenth of a second.
    Result read(PacketSink& sink) override;
    void stop() override { isStopped_.store(true, std::memory_order_relaxed); }
    /// Of a device that was not there yet: Ethernet.
    int linkType() const override { return linkType_; }
    std::string setFilter(const std::string& filter) override;
    bool isLive() const override { return true; }
    bool isBlind() const override { return isBlind_; }
    const std::string& name() const override { return settings_.name; }
    const std::string& warning() const override { return warning_; }
    const std::string& fault() const override { return fault_; }
    std::uint64_t filteredOut() const override { return 0; }
    std::uint64_t dropped() override;
    std::uint64_t left() const override { return left_; }
    double progress() const override { return -1; }

private:
    using Clock = std::chrono::steady_clock;
    class Handle;
    enum class Presence { kWatched, kDown, kGone };

    void open();
    void close();
    void tryToOpen();
    Presence presence() const;
    void look();
    void becomeBlind(const std::string& why);
    void seeAgain();
    bool isReadToTheEnd();

    Settings settings_;
    std::unique_ptr<Handle> handle_;  // none while there is no device
    unsigned index_ = 0;              // of the interface; 0: it is not one interface
    int linkType_ = kEthernet;
    bool hasMore_ = false;         // the last read did not take all
    bool mayNap_ = false;          // there is time to let more come together
    std::size_t bytesAtOnce_ = 0;  // since nothing more was there
    std::atomic<bool> isBlind_{false};
    Clock::time_point blindSince_;
    Clock::time_point looked_;
    std::optional<Clock::time_point> goneSince_;  // what was captured before is still read
    std::uint64_t droppedBefore_ = 0;             // by handles that were closed
    std::string obstacle_;                        // why a device that is there could not be opened
    unsigned obstacleCount_ = 0;                  // how many times in a row
    std::string warning_;
    std::string fault_;
    std::atomic<bool> isStopped_{false};
    bool isSilent_ = false;  // the last read waited in vain
    std::optional<Clock::time_point> stopSeen_;
    timeval stopTime_{};
    std::uint64_t left_ = 0;
};

}  // namespace kp::capture
