#include "source/device_source.h"

#include <net/if.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "source/filter_program.h"
#include "source/pcap_support.h"

namespace kp::capture {

namespace {

constexpr int kMostPackets = 4096;       // that a read gives
constexpr int kBlockMilliseconds = 100;  // how long the system collects before it hands over
constexpr int kWaitMilliseconds = 100;   // how long a read waits
// After a read that gave many packets or bytes, but not much of the buffer, we let some milliseconds of more
// come together: to be woken for each block costs us and the system more than to read it.
constexpr int kManyPackets = 256;
constexpr std::size_t kManyBytes = std::size_t{128} * 1024;
constexpr int kMuchOfBuffer = 16;  // a part of it
constexpr int kNapMilliseconds = 10;
constexpr std::chrono::milliseconds kLookInterval{200};        // while nothing can be seen
constexpr std::chrono::milliseconds kQuietLookInterval{1000};  // while there is no traffic
// After this long the system has handed over the last block of a device that has gone.
constexpr std::chrono::seconds kLongestEnd{2};
constexpr std::chrono::milliseconds kLastBlock{3 * kBlockMilliseconds};

struct Interface {
    unsigned index;
    bool isUp;
};

std::optional<Interface> interfaceOf(const std::string& name) {
    ifreq request{};
    if (name.size() >= sizeof request.ifr_name)
        return std::nullopt;
    std::memcpy(request.ifr_name, name.c_str(), name.size());
    const int descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return std::nullopt;
    Interface result{};
    bool isThere = ::ioctl(descriptor, SIOCGIFINDEX, &request) == 0;
    result.index = static_cast<unsigned>(request.ifr_ifindex);
    isThere = isThere && ::ioctl(descriptor, SIOCGIFFLAGS, &request) == 0;
    result.isUp = (request.ifr_flags & IFF_UP) != 0;
    ::close(descriptor);
    return isThere ? std::optional(result) : std::nullopt;
}

std::string errorText(pcap_t* pcap, int status) {
    const std::string detail = pcap_geterr(pcap);
    const std::string general = pcap_statustostr(status);
    if (status == PCAP_ERROR || detail.empty())
        return detail.empty() ? general : detail;
    return detail == general ? general : general + " (" + detail + ")";
}

/// The device is not there, or not up, which may change.
class DeviceMissing : public PacketSourceError {
public:
    using PacketSourceError::PacketSourceError;
};

bool isBefore(const timeval& a, const timeval& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

}  // namespace

// What libpcap has of a device.
class DeviceSource::Handle {
public:
    explicit Handle(const Settings& settings);
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle();

    /// Returns why the filter was refused.
    std::string setFilter(const std::string& filter);
    /// Gives at most so many packets; how many, or the error of libpcap.
    int dispatch(PacketSink& sink);
    std::uint64_t dropped();
    /// What was captured and neither dropped nor given.
    std::uint64_t waiting();
    /// Whether a packet was given that was captured after @p time.
    bool isBeyond(const timeval& time) const { return isBefore(time, last_); }

    pcap_t* pcap = nullptr;
    int descriptor = -1;
    int linkType = 0;
    std::size_t bytes = 0;  // of the packets that dispatch() gave
    std::string warning;

private:
    struct Turn {
        Handle& handle;
        PacketSink& sink;
        std::size_t bytes;
    };
    static void deliver(u_char* turn, const pcap_pkthdr* header, const u_char* bytes);
    void activate(const Settings& settings);
    void join(const Settings& settings);

    FanoutGroup* group_ = nullptr;  // that it is a member of
    bool isNew_ = false;            // what was captured before it joined is another member's, too
    timeval joined_{};
    timeval last_{};  // when the last packet was captured
    std::uint64_t given_ = 0;
};

DeviceSource::Handle::Handle(const Settings& settings) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap = pcap_create(settings.name.c_str(), error);
    if (pcap == nullptr)
        throw PacketSourceError(settings.name + ": " + error);
    try {
        activate(settings);
        join(settings);
    } catch (...) {
        pcap_close(pcap);
        throw;
    }
}

DeviceSource::Handle::~Handle() {
    pcap_close(pcap);
    if (group_ != nullptr)
        group_->leave();
}

void DeviceSource::Handle::activate(const Settings& settings) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_set_snaplen(pcap, kSnapLength);
    pcap_set_promisc(pcap, 1);
    pcap_set_timeout(pcap, kBlockMilliseconds);
    pcap_set_buffer_size(pcap, settings.buffer);
    const int status = pcap_activate(pcap);
    if (status == PCAP_ERROR_NO_SUCH_DEVICE || status == PCAP_ERROR_IFACE_NOT_UP)
        throw DeviceMissing(settings.name + ": " + errorText(pcap, status));
    if (status < 0)
        throw PacketSourceError(settings.name + ": " + errorText(pcap, status));
    if (status > 0)
        warning = settings.name + ": " + errorText(pcap, status);
    linkType = pcap_datalink(pcap);
    refuseUnknownLink(settings.name, linkType);
    const std::string refusal = settings.filter.empty() ? "" : setFilter(settings.filter);
    if (!refusal.empty())
        throw PacketSourceError("the configured filter \"" + settings.filter +
                                "\" is refused: " + refusal);
    // A blocking read of a silent device may never return; we wait by ourselves.
    descriptor = pcap_get_selectable_fd(pcap);
    if (descriptor < 0 || pcap_setnonblock(pcap, 1, error) != 0)
        throw PacketSourceError(settings.name + ": cannot be watched without blocking");
}

