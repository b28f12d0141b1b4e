// kp-capture: capture files in the pcapng format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "packet/traffic.h"

namespace kp::capture {

/// Reads the packets of a pcapng file, block by block, from any number of sections and interfaces,
/// each with its own byte order, link type, resolution of times and snap length. Blocks that carry
/// no packets are stepped over.
///
/// The format: draft-ietf-opsawg-pcapng.
class PcapngReader {
public:
    enum class Result {
        kPacket,
        kEnd,
        kFault  ///< fault() says what is wrong; the packets before it are good
    };

    /// A packet; the bytes are valid until the next one is read.
    struct Record {
        Timestamp time;
        int linkType = 0;        ///< libpcap's DLT_ number
        std::uint32_t size = 0;  ///< bytes on the wire
        std::string_view bytes;
    };

    /// The first four bytes of every such file.
    static constexpr std::uint32_t kMagic = 0x0A0D0D0A;
    /// The largest block; a longer one is taken for damage.
    static constexpr std::uint32_t kMostBlock = 16 * 1024 * 1024;
    /// The most of a packet that is handed out; the rest counts as cut off.
    static constexpr std::size_t kMostBytes = 262144;

    /// @p file stands at the first byte, stays the caller's, and outlives the reader.
    explicit PcapngReader(std::FILE* file) : file_(file) {}

    Result next(Record& record);
    const std::string& fault() const { return fault_; }
    /// The types of the links seen so far.
    std::vector<int> linkTypes() const;

private:
    struct Interface {
        int linkType = 0;
        std::uint32_t snapLength = 0;
        bool isBinary = false;  // of the resolution: 2 to the power of -exponent, else 10
        unsigned exponent = 6;
        std::int64_t offset = 0;  // seconds
    };

    std::uint32_t number(const char* bytes, int size) const;
    Result fail(const char* text);
    bool read(char* bytes, std::size_t size);
    bool readBlock(std::uint32_t& type);
    void readInterface();
    void readOptions(Interface& interface, std::size_t at) const;
    static Timestamp timeOf(const Interface& interface, std::uint64_t units);
    bool readPacket(std::uint32_t type, Record& record);

    std::FILE* file_;
    bool isBig_ = false;  // byte order of the section
    bool isAtEnd_ = false;
    std::vector<char> body_;  // of the block that was read last
    std::vector<Interface> interfaces_;
    Timestamp last_;
    std::string fault_;
};

}  // namespace kp::capture
