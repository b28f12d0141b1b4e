// A front end's question and an answer of many values, each of which is one send, over a connection of TCP.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "kp/wire/primitives.h"

namespace {

constexpr int kValues = 20;

// A pair of connected sockets on loopback.
struct Connection {
    explicit Connection(bool sendsAtOnce) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        client = socket(AF_INET, SOCK_STREAM, 0);
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
            listen(listener, 1) == 0 &&
            getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
            connect(client, reinterpret_cast<sockaddr*>(&address), size) == 0) {
            server = accept(listener, nullptr, nullptr);
        }
        close(listener);
        const int on = sendsAtOnce ? 1 : 0;
        for (const int each : {client, server})
            setsockopt(each, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~Connection() {
        close(client);
        close(server);
    }
    int client = -1;
    int server = -1;
};

void exchange(benchmark::State& state, bool sendsAtOnce) {
    Connection connection(sendsAtOnce);
    if (connection.server < 0) {
        state.SkipWithError("no connection on loopback");
        return;
    }
    std::thread server([&] {
        char command[64];
        while (readJ_line(connection.server, command, sizeof command) > 0) {
            for (int i = 0; i < kValues; ++i)
                writeJ_UInt32(connection.server, static_cast<unsigned long>(i));
        }
    });
    for (auto _ : state) {
        writeJ_n_chars(connection.client, "GET_STATUS\n", 11);
        unsigned long value = 0;
        for (int i = 0; i < kValues; ++i)
            readJ_UInt32(connection.client, &value);
        if (value != kValues - 1)
            state.SkipWithError("the answer is another one");
    }
    shutdown(connection.client, SHUT_WR);
    server.join();
}

void withNoDelay(benchmark::State& state) {
    exchange(state, true);
}
BENCHMARK(withNoDelay)->Name("status_exchange/20 values, TCP_NODELAY")->UseRealTime();

void withDelay(benchmark::State& state) {
    exchange(state, false);
}
BENCHMARK(withDelay)->Name("status_exchange/20 values, without")->UseRealTime();

}  // namespace