// libpcap knows no groups, but lends us its socket.
void DeviceSource::Handle::join(const Settings& settings) {
    if (settings.group == nullptr)
        return;
    gettimeofday(&joined_, nullptr);
    isNew_ = true;
    const std::string fault = settings.group->join(pcap_fileno(pcap));
    if (!fault.empty())
        throw PacketSourceError(settings.name + ": several readers cannot share it: " + fault);
    group_ = settings.group;
}

// A device keeps a filter of its own, so "all packets" has to be told to it, too.
std::string DeviceSource::Handle::setFilter(const std::string& filter) {
    if (filter.empty() || needsDevice(filter)) {
        bpf_program program{};
        if (pcap_compile(pcap, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0)
            return pcap_geterr(pcap);
        const bool isSet = pcap_setfilter(pcap, &program) == 0;
        pcap_freecode(&program);
        return isSet ? "" : pcap_geterr(pcap);
    }
    try {
        const FilterProgram kept = filterProgram(filter, linkType);
        bpf_program program = *kept;
        return pcap_setfilter(pcap, &program) == 0 ? "" : pcap_geterr(pcap);
    } catch (const PacketSourceError& error) {
        return error.what();
    }
}

void DeviceSource::Handle::deliver(u_char* turn, const pcap_pkthdr* header, const u_char* bytes) {
    Turn& at = *reinterpret_cast<Turn*>(turn);
    at.bytes += header->caplen;
    at.handle.last_ = header->ts;
    ++at.handle.given_;
    if (at.handle.isNew_ && isBefore(header->ts, at.handle.joined_))
        return;
    at.handle.isNew_ = false;
    Packet packet;
    packet.time = timestampOf(header->ts);
    packet.linkType = at.handle.linkType;
    packet.bytes = std::string_view(reinterpret_cast<const char*>(bytes), header->caplen);
    at.sink.packet(packet);
}

int DeviceSource::Handle::dispatch(PacketSink& sink) {
    Turn turn{*this, sink, 0};
    const int count = pcap_dispatch(pcap, kMostPackets, deliver, reinterpret_cast<u_char*>(&turn));
    bytes = turn.bytes;
    return count;
}

// What the interface dropped is not in it: ps_ifdrop leaves out what some drivers count.
std::uint64_t DeviceSource::Handle::dropped() {
    pcap_stat statistics{};
    return pcap_stats(pcap, &statistics) == 0 ? statistics.ps_drop : 0;
}

std::uint64_t DeviceSource::Handle::waiting() {
    pcap_stat statistics{};
    if (pcap_stats(pcap, &statistics) != 0)
        return 0;
    const std::uint64_t known = statistics.ps_drop + given_;
    return statistics.ps_recv > known ? statistics.ps_recv - known : 0;
}

DeviceSource::DeviceSource(Settings settings) : settings_(std::move(settings)) {
    try {
        open();
    } catch (const DeviceMissing&) {
        if (!settings_.mayWait)
            throw;
        const std::string refusal = filterFault(settings_.filter);
        if (!refusal.empty())
            throw PacketSourceError(refusal);
        becomeBlind(interfaceOf(settings_.name) ? "is down" : "is not there");
    }
}

DeviceSource::~DeviceSource() = default;

void DeviceSource::open() {
    // Before the handle is: if the device is replaced in between, that shows.
    const std::optional<Interface> interface = interfaceOf(settings_.name);
    handle_ = std::make_unique<Handle>(settings_);
    index_ = interface ? interface->index : 0;
    linkType_ = handle_->linkType;
    warning_ = handle_->warning;
    hasMore_ = false;
    obstacle_.clear();
    looked_ = Clock::now();
}

void DeviceSource::close() {
    droppedBefore_ = dropped();
    handle_.reset();
    goneSince_.reset();
    hasMore_ = false;
}

DeviceSource::Presence DeviceSource::presence() const {
    if (index_ == 0)
        return Presence::kWatched;
    const std::optional<Interface> interface = interfaceOf(settings_.name);
    if (!interface || interface->index != index_)
        return Presence::kGone;
    return interface->isUp ? Presence::kWatched : Presence::kDown;
}

void DeviceSource::becomeBlind(const std::string& why) {
    if (isBlind_)
        return;
    blindSince_ = Clock::now();
    isBlind_ = true;
    settings_.listener(settings_.name + " " + why + "; waiting for it");
}

void DeviceSource::seeAgain() {
    if (!isBlind_)
        return;
    isBlind_ = false;
    const auto time =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - blindSince_);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f", static_cast<double>(time.count()) / 1000);
    settings_.listener(settings_.name + " is watched after a wait of " + seconds +
                       " seconds; what it carried meanwhile was not seen");
}

