#include "packet_source.h"

#include <pcap/pcap.h>

#include "pcap_support.h"

namespace kp::capture {

const int PacketSource::kEthernet = DLT_EN10MB;

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

}  // namespace kp::capture
