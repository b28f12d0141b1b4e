// The bare loop: what libpcap costs when nobody looks at the packets.
#include <pcap/pcap.h>

#include <cstdio>

int main(int argc, char** argv) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* capture = argc == 2 ? pcap_open_offline(argv[1], error) : nullptr;
    if (capture == nullptr) {
        std::fprintf(stderr, "usage: pcap-count FILE (a capture)\n");
        return 1;
    }
    unsigned long long packets = 0;
    unsigned long long bytes = 0;
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    while (pcap_next_ex(capture, &header, &data) == 1) {
        ++packets;
        bytes += header->caplen;
    }
    pcap_close(capture);
    std::printf("%llu packets, %llu bytes\n", packets, bytes);
    return 0;
}
