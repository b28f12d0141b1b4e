#include "packet_source.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>
#include <utility>
#include <vector>

#include "link_layer.h"
#include "pcapng_reader.h"

namespace kp::capture {

struct PacketSource::Handle {
    Handle() = default;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() {
        if (hasProgram)
            pcap_freecode(&program);
        if (pcap != nullptr)
            pcap_close(pcap);
        dropOthers();
        if (ownFile != nullptr)
            std::fclose(ownFile);
    }
    std::FILE* file() const { return pcapng ? ownFile : pcap_file(pcap); }

    bool passes(const pcap_pkthdr& header, const u_char* bytes);
    bool useLink(int type);
    void dropOthers();

    // Of a pcapng file libpcap reads only those whose interfaces are all alike, so we read them;
    // its own handle is then for the links of the packet at hand, to compile filters for.
    std::FILE* ownFile = nullptr;
    std::unique_ptr<PcapngReader> pcapng;
    PcapngReader::Record record;
    bool hasRecord = false;  // read in advance
    std::string filter;
    struct Link {
        pcap_t* pcap;
        bpf_program program;
        bool hasProgram;
    };
    std::map<int, Link> others;  // that were used before, by type

    pcap_t* pcap = nullptr;
    std::vector<u_char> untagged;
    bpf_program program{};
    bool hasProgram = false;
    bool live = false;
    int descriptor = -1;  // of a device, to wait for
    int linkType = 0;
    std::uint64_t filteredOut = 0;
    std::uint64_t fileSize = 0;  // 0: not known
    std::string name;
    std::string warning;
    std::string fault;
};

namespace {

constexpr int kSnapLength = 262144;
constexpr int kBlockMilliseconds = 100;  // how long the system collects before it hands over
constexpr int kWaitMilliseconds = 100;   // how long next() waits for a device
constexpr int kDeviceBuffer = 16 * 1024 * 1024;

std::string errorText(pcap_t* pcap, int status) {
    const std::string detail = pcap_geterr(pcap);
    const std::string general = pcap_statustostr(status);
    if (status == PCAP_ERROR || detail.empty())
        return detail.empty() ? general : detail;
    return detail == general ? general : general + " (" + detail + ")";
}

// Refuses links that nobody can decode, and makes the program of the filter.
void prepare(pcap_t* pcap, const std::string& name, const std::string& filter, bpf_program& program,
             bool& hasProgram) {
    const int linkType = pcap_datalink(pcap);
    if (!isKnownLink(linkType)) {
        const char* text = pcap_datalink_val_to_name(linkType);
        throw PacketSourceError(name + ": links of type " +
                                (text != nullptr ? text : std::to_string(linkType)) +
                                " are not supported");
    }
    if (filter.empty())
        return;
    if (pcap_compile(pcap, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
        throw PacketSourceError("the configured filter \"" + filter +
                                "\" is refused: " + pcap_geterr(pcap));
    }
    hasProgram = true;
}

// Looks at the first bytes, and gives them back.
bool isPcapng(std::FILE* file) {
    unsigned char bytes[4];
    const std::size_t count = std::fread(bytes, 1, sizeof bytes, file);
    for (std::size_t i = count; i > 0; --i)
        std::ungetc(bytes[i - 1], file);
    // The same in either byte order.
    return count == sizeof bytes && bytes[0] == 0x0A && bytes[1] == 0x0D && bytes[2] == 0x0D &&
           bytes[3] == 0x0A;
}

// A damaged record can carry any number; ours stay within what others can compute with.
Timestamp timestamp(const timeval& time) {
    constexpr std::int64_t kLatest = 253402300799;  // the end of the year 9999
    const std::int64_t micros = std::max<std::int64_t>(time.tv_usec, 0);
    const std::int64_t seconds = std::clamp<std::int64_t>(time.tv_sec, 0, kLatest);
    return {seconds + micros / 1000000, static_cast<std::uint32_t>(micros % 1000000)};
}

}  // namespace

// A filter that does not mention VLAN tags is meant for tagged frames too. So a frame that does not
// pass with its tags is tried without them. On a device the system filters, after it has removed
// the tags.
bool PacketSource::Handle::passes(const pcap_pkthdr& header, const u_char* bytes) {
    if (pcap_offline_filter(&program, &header, bytes) != 0)
        return true;
    constexpr std::size_t kAddresses = 12;
    constexpr std::size_t kTag = 4;
    std::size_t at = kAddresses;
    while (linkType == DLT_EN10MB && at + kTag + 2 <= header.caplen &&
           isTag(std::uint32_t{bytes[at]} << 8 | bytes[at + 1])) {
        at += kTag;
    }
    if (at == kAddresses)
        return false;
    untagged.assign(bytes, bytes + kAddresses);
    untagged.insert(untagged.end(), bytes + at, bytes + header.caplen);
    pcap_pkthdr shorter = header;
    shorter.caplen = static_cast<bpf_u_int32>(untagged.size());
    shorter.len -= static_cast<bpf_u_int32>(at - kAddresses);
    return pcap_offline_filter(&program, &shorter, untagged.data()) != 0;
}

// Makes the filter one for links of this type; false when it cannot be, and pcap says why.
bool PacketSource::Handle::useLink(int type) {
    if (pcap != nullptr && type == linkType)
        return hasProgram || filter.empty();
    if (pcap != nullptr) {
        others[linkType] = {pcap, program, hasProgram};
        pcap = nullptr;
        hasProgram = false;
    }
    linkType = type;
    const auto known = others.find(type);
    if (known != others.end()) {
        pcap = known->second.pcap;
        program = known->second.program;
        hasProgram = known->second.hasProgram;
        others.erase(known);
        return hasProgram || filter.empty();
    }
    pcap = pcap_open_dead(type, kSnapLength);
    if (pcap == nullptr)
        throw std::bad_alloc();
    hasProgram = !filter.empty() &&
                 pcap_compile(pcap, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
    return hasProgram || filter.empty();
}

void PacketSource::Handle::dropOthers() {
    for (auto& entry : others) {
        if (entry.second.hasProgram)
            pcap_freecode(&entry.second.program);
        pcap_close(entry.second.pcap);
    }
    others.clear();
}

PacketSource::PacketSource(std::unique_ptr<Handle> handle) : handle_(std::move(handle)) {}

PacketSource::~PacketSource() = default;

std::unique_ptr<PacketSource> PacketSource::openFile(const std::string& path,
                                                     const std::string& filter) {
    const std::string name = path == "-" ? "standard input" : path;
    char error[PCAP_ERRBUF_SIZE] = "";
    auto handle = std::make_unique<Handle>();
    handle->name = name;
    struct stat status {};
    if (path != "-" && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        throw PacketSourceError(path + ": is a directory, not a capture");
    }
    handle->filter = filter;
    std::FILE* const file = path == "-" ? stdin : std::fopen(path.c_str(), "rbe");
    if (file == nullptr)
        throw PacketSourceError(path + ": " + std::strerror(errno));
    if (isPcapng(file)) {
        handle->ownFile = file;
        openPcapng(*handle);
        return std::unique_ptr<PacketSource>(new PacketSource(std::move(handle)));
    }
    handle->pcap = pcap_fopen_offline(file, error);
    if (handle->pcap == nullptr) {
        std::fclose(file);
        throw PacketSourceError(name + ": not a readable capture: " + error);
    }
    if (fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode))
        handle->fileSize = static_cast<std::uint64_t>(status.st_size);
    handle->linkType = pcap_datalink(handle->pcap);
    prepare(handle->pcap, name, filter, handle->program, handle->hasProgram);
    return std::unique_ptr<PacketSource>(new PacketSource(std::move(handle)));
}

// Reads up to the first packet, so that a file that cannot be used is refused at once.
void PacketSource::openPcapng(Handle& handle) {
    struct stat status {};
    if (fstat(fileno(handle.ownFile), &status) == 0 && S_ISREG(status.st_mode))
        handle.fileSize = static_cast<std::uint64_t>(status.st_size);
    handle.pcapng = std::make_unique<PcapngReader>(handle.ownFile);
    const PcapngReader::Result result = handle.pcapng->next(handle.record);
    const std::vector<int> types = handle.pcapng->linkTypes();
    if (result == PcapngReader::Result::kFault && types.empty())
        throw PacketSourceError(handle.name +
                                ": not a readable capture: " + handle.pcapng->fault());
    if (!types.empty() && std::none_of(types.begin(), types.end(), isKnownLink)) {
        const char* text = pcap_datalink_val_to_name(types.front());
        throw PacketSourceError(handle.name + ": links of type " +
                                (text != nullptr ? text : std::to_string(types.front())) +
                                " are not supported");
    }
    handle.hasRecord = result == PcapngReader::Result::kPacket;
    if (result == PcapngReader::Result::kFault)
        handle.fault = handle.name + ": " + handle.pcapng->fault();
    const int type =
        handle.hasRecord ? handle.record.linkType : (types.empty() ? kEthernet : types.front());
    if (!handle.useLink(type))
        throw PacketSourceError("the configured filter \"" + handle.filter +
                                "\" is refused: " + pcap_geterr(handle.pcap));
}

PacketSource::Result PacketSource::nextOfPcapng(Packet& packet) {
    Handle& handle = *handle_;
    if (!handle.fault.empty())
        return Result::kFault;
    if (!std::exchange(handle.hasRecord, false)) {
        const PcapngReader::Result result = handle.pcapng->next(handle.record);
        if (result != PcapngReader::Result::kPacket) {
            // A signal that arrives while a pipe is read looks like a fault of the file.
            if (result == PcapngReader::Result::kEnd || stopped_.load(std::memory_order_relaxed))
                return Result::kEnd;
            handle.fault = handle.name + ": " + handle.pcapng->fault();
            return Result::kFault;
        }
    }
    const PcapngReader::Record& record = handle.record;
    pcap_pkthdr header{};
    header.caplen = static_cast<bpf_u_int32>(record.bytes.size());
    header.len = std::max(record.size, header.caplen);
    const auto* const bytes = reinterpret_cast<const u_char*>(record.bytes.data());
    // A filter that cannot be compiled for the link type of the first packet is an error. Packets
    // of other types for which it cannot be compiled do not pass.
    if (!handle.useLink(record.linkType) || (handle.hasProgram && !handle.passes(header, bytes))) {
        ++handle.filteredOut;
        return Result::kNothing;
    }
    packet.time = record.time;
    packet.linkType = record.linkType;
    packet.bytes = record.bytes;
    return Result::kPacket;
}

std::unique_ptr<PacketSource> PacketSource::openDevice(const std::string& device,
                                                       const std::string& filter) {
    char error[PCAP_ERRBUF_SIZE] = "";
    auto handle = std::make_unique<Handle>();
    handle->name = device;
    handle->live = true;
    handle->pcap = pcap_create(device.c_str(), error);
    if (handle->pcap == nullptr)
        throw PacketSourceError(device + ": " + error);
    pcap_set_snaplen(handle->pcap, kSnapLength);
    pcap_set_promisc(handle->pcap, 1);
    pcap_set_timeout(handle->pcap, kBlockMilliseconds);
    pcap_set_buffer_size(handle->pcap, kDeviceBuffer);
    const int status = pcap_activate(handle->pcap);
    if (status < 0)
        throw PacketSourceError(device + ": " + errorText(handle->pcap, status));
    if (status > 0)
        handle->warning = device + ": " + errorText(handle->pcap, status);
    handle->linkType = pcap_datalink(handle->pcap);
    prepare(handle->pcap, device, filter, handle->program, handle->hasProgram);
    if (handle->hasProgram && pcap_setfilter(handle->pcap, &handle->program) != 0) {
        throw PacketSourceError(device + ": " + pcap_geterr(handle->pcap));
    }
    // A blocking read of a silent device may never return; we wait by ourselves.
    handle->descriptor = pcap_get_selectable_fd(handle->pcap);
    if (handle->descriptor < 0 || pcap_setnonblock(handle->pcap, 1, error) != 0) {
        throw PacketSourceError(device + ": cannot be watched without blocking");
    }
    return std::unique_ptr<PacketSource>(new PacketSource(std::move(handle)));
}

const int PacketSource::kEthernet = DLT_EN10MB;

int PacketSource::linkType() const {
    return handle_->linkType;
}

std::string PacketSource::filterFault(const std::string& filter, int linkType) {
    if (filter.empty())
        return "";
    pcap_t* const dead = pcap_open_dead(linkType, kSnapLength);
    if (dead == nullptr)
        return "out of memory";
    bpf_program program{};
    std::string fault;
    if (pcap_compile(dead, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0) {
        pcap_freecode(&program);
    } else {
        fault = "the filter is refused: " + std::string(pcap_geterr(dead));
    }
    pcap_close(dead);
    return fault;
}

std::string PacketSource::setFilter(const std::string& filter) {
    bpf_program program{};
    // A device keeps a filter of its own, so "all packets" has to be told to it.
    const bool isNeeded = !filter.empty() || handle_->live;
    if (isNeeded &&
        pcap_compile(handle_->pcap, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
        return pcap_geterr(handle_->pcap);
    }
    if (handle_->live && pcap_setfilter(handle_->pcap, &program) != 0) {
        pcap_freecode(&program);
        return pcap_geterr(handle_->pcap);
    }
    if (handle_->hasProgram)
        pcap_freecode(&handle_->program);
    handle_->program = program;
    handle_->hasProgram = isNeeded;
    handle_->filter = filter;
    handle_->dropOthers();
    return "";
}

PacketSource::Result PacketSource::next(Packet& packet) {
    if (stopped_.load(std::memory_order_relaxed))
        return Result::kEnd;
    if (handle_->pcapng)
        return nextOfPcapng(packet);
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = pcap_next_ex(handle_->pcap, &header, &bytes);
    if (result == 0) {
        pollfd device{handle_->descriptor, POLLIN, 0};
        poll(&device, 1, kWaitMilliseconds);
        return Result::kNothing;
    }
    if (result == PCAP_ERROR_BREAK)
        return Result::kEnd;
    if (result < 0) {
        // A signal that arrives while a pipe is read looks like a fault of the file.
        if (stopped_.load(std::memory_order_relaxed))
            return Result::kEnd;
        handle_->fault = handle_->name + ": " + pcap_geterr(handle_->pcap);
        return Result::kFault;
    }
    if (handle_->hasProgram && !handle_->live && !handle_->passes(*header, bytes)) {
        ++handle_->filteredOut;
        return Result::kNothing;
    }
    packet.time = timestamp(header->ts);
    packet.linkType = handle_->linkType;
    packet.bytes = std::string_view(reinterpret_cast<const char*>(bytes), header->caplen);
    return Result::kPacket;
}

void PacketSource::stop() {
    stopped_.store(true, std::memory_order_relaxed);
    if (!handle_->pcapng)
        pcap_breakloop(handle_->pcap);
}

bool PacketSource::isLive() const {
    return handle_->live;
}

const std::string& PacketSource::name() const {
    return handle_->name;
}

const std::string& PacketSource::warning() const {
    return handle_->warning;
}

const std::string& PacketSource::fault() const {
    return handle_->fault;
}

std::uint64_t PacketSource::filteredOut() const {
    return handle_->filteredOut;
}

std::uint64_t PacketSource::dropped() const {
    pcap_stat statistics{};
    if (!handle_->live || pcap_stats(handle_->pcap, &statistics) != 0)
        return 0;
    return std::uint64_t{statistics.ps_drop} + statistics.ps_ifdrop;
}

bool PacketSource::mayWait() const {
    if (handle_->live || handle_->fileSize != 0)
        return false;
    pollfd pipe{fileno(handle_->file()), POLLIN, 0};
    return poll(&pipe, 1, 0) == 0;
}

double PacketSource::progress() const {
    if (handle_->fileSize == 0)
        return -1;
    const off_t position = ftello(handle_->file());
    if (position < 0)
        return -1;
    return static_cast<double>(position) / static_cast<double>(handle_->fileSize);
}

}  // namespace kp::capture
