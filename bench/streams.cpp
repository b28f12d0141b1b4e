// Byte streams: walking 1 MB in buffers of 1460 bytes, an absent pattern, copying out; and the wire
// primitives over a socket pair.
#include <benchmark/benchmark.h>
#include <kp/wire/buffer_stream.h>
#include <kp/wire/primitives.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#if defined(KP_PEER_QT)
#include <QByteArray>
#include <QDataStream>
#include <QIODevice>
#endif
#if defined(KP_PEER_BOOST)
#include <boost/asio/buffer.hpp>
#include <boost/asio/buffers_iterator.hpp>
#endif

namespace {

constexpr std::size_t kPiece = 1460;
constexpr std::size_t kBytes = kPiece * 720;

// The first byte of the pattern is everywhere, the pattern nowhere.
const char* const kPattern = "HTzzP";

const std::vector<std::string>& pieces() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> result;
        unsigned seed = 1;
        for (std::size_t i = 0; i < kBytes / kPiece; ++i) {
            std::string piece;
            while (piece.size() < kPiece) {
                seed = seed * 1664525 + 1013904223;
                piece += "HTPtext/html "[seed >> 24 & 7];
            }
            result.push_back(piece);
        }
        return result;
    }();
    return all;
}

void fill(KP_BufferStream& stream) {
    for (const std::string& piece : pieces()) {
        auto* const block = reinterpret_cast<unsigned char*>(const_cast<char*>(piece.data()));
        auto* const buffer = new KP_Buffer;
        buffer->setBuffer(block, piece.size());
        buffer->copyBuffer(block, piece.size());
        stream.add(buffer);
    }
}

std::string flat() {
    std::string text;
    for (const std::string& piece : pieces()) {
        text += piece;
    }
    return text;
}

void finish(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kBytes));
}

// --- walking byte by byte ---

