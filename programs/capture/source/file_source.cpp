#include "source/file_source.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "packet/link_layer.h"
#include "source/filter_program.h"
#include "source/pcap_support.h"
#include "source/pcapng_reader.h"

namespace kp::capture {

struct FileSource::Handle {
    Handle() = default;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() {
        if (pcap != nullptr)
            pcap_close(pcap);
        if (ownFile != nullptr)
            std::fclose(ownFile);
    }
    std::FILE* file() const { return pcapng ? ownFile : pcap_file(pcap); }

    bool passes(const pcap_pkthdr& header, const u_char* bytes);
    bool useLink(int type);
    std::string refusal() {
        return "the configured filter \"" + filter + "\" is refused: " + links[linkType].refusal;
    }

    // Of a pcapng file libpcap reads only those whose interfaces are all alike, so we read them.
    std::FILE* ownFile = nullptr;
    std::unique_ptr<PcapngReader> pcapng;
    PcapngReader::Record record;
    bool hasRecord = false;  // read in advance
    std::string filter;
    struct Link {
        FilterProgram program;
        std::string refusal;
    };
    std::map<int, Link> links;  // the filter for the links of the packets, by type

    pcap_t* pcap = nullptr;
    std::vector<u_char> untagged;
    FilterProgram program;
    int linkType = 0;
    std::uint64_t filteredOut = 0;
    std::uint64_t fileSize = 0;  // 0: not known
    std::string name;
    std::string warning;
    std::string fault;
};

namespace {

constexpr unsigned kMostPackets = 1024;  // that read() gives

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

}  // namespace

// A filter that does not mention VLAN tags is meant for tagged frames too. So a frame that does not
// pass with its tags is tried without them. On a device the system filters, after it has removed
// the tags.
bool FileSource::Handle::passes(const pcap_pkthdr& header, const u_char* bytes) {
    if (pcap_offline_filter(program.get(), &header, bytes) != 0)
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
    return pcap_offline_filter(program.get(), &shorter, untagged.data()) != 0;
}

// Makes the filter one for links of this type; false when it cannot be.
bool FileSource::Handle::useLink(int type) {
    linkType = type;
    const auto [place, isNew] = links.try_emplace(type);
    Link& link = place->second;
    if (isNew) {
        try {
            link.program = filterProgram(filter, type);
        } catch (const PacketSourceError& error) {
            link.refusal = error.what();
        }
    }
    program = link.program;
    return link.refusal.empty();
}

FileSource::FileSource(std::unique_ptr<Handle> handle) : handle_(std::move(handle)) {}

FileSource::~FileSource() = default;

std::unique_ptr<FileSource> FileSource::open(const std::string& path, const std::string& filter) {
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
        return std::unique_ptr<FileSource>(new FileSource(std::move(handle)));
    }
    handle->pcap = pcap_fopen_offline(file, error);
    if (handle->pcap == nullptr) {
        std::fclose(file);
        throw PacketSourceError(name + ": not a readable capture: " + error);
    }
    if (fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode))
        handle->fileSize = static_cast<std::uint64_t>(status.st_size);
    handle->linkType = pcap_datalink(handle->pcap);
    refuseUnknownLink(name, handle->linkType);
    if (!handle->useLink(handle->linkType))
        throw PacketSourceError(handle->refusal());
    return std::unique_ptr<FileSource>(new FileSource(std::move(handle)));
}

// Reads up to the first packet, so that a file that cannot be used is refused at once.
void FileSource::openPcapng(Handle& handle) {
    struct stat status {};
    if (fstat(fileno(handle.ownFile), &status) == 0 && S_ISREG(status.st_mode))
        handle.fileSize = static_cast<std::uint64_t>(status.st_size);
    handle.pcapng = std::make_unique<PcapngReader>(handle.ownFile);
    const PcapngReader::Result result = handle.pcapng->next(handle.record);
    const std::vector<int> types = handle.pcapng->linkTypes();
    if (result == PcapngReader::Result::kFault && types.empty())
        throw PacketSourceError(handle.name +
                                ": not a readable capture: " + handle.pcapng->fault());
    if (!types.empty() && std::none_of(types.begin(), types.end(), isKnownLink))
        refuseUnknownLink(handle.name, types.front());
    handle.hasRecord = result == PcapngReader::Result::kPacket;
    if (result == PcapngReader::Result::kFault)
        handle.fault = handle.name + ": " + handle.pcapng->fault();
    const int type =
        handle.hasRecord ? handle.record.linkType : (types.empty() ? kEthernet : types.front());
    if (!handle.useLink(type))
        throw PacketSourceError(handle.refusal());
}

