// Lines that are cut across the buffers of a stream, as packets cut what they carry. Standard input
// comes in buffers of BYTES (16), and lines are read where they lie: byte_stream [BYTES]
#include <kp/kp.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace {

struct Release {
    void operator()(KP_Object* object) const { object->release(); }
};

// Adds standard input to the stream; false when it cannot be read or memory runs out.
bool readInput(KP_BufferStream& stream, unsigned long size) {
    std::size_t got = size;
    while (got == size) {
        std::unique_ptr<KP_Buffer, Release> buffer(KP_Buffer::create());
        if (buffer == nullptr || buffer->initBuffer(size) != 0)
            return false;
        buffer->setOwner(1);  // Else the block would outlive the buffer.
        got = std::fread(buffer->getBuffer(), 1, size, stdin);
        buffer->copyBuffer(buffer->getBuffer(), got);  // Tells it the length, copies nothing.
        stream.add(buffer.get());
        static_cast<void>(buffer.release());  // The stream's now, which it was not if add() threw.
    }
    return std::ferror(stdin) == 0;
}

void print(std::string_view line, const char* how) {
    std::printf("%.*s (%s)\n", static_cast<int>(line.size()), line.data(), how);
}

}  // namespace

int main(int argc, char** argv) {
    const long size = argc == 2 ? std::atol(argv[1]) : 16;
    KP_BufferStream stream;
    if (argc > 2 || size < 1) {
        std::fputs("usage: byte_stream [BYTES]\n", stderr);
        return 2;
    }
    if (!readInput(stream, static_cast<unsigned long>(size))) {
        std::fputs("byte_stream: cannot read standard input\n", stderr);
        return 1;
    }
    std::string begun;  // what earlier buffers have of a line
    for (bool more = stream.firstRun(); more; more = stream.nextRun()) {
        std::string_view run = stream.run();
        for (std::size_t end = 0; (end = run.find('\n')) != run.npos; run.remove_prefix(end + 1)) {
            if (begun.empty())
                print(run.substr(0, end), "in place");
            else
                print(begun.append(run.substr(0, end)), "put together");
            begun.clear();
        }
        begun.append(run);
    }
    if (!begun.empty())
        print(begun, "without a line feed");
    return 0;
}