// What a parser holds: the interface, one virtual call a byte.
void kpWalkInterface(benchmark::State& state) {
    KP_BufferStream buffers;
    fill(buffers);
    KP_Stream* stream = &buffers;
    benchmark::DoNotOptimize(stream);
    for (auto _ : state) {
        unsigned sum = stream->setFirst() == 0 ? stream->getNext() : 0;
        for (std::size_t i = 1; i < kBytes; ++i) {
            sum += stream->ontoNext();
        }
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}
BENCHMARK(kpWalkInterface)->Name("walk/KP_Stream");

void kpWalkStep(benchmark::State& state) {
    KP_BufferStream stream;
    fill(stream);
    for (auto _ : state) {
        unsigned sum = 0;
        for (bool more = stream.setFirst() == 0; more; more = stream.step()) {
            sum += *stream.KP_BufferStream::getNextPtr();
        }
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}
BENCHMARK(kpWalkStep)->Name("walk/KP_BufferStream, step()");

unsigned sumOf(std::string_view bytes) {
    unsigned sum = 0;
    for (const char c : bytes) {
        sum += static_cast<unsigned char>(c);
        benchmark::DoNotOptimize(sum);  // a byte at a time, as a parser has to
    }
    return sum;
}

void kpWalkRuns(benchmark::State& state) {
    KP_BufferStream stream;
    fill(stream);
    for (auto _ : state) {
        unsigned sum = 0;
        for (bool more = stream.setFirst() == 0; more; more = stream.nextRun()) {
            sum += sumOf(stream.run());
        }
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}
BENCHMARK(kpWalkRuns)->Name("walk/KP_BufferStream, run()");

void loopWalk(benchmark::State& state) {
    const std::string text = flat();
    for (auto _ : state) {
        benchmark::DoNotOptimize(sumOf(text));
    }
    finish(state);
}
BENCHMARK(loopWalk)->Name("walk/plain loop over flat bytes");

class ChainBuf : public std::streambuf {
public:
    ChainBuf() { enter(0); }

protected:
    int_type underflow() override {
        if (++piece_ == pieces().size()) {
            return traits_type::eof();
        }
        enter(piece_);
        return traits_type::to_int_type(*gptr());
    }

private:
    void enter(std::size_t piece) {
        char* const start = const_cast<char*>(pieces()[piece].data());
        setg(start, start, start + pieces()[piece].size());
    }
    std::size_t piece_ = 0;
};

void streambufWalk(benchmark::State& state) {
    for (auto _ : state) {
        ChainBuf chain;
        unsigned sum = 0;
        for (int c = chain.sbumpc(); c != std::streambuf::traits_type::eof(); c = chain.sbumpc()) {
            sum += static_cast<unsigned>(c);
        }
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}
BENCHMARK(streambufWalk)->Name("walk/std::streambuf");

#if defined(KP_PEER_BOOST)
void asioWalk(benchmark::State& state) {
    std::deque<boost::asio::const_buffer> buffers;
    for (const std::string& piece : pieces()) {
        buffers.emplace_back(piece.data(), piece.size());
    }
    for (auto _ : state) {
        unsigned sum = 0;
        const auto end = boost::asio::buffers_end(buffers);
        for (auto it = boost::asio::buffers_begin(buffers); it != end; ++it) {
            sum += static_cast<unsigned char>(*it);
        }
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}
BENCHMARK(asioWalk)->Name("walk/asio buffers_iterator");
#endif

#if defined(KP_PEER_QT)
class ChainDevice : public QIODevice {
public:
    ChainDevice() { open(QIODevice::ReadOnly); }
    bool isSequential() const override { return true; }

protected:
    qint64 readData(char* data, qint64 most) override {
        qint64 done = 0;
        while (done < most && piece_ < pieces().size()) {
            const std::string& piece = pieces()[piece_];
            const auto part = std::min<qint64>(most - done, piece.size() - at_);
            memcpy(data + done, piece.data() + at_, part);
            done += part;
            at_ += part;
            if (at_ == piece.size()) {
                at_ = 0;
                ++piece_;
            }
        }
        return done;
    }
    qint64 writeData(const char*, qint64) override { return -1; }

private:
    std::size_t piece_ = 0;
    std::size_t at_ = 0;
};

void qtWalk(benchmark::State& state) {
    for (auto _ : state) {
        ChainDevice chain;
        unsigned sum = 0;
        for (char c = 0; chain.getChar(&c);) {
            sum += static_cast<unsigned char>(c);
        }
        benchmark::DoNotOptimize(sum);
    }
    finish(state);
}
BENCHMARK(qtWalk)->Name("walk/QIODevice");
#endif

// --- an absent pattern of five bytes, and copying out ---

void kpFindPattern(benchmark::State& state) {
    KP_BufferStream stream;
    fill(stream);
    for (auto _ : state) {
        stream.setFirst();
        benchmark::DoNotOptimize(stream.findPattern(kPattern));
    }
    finish(state);
}
BENCHMARK(kpFindPattern)->Name("absent_pattern/KP_BufferStream");

void memmemFindPattern(benchmark::State& state) {
    for (auto _ : state) {
        for (const std::string& piece : pieces()) {
            benchmark::DoNotOptimize(memmem(piece.data(), piece.size(), kPattern, 5));
        }
    }
    finish(state);
}
BENCHMARK(memmemFindPattern)->Name("absent_pattern/memmem");

void searchFindPattern(benchmark::State& state) {
    for (auto _ : state) {
        for (const std::string& piece : pieces()) {
            benchmark::DoNotOptimize(
                std::search(piece.begin(), piece.end(), kPattern, kPattern + 5));
        }
    }
    finish(state);
}
BENCHMARK(searchFindPattern)->Name("absent_pattern/std::search");

void kpCopy(benchmark::State& state) {
    KP_BufferStream stream;
    fill(stream);
    for (auto _ : state) {
        unsigned char* const block = stream.copy(0UL);
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
    finish(state);
}
BENCHMARK(kpCopy)->Name("copy_out/KP_BufferStream");

void memcpyCopy(benchmark::State& state) {
    for (auto _ : state) {
        auto* const block = static_cast<char*>(std::malloc(kBytes));
        std::size_t done = 0;
        for (const std::string& piece : pieces()) {
            memcpy(block + done, piece.data(), piece.size());
            done += piece.size();
        }
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
    finish(state);
}
BENCHMARK(memcpyCopy)->Name("copy_out/memcpy");

// --- one 32-bit number to a socket and back ---

template <class Send, class Receive>
void overASocket(benchmark::State& state, Send send, Receive receive) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        state.SkipWithError("no socket pair");
        return;
    }
    for (auto _ : state) {
        send(ends[0]);
        receive(ends[1]);
    }
    ::close(ends[0]);
    ::close(ends[1]);
}

void kpNumber(benchmark::State& state) {
    unsigned long value = 0;
    overASocket(
        state, [](int end) { writeJ_UInt32(end, 0x89ABCDEF); },
        [&](int end) { readJ_UInt32(end, &value); });
}
BENCHMARK(kpNumber)->Name("number_over_socket/writeJ_UInt32, readJ_UInt32");

void plainNumber(benchmark::State& state) {
    char bytes[8] = {};
    overASocket(
        state, [&](int end) { benchmark::DoNotOptimize(::send(end, bytes, 8, 0)); },
        [&](int end) { benchmark::DoNotOptimize(::recv(end, bytes, 8, MSG_WAITALL)); });
}
BENCHMARK(plainNumber)->Name("number_over_socket/send, recv");

void kpLine(benchmark::State& state) {
    char line[64];
    overASocket(
        state,
        [](int end) { writeJ_n_chars(end, "GET_STATUS of the engine, 40 characters.\n", 41); },
        [&](int end) { readJ_line(end, line, sizeof line); });
}
BENCHMARK(kpLine)->Name("line_over_socket/writeJ_n_chars, readJ_line");

void plainLine(benchmark::State& state) {
    char bytes[41] = {};
    overASocket(
        state, [&](int end) { benchmark::DoNotOptimize(::send(end, bytes, 41, 0)); },
        [&](int end) {
            for (int i = 0; i < 41; ++i) {
                benchmark::DoNotOptimize(::recv(end, bytes + i, 1, 0));
            }
        });
}
BENCHMARK(plainLine)->Name("line_over_socket/send, recv a byte");

}  // namespace
