// Sends the packets of a capture to a device at a steady rate, as fast as the system takes them if the rate is 0. Each pass
// over the capture has addresses of its own, 10.PASS.x.x for 10.x.x.x, so that its connections are new ones.
// usage: pcap-send DEVICE PACKETS RATE CAPTURE      prints the packets, the seconds and the packets a second
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr std::size_t kBatch = 64;  // packets a system call, and between two looks at the clock
constexpr std::size_t kFirstAddress =
    26;  // of the second octet of the source, behind Ethernet and IPv4
constexpr std::size_t kMtu = 1514;

using Frame = std::vector<unsigned char>;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

std::vector<Frame> read(const char* path) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const capture = pcap_open_offline(path, error);
    if (capture == nullptr) {
        std::fprintf(stderr, "%s\n", error);
        std::exit(1);
    }
    std::vector<Frame> frames;
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    while (pcap_next_ex(capture, &header, &bytes) == 1) {
        if (header->caplen <= kMtu)
            frames.emplace_back(bytes, bytes + header->caplen);
    }
    pcap_close(capture);
    return frames;
}

void setPass(Frame& frame, unsigned pass) {
    for (const std::size_t at : {kFirstAddress, kFirstAddress + 4}) {
        if (frame.size() > at + 1 && frame[at] == 10)
            frame[at + 1] = static_cast<unsigned char>(pass);
    }
}

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

int openDevice(const char* name) {
    const int descriptor = socket(AF_PACKET, SOCK_RAW, 0);
    const int on = 1;
    const int buffer = 4 * 1024 * 1024;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(name));
    if (descriptor < 0 || address.sll_ifindex == 0 ||
        bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail(name);
    setsockopt(descriptor, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer);
    return descriptor;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5)
        return 2;
    const std::size_t packets = std::strtoull(argv[2], nullptr, 10);
    const double rate = std::strtod(argv[3], nullptr);
    std::vector<Frame> frames = read(argv[4]);
    const int device = openDevice(argv[1]);
    if (frames.empty() || packets > 255 * frames.size()) {
        std::fprintf(stderr, "the capture is too small for so many packets\n");
        return 1;
    }
    const double start = now();
    std::size_t sent = 0;
    while (sent < packets) {
        const std::size_t count = std::min(kBatch, packets - sent);
        mmsghdr messages[kBatch]{};
        iovec pieces[kBatch];
        for (std::size_t i = 0; i < count; ++i) {
            Frame& frame = frames[(sent + i) % frames.size()];
            setPass(frame, static_cast<unsigned>((sent + i) / frames.size()));
            pieces[i] = {frame.data(), frame.size()};
            messages[i].msg_hdr.msg_iov = &pieces[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        for (std::size_t done = 0; done < count;) {
            const int result =
                sendmmsg(device, messages + done, static_cast<unsigned>(count - done), 0);
            if (result > 0)
                done += static_cast<std::size_t>(result);
            else if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)
                fail("send");
        }
        sent += count;
        if (rate > 0) {
            const double ahead = start + static_cast<double>(sent) / rate - now();
            if (ahead > 0.0002) {
                timespec pause{0, static_cast<long>(ahead * 1e9)};
                nanosleep(&pause, nullptr);
            }
        }
    }
    const double seconds = now() - start;
    std::printf("%zu %.3f %.0f\n", sent, seconds, static_cast<double>(sent) / seconds);
    return 0;
}
