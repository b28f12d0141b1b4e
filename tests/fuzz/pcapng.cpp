// Any bytes as a pcapng file.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "source/pcapng_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using kp::capture::PcapngReader;
    if (size == 0)
        return 0;
    std::FILE* const file = ::fmemopen(const_cast<std::uint8_t*>(data), size, "rb");
    if (file == nullptr)
        return 0;
    PcapngReader reader(file);
    PcapngReader::Record record;
    std::size_t bytes = 0;
    PcapngReader::Result result = reader.next(record);
    for (; result == PcapngReader::Result::kPacket; result = reader.next(record)) {
        bytes += record.bytes.size();
        if (record.time.seconds < 0 || record.time.microseconds > 999999)
            std::abort();
    }
    std::fclose(file);
    // Every fault has its words, and no byte is handed out twice.
    if ((result == PcapngReader::Result::kFault) == reader.fault().empty() || bytes > size)
        std::abort();
    return 0;
}
