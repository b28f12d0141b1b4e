// Both directions of a connection in any bytes: the rows do not depend on how they are cut.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "http/http_connection.h"

namespace {

using namespace kp::capture;

class Rows : public TransactionSink {
public:
    void transaction(Transaction&& t) override {
        text += t.method + ' ' + t.host + ' ' + t.target + ' ' + t.referer + ' ' +
                std::to_string(t.status) + ' ' + t.contentType + ' ' + std::to_string(t.bodyBytes) +
                '\n';
    }
    std::string text;
};

// Turns, each behind a byte with its side, a gap behind it, and its length; in pieces of this size.
std::string play(const std::uint8_t* data, std::size_t size, std::size_t pieceSize,
                 bool fromStart) {
    Rows rows;
    HttpConnection connection({1, 1}, {2, 2}, fromStart, rows);
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    std::uint32_t sequence[2] = {1000, 5000};
    bool isWanted = true;
    while (rest.size() >= 2 && isWanted) {
        const auto how = static_cast<unsigned char>(rest[0]);
        const int side = how & 1;
        std::string_view turn =
            rest.substr(2, std::size_t{static_cast<unsigned char>(rest[1])} * (how & 2 ? 8 : 1));
        rest.remove_prefix(2 + turn.size());
        while (!turn.empty() && isWanted) {
            const std::string_view now = turn.substr(0, pieceSize);
            turn.remove_prefix(now.size());
            Arrival arrival;
            arrival.sequence = sequence[side];
            arrival.acknowledged = sequence[1 - side];
            arrival.hasAcknowledged = true;
            sequence[side] += static_cast<std::uint32_t>(now.size());
            auto* const piece = new Piece;
            piece->keep(now, arrival);
            KP_BufferStream stream;
            stream.add(piece);
            stream.setFirst();
            isWanted = connection.data(static_cast<Side>(side), stream);
        }
        if ((how & 0xF0) == 0xF0 && isWanted) {
            const std::uint32_t missing = (how >> 2 & 3) * 7 + 1;
            sequence[side] += missing;
            connection.missing(static_cast<Side>(side), missing);
        }
    }
    connection.closed();
    return rows.text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const bool fromStart = (data[0] & 1) != 0;
    const std::size_t pieceSize = data[0] / 2 % 20 + 1;
    const std::string whole = play(data + 1, size - 1, std::string::npos, fromStart);
    if (play(data + 1, size - 1, pieceSize, fromStart) != whole)
        std::abort();
    return 0;
}
