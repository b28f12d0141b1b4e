#include "source/packet_source.h"

#include <pcap/pcap.h>

#include <new>

#include "source/filter_program.h"

namespace kp::capture {

const int PacketSource::kEthernet = DLT_EN10MB;

std::string PacketSource::filterFault(const std::string& filter, int linkType) {
    try {
        compileFilter(filter, linkType);
        return "";
    } catch (const PacketSourceError& error) {
        return std::string("the filter is refused: ") + error.what();
    } catch (const std::bad_alloc&) {
        return "out of memory";
    }
}

}  // namespace kp::capture