FileSource::Step FileSource::nextOfPcapng(Packet& packet) {
    Handle& handle = *handle_;
    if (!handle.fault.empty())
        return Step::kFault;
    if (!std::exchange(handle.hasRecord, false)) {
        const PcapngReader::Result result = handle.pcapng->next(handle.record);
        if (result != PcapngReader::Result::kPacket) {
            // A signal that arrives while a pipe is read looks like a fault of the file.
            if (result == PcapngReader::Result::kEnd || stopped_.load(std::memory_order_relaxed))
                return Step::kEnd;
            handle.fault = handle.name + ": " + handle.pcapng->fault();
            return Step::kFault;
        }
    }
    const PcapngReader::Record& record = handle.record;
    pcap_pkthdr header{};
    header.caplen = static_cast<bpf_u_int32>(record.bytes.size());
    header.len = std::max(record.size, header.caplen);
    const auto* const bytes = reinterpret_cast<const u_char*>(record.bytes.data());
    // A filter that cannot be compiled for the link type of the first packet is an error. Packets
    // of other types for which it cannot be compiled do not pass.
    if (!handle.useLink(record.linkType) || (handle.program && !handle.passes(header, bytes))) {
        ++handle.filteredOut;
        return Step::kNothing;
    }
    packet.time = record.time;
    packet.linkType = record.linkType;
    packet.bytes = record.bytes;
    return Step::kPacket;
}

int FileSource::linkType() const {
    return handle_->linkType;
}

std::string FileSource::setFilter(const std::string& filter) {
    try {
        const FilterProgram program = filterProgram(filter, handle_->linkType);
        handle_->filter = filter;
        handle_->links = {{handle_->linkType, {program, ""}}};
        handle_->program = program;
    } catch (const PacketSourceError& error) {
        return error.what();
    }
    return "";
}

FileSource::Step FileSource::nextOfPcap(Packet& packet) {
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = pcap_next_ex(handle_->pcap, &header, &bytes);
    if (result == PCAP_ERROR_BREAK)
        return Step::kEnd;
    if (result < 0) {
        // A signal that arrives while a pipe is read looks like a fault of the file.
        if (stopped_.load(std::memory_order_relaxed))
            return Step::kEnd;
        handle_->fault = handle_->name + ": " + pcap_geterr(handle_->pcap);
        return Step::kFault;
    }
    if (handle_->program && !handle_->passes(*header, bytes)) {
        ++handle_->filteredOut;
        return Step::kNothing;
    }
    packet.time = timestampOf(header->ts);
    packet.linkType = handle_->linkType;
    packet.bytes = std::string_view(reinterpret_cast<const char*>(bytes), header->caplen);
    return Step::kPacket;
}

FileSource::Step FileSource::next(Packet& packet) {
    return handle_->pcapng ? nextOfPcapng(packet) : nextOfPcap(packet);
}

PacketSource::Result FileSource::read(PacketSink& sink) {
    Packet packet;
    bool isGiven = false;
    for (unsigned i = 0; i < kMostPackets; ++i) {
        if (stopped_.load(std::memory_order_relaxed))
            return Result::kEnd;
        if (isGiven && mayWait())
            return Result::kEmpty;
        switch (next(packet)) {
            case Step::kPacket:
                sink.packet(packet);
                isGiven = true;
                break;
            case Step::kNothing:
                break;
            case Step::kEnd:
                return Result::kEnd;
            case Step::kFault:
                return Result::kFault;
        }
    }
    return Result::kMore;
}

void FileSource::stop() {
    stopped_.store(true, std::memory_order_relaxed);
    if (!handle_->pcapng)
        pcap_breakloop(handle_->pcap);
}

const std::string& FileSource::name() const {
    return handle_->name;
}

const std::string& FileSource::warning() const {
    return handle_->warning;
}

const std::string& FileSource::fault() const {
    return handle_->fault;
}

std::uint64_t FileSource::filteredOut() const {
    return handle_->filteredOut;
}

bool FileSource::mayWait() const {
    if (handle_->fileSize != 0)
        return false;
    pollfd pipe{fileno(handle_->file()), POLLIN, 0};
    return poll(&pipe, 1, 0) == 0;
}

double FileSource::progress() const {
    if (handle_->fileSize == 0)
        return -1;
    const off_t position = ftello(handle_->file());
    if (position < 0)
        return -1;
    return static_cast<double>(position) / static_cast<double>(handle_->fileSize);
}

}  // namespace kp::capture
