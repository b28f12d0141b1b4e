// libtins' stream follower over a capture: counts connections and bytes, and does nothing with
// them.
#include <tins/tcp_ip/stream_follower.h>
#include <tins/tins.h>

#include <cstdint>
#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: tins-follow FILE\n", stderr);
        return 2;
    }
    std::uint64_t connections = 0;
    std::uint64_t bytes = 0;
    Tins::TCPIP::StreamFollower follower;
    follower.new_stream_callback([&](Tins::TCPIP::Stream& stream) {
        ++connections;
        stream.auto_cleanup_payloads(true);
        const auto count = [&](const Tins::TCPIP::Stream::payload_type& payload) {
            bytes += payload.size();
        };
        stream.client_data_callback(
            [count](Tins::TCPIP::Stream& each) { count(each.client_payload()); });
        stream.server_data_callback(
            [count](Tins::TCPIP::Stream& each) { count(each.server_payload()); });
    });
    Tins::FileSniffer sniffer(argv[1]);
    sniffer.sniff_loop([&](Tins::PDU& packet) {
        follower.process_packet(packet);
        return true;
    });
    std::printf("%llu connections, %llu bytes\n", static_cast<unsigned long long>(connections),
                static_cast<unsigned long long>(bytes));
    return 0;
}