// Looks after the device: after an error of its socket, and now and then while it is silent.
void DeviceSource::look() {
    looked_ = Clock::now();
    if (goneSince_)
        return;
    switch (presence()) {
        case Presence::kWatched:
            seeAgain();
            break;
        case Presence::kDown:
            // The socket stays with the device, and sees it again as soon as it is up.
            becomeBlind("is down");
            break;
        case Presence::kGone:
            becomeBlind("has disappeared");
            goneSince_ = looked_;
            break;
    }
}

void DeviceSource::tryToOpen() {
    looked_ = Clock::now();
    const std::optional<Interface> interface = interfaceOf(settings_.name);
    if (!interface || !interface->isUp)
        return;
    try {
        open();
        seeAgain();
    } catch (const DeviceMissing&) {
        return;  // it has gone again meanwhile
    } catch (const PacketSourceError& error) {
        // Another reader may not have left the old device yet, so the first time says nothing.
        obstacleCount_ = obstacle_ == error.what() ? obstacleCount_ + 1 : 1;
        obstacle_ = error.what();
        if (obstacleCount_ == 2)
            settings_.listener(obstacle_);
    }
}

// Asked before each read after stop(), the first time at once.
bool DeviceSource::isReadToTheEnd() {
    if (!handle_)
        return true;
    const Clock::time_point now = Clock::now();
    if (!stopSeen_) {
        stopSeen_ = now;
        gettimeofday(&stopTime_, nullptr);
        return false;
    }
    if (handle_->isBeyond(stopTime_) || (isSilent_ && now - *stopSeen_ >= kLastBlock))
        return true;
    if (now - *stopSeen_ < kLongestEnd)
        return false;
    left_ = handle_->waiting();
    return true;
}

PacketSource::Result DeviceSource::read(PacketSink& sink) {
    if (isStopped_.load(std::memory_order_relaxed) && isReadToTheEnd())
        return Result::kEnd;
    isSilent_ = false;
    if (!handle_) {
        poll(nullptr, 0, kWaitMilliseconds);
        if (Clock::now() - looked_ >= kLookInterval)
            tryToOpen();
        return Result::kEmpty;
    }
    // With traffic the wait below does not end without packets.
    if (isBlind_ && Clock::now() - looked_ >= kLookInterval)
        look();
    if (!hasMore_) {
        if (mayNap_)
            poll(nullptr, 0, kNapMilliseconds);
        pollfd device{handle_->descriptor, POLLIN, 0};
        const int ready = poll(&device, 1, kWaitMilliseconds);
        if (goneSince_ && Clock::now() - *goneSince_ >= kLastBlock) {
            while (handle_->dispatch(sink) == kMostPackets) {
            }
            close();
            return Result::kEmpty;
        }
        isSilent_ = ready == 0;
        if (ready <= 0) {
            if (Clock::now() - looked_ >= kQuietLookInterval)
                look();
            return Result::kEmpty;
        }
        if ((device.revents & POLLIN) == 0) {
            int error = 0;
            socklen_t size = sizeof error;
            getsockopt(handle_->descriptor, SOL_SOCKET, SO_ERROR, &error, &size);  // forgets it
            if (error != 0 && error != ENETDOWN) {
                fault_ = settings_.name + ": " + std::strerror(error);
                return Result::kFault;
            }
            look();
            return Result::kEmpty;
        }
    }
    const int count = handle_->dispatch(sink);
    hasMore_ = count == kMostPackets;
    bytesAtOnce_ += handle_->bytes;
    mayNap_ = (count >= kManyPackets || handle_->bytes >= kManyBytes) &&
              bytesAtOnce_ < static_cast<std::size_t>(settings_.buffer) / kMuchOfBuffer;
    if (!hasMore_)
        bytesAtOnce_ = 0;
    if (count >= 0)
        return hasMore_ ? Result::kMore : Result::kEmpty;
    if (presence() != Presence::kWatched) {
        look();
        return Result::kEmpty;
    }
    fault_ = settings_.name + ": " + pcap_geterr(handle_->pcap);
    return Result::kFault;
}

std::string DeviceSource::setFilter(const std::string& filter) {
    std::string refusal = handle_ ? handle_->setFilter(filter) : filterFault(filter, linkType_);
    if (refusal.empty())
        settings_.filter = filter;
    return refusal;
}

std::uint64_t DeviceSource::dropped() {
    return droppedBefore_ + (handle_ ? handle_->dropped() : 0);
}

}  // namespace kp::capture
