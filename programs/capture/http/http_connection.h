// kp-capture: the HTTP/1.x side of one connection, requests paired with their answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "http/http_parser.h"
#include "http/pairing.h"
#include "http/transaction.h"
#include "tcp/connection_sink.h"

namespace kp::capture {

/// Reads both directions of a connection and hands out its transactions.
///
/// Which end is the client is found by the bytes: the one that sends a request line, or the one
/// that does not send a status line, whichever comes first. A connection that begins otherwise is
/// not HTTP and is left alone.
/// Which request an answer belongs to says Pairing. Interim answers (1xx) are stepped over; an answer
/// of which nobody knows the request makes a transaction of its own, with the method and target "-",
/// if that is wanted, and none otherwise. After the answer 101, and after a 2xx to CONNECT, the
/// connection is not read any more, and what looked like requests behind it was not.
/// A request counts from the end of its header block on, an answer too. Requests without an answer
/// are handed out when the connection closes, or earlier, see Pairing.
class HttpConnection : public ConnectionSink, private MessageHandler {
public:
    /// @p sink must outlive the connection. @p fromStart: the first bytes of both directions will
    /// be seen. @p number is kept in the transactions. @p answersAlone: answers without a request
    /// are wanted.
    HttpConnection(Endpoint first, Endpoint second, bool fromStart, TransactionSink& sink,
                   std::uint64_t number = 0, bool answersAlone = false);

    bool data(Side side, KP_BufferStream& bytes) override;
    void missing(Side side, std::uint64_t count) override;
    std::size_t memory() const override;
    void ended(Side side) override;
    void closed() override;

private:
    void kindFound(MessageKind kind) override;
    void notHttp() override;
    BodyRule head(MessageHead& head) override;
    void end(MessageKind kind, std::uint64_t bodyBytes) override;

    HttpParser& parser(Side side) { return side == Side::kFirst ? first_ : second_; }
    void request(MessageHead& head);
    BodyRule answer(MessageHead& head);
    Transaction transactionOf(const MessageHead& head) const;
    void leaveHttp();

    TransactionSink& sink_;
    std::uint64_t number_;
    Endpoint firstEnd_;
    Endpoint secondEnd_;
    HttpParser first_;
    HttpParser second_;
    Side reading_ = Side::kFirst;  // whose bytes are being read
    Side client_ = Side::kFirst;   // valid once a kind was found
    bool isHttp_ = false;          // a kind was found
    bool isNotHttp_ = false;
    bool isAloneWanted_;
    bool isAnswering_ = false;  // the answer to answered_ is being read
    std::unique_ptr<Transaction> answered_;
    Pairing pairing_;
};

}  // namespace kp::capture
