#include "source/pcapng_reader.h"

#include <pcap/pcap.h>

#include <algorithm>

namespace kp::capture {

namespace {

constexpr std::uint32_t kSection = PcapngReader::kMagic;
constexpr std::uint32_t kInterface = 1;
constexpr std::uint32_t kOldPacket = 2;
constexpr std::uint32_t kSimplePacket = 3;
constexpr std::uint32_t kPacket = 6;
constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::size_t kFrame = 12;  // a block's type, and its length at either end

constexpr unsigned kOptionEnd = 0;
constexpr unsigned kOptionResolution = 9;
constexpr unsigned kOptionOffset = 14;

}  // namespace

// A number of 2 or 4 bytes in the byte order of the section.
std::uint32_t PcapngReader::number(const char* bytes, int size) const {
    std::uint32_t value = 0;
    for (int i = 0; i < size; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes[isBig_ ? i : size - 1 - i]);
    return value;
}

PcapngReader::Result PcapngReader::fail(const char* text) {
    fault_ = text;
    return Result::kFault;
}

bool PcapngReader::read(char* bytes, std::size_t size) {
    const std::size_t done = std::fread(bytes, 1, size, file_);
    isAtEnd_ = done == 0 && std::ferror(file_) == 0;
    return done == size;
}

// Reads the next block into body_, its type and lengths left out.
bool PcapngReader::readBlock(std::uint32_t& type) {
    char head[kFrame];
    if (!read(head, 8)) {
        if (!isAtEnd_)
            fault_ = "the file ends within a block";
        return false;
    }
    isAtEnd_ = false;
    type = number(head, 4);
    std::size_t known = 0;  // of the body
    if (type == kSection) {
        if (!read(head + 8, 4)) {
            isAtEnd_ = false;
            fault_ = "the file ends within a block";
            return false;
        }
        known = 4;
        isBig_ = head[8] == 0x1A;
        if (number(head + 8, 4) != kByteOrder) {
            fault_ = "a section of an unknown byte order";
            return false;
        }
    }
    const std::uint32_t length = number(head + 4, 4);
    if (length < kFrame + known || length % 4 != 0 || length > kMostBlock) {
        fault_ = "a block of " + std::to_string(length) + " bytes";
        return false;
    }
    body_.resize(length - 8);
    std::copy_n(head + 8, known, body_.begin());
    const bool isWhole = read(body_.data() + known, body_.size() - known);
    isAtEnd_ = false;
    if (!isWhole || number(body_.data() + body_.size() - 4, 4) != length) {
        fault_ = isWhole ? "a block whose two lengths differ" : "the file ends within a block";
        return false;
    }
    body_.resize(body_.size() - 4);
    return true;
}

void PcapngReader::readOptions(Interface& interface, std::size_t at) const {
    while (at + 4 <= body_.size()) {
        const unsigned code = number(&body_[at], 2);
        const std::size_t length = number(&body_[at + 2], 2);
        at += 4;
        if (code == kOptionEnd || length > body_.size() - at)
            return;
        if (code == kOptionResolution && length == 1) {
            const unsigned value = static_cast<unsigned char>(body_[at]);
            interface.isBinary = (value & 0x80) != 0;
            // Finer than any clock: 64 bits hold no more.
            interface.exponent = std::min(value & 0x7F, interface.isBinary ? 63U : 19U);
        } else if (code == kOptionOffset && length == 8) {
            const std::uint64_t first = number(&body_[at], 4);
            const std::uint64_t second = number(&body_[at + 4], 4);
            interface.offset =
                static_cast<std::int64_t>(isBig_ ? first << 32 | second : second << 32 | first);
        }
        at += (length + 3) / 4 * 4;
    }
}

void PcapngReader::readInterface() {
    constexpr unsigned kRawInFiles = 101;
    Interface interface;
    if (body_.size() >= 8) {
        const std::uint32_t type = number(body_.data(), 2);
        interface.linkType = type == kRawInFiles ? DLT_RAW : static_cast<int>(type);
        interface.snapLength = number(body_.data() + 4, 4);
        readOptions(interface, 8);
    }
    interfaces_.push_back(interface);
}

Timestamp PcapngReader::timeOf(const Interface& interface, std::uint64_t units) {
    std::uint64_t seconds = 0;
    std::uint64_t micros = 0;
    if (interface.isBinary) {
        seconds = units >> interface.exponent;
        std::uint64_t rest = units & ((std::uint64_t{1} << interface.exponent) - 1);
        const unsigned bits = std::min(interface.exponent, 32U);
        rest >>= interface.exponent - bits;
        micros = rest * 1000000 >> bits;
    } else {
        std::uint64_t second = 1;
        for (unsigned i = 0; i < interface.exponent; ++i)
            second *= 10;
        seconds = units / second;
        std::uint64_t rest = units % second;
        for (unsigned i = interface.exponent; i > 6; --i)
            rest /= 10;
        for (unsigned i = interface.exponent; i < 6; ++i)
            rest *= 10;
        micros = rest;
    }
    // Damaged numbers stay within what others can compute with: the year 9999.
    constexpr std::int64_t kLatest = 253402300799;
    const std::int64_t offset = std::clamp(interface.offset, -kLatest, kLatest);
    const auto since = static_cast<std::int64_t>(std::min<std::uint64_t>(seconds, kLatest));
    return {std::clamp<std::int64_t>(since + offset, 0, kLatest),
            static_cast<std::uint32_t>(micros)};
}

// The packet in the block; false when it is none that can be read.
bool PcapngReader::readPacket(std::uint32_t type, Record& record) {
    const bool isSimple = type == kSimplePacket;
    const std::size_t head = isSimple ? 4 : 20;
    if (body_.size() < head)
        return false;
    const char* const body = body_.data();
    const std::uint32_t place = isSimple             ? 0
                                : type == kOldPacket ? number(body, 2)
                                                     : number(body, 4);
    if (place >= interfaces_.size())
        return false;
    const Interface& interface = interfaces_[place];
    const std::size_t room = body_.size() - head;
    std::size_t captured = 0;
    if (isSimple) {
        record.size = number(body, 4);
        captured =
            interface.snapLength != 0 ? std::min(record.size, interface.snapLength) : record.size;
        record.time = last_;
    } else {
        const std::uint64_t high = number(body + 4, 4);
        record.time = timeOf(interface, high << 32 | number(body + 8, 4));
        captured = number(body + 12, 4);
        record.size = number(body + 16, 4);
    }
    last_ = record.time;
    record.linkType = interface.linkType;
    record.bytes = std::string_view(body + head, std::min({captured, room, kMostBytes}));
    return true;
}

PcapngReader::Result PcapngReader::next(Record& record) {
    std::uint32_t type = 0;
    while (readBlock(type)) {
        if (type == kSection) {
            interfaces_.clear();
        } else if (type == kInterface) {
            readInterface();
        } else if (type == kPacket || type == kSimplePacket || type == kOldPacket) {
            if (!readPacket(type, record))
                return fail("a packet of an interface that is not described");
            return Result::kPacket;
        }
    }
    return isAtEnd_ ? Result::kEnd : Result::kFault;
}

std::vector<int> PcapngReader::linkTypes() const {
    std::vector<int> types;
    for (const Interface& interface : interfaces_)
        types.push_back(interface.linkType);
    return types;
}

}  // namespace kp::capture
