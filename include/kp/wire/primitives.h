// libkp: the values of the front-end connection, as they travel over a connected socket.
//
// Everything is big-endian. Unsigned values travel in a field twice their own width, whose high
// half is zero when sent and ignored when received:
//
//     type      bytes sent                  bytes received
//     Boolean   2 (as UInt8, low 8 bits)    1 (0 to 255, kept as it is)
//     UInt8     2: 00 v                     2: the second is the value
//     SInt16    (there is no writer)        2
//     UInt16    4: 00 00 v v                4: the last two are the value
//     SInt32    4                           4
//     UInt32    8: 00 00 00 00 v v v v      8: the last four are the value
//     SInt64    8                           8
//
// A line is the bytes up to a line feed, a carriage return being one of them; n chars are n bytes.
//
// Readers of fixed-size values return 0, or -1 with a zero value: when the connection fails (with a
// log line), when the peer closes before the value (without one), and when it closes within the
// value (an incomplete value is no value). They never take a byte beyond the value, and ask for all
// of it at once.
// Writers of fixed-size values return 0 when the socket took the whole value at once; otherwise -1,
// with a log line. Nothing is retried; after -1 the caller gives the connection up. A signal that
// interrupts the system is no failure.
//
// Every writer is one send. Several of them before the next read, as in an answer of many values,
// wait for the peer's delayed acknowledgement, some 40 ms an answer, unless the socket has
// TCP_NODELAY; set it on both sides.
//
// Sockets are blocking ones. A peer that has gone raises no signal. A time limit that the caller
// sets on the socket (SO_RCVTIMEO, SO_SNDTIMEO) works: when it passes, that is a failure as any
// other, with -1, and what had come of the value is lost. It holds for each call of the system, so
// for each byte of a line: a peer that sends a byte now and then stays within it.
//
// Threads: no state is kept; one thread at a time reads a socket, and one at a time writes it.
#pragma once

#include <cstdint>
#include <type_traits>

#include "kp/export.h"

/// Reads a value as told above: 0, or -1 with a zero value. @p value is not null.
KP_API int readJ_Boolean(int socket, int* value);
KP_API int readJ_UInt8(int socket, unsigned char* value);
KP_API int readJ_SInt16(int socket, short* value);
KP_API int readJ_UInt16(int socket, unsigned short* value);
KP_API int readJ_SInt32(int socket, long* value);
KP_API int readJ_UInt32(int socket, unsigned long* value);
KP_API int readJ_SInt64(int socket, std::int64_t* value);

/// The same into a `long long`, where that is another type than std::int64_t.
template <class Value, class = std::enable_if_t<std::is_same_v<Value, long long> &&
                                                !std::is_same_v<std::int64_t, long long>>>
int readJ_SInt64(int socket, Value* value) {
    *value = 0;
    std::int64_t number = 0;
    const int result = readJ_SInt64(socket, &number);
    *value = number;
    return result;
}

/// Writes a value as told above: 0, or -1.
KP_API int writeJ_Boolean(int socket, int value);
KP_API int writeJ_UInt8(int socket, unsigned char value);
KP_API int writeJ_UInt16(int socket, unsigned short value);
KP_API int writeJ_SInt32(int socket, long value);
KP_API int writeJ_UInt32(int socket, unsigned long value);
KP_API int writeJ_SInt64(int socket, std::int64_t value);

/// Reads a line into @p buffer of @p size bytes and terminates it; the line feed is not stored.
/// Stops after size - 1 characters, and the next call goes on with the rest of the line. Returns
/// the number of characters stored: 0 for an empty line, for a peer that has closed, and for a size
/// below 2, which reads nothing. A line that the end of the connection cuts off counts as one, and
/// the next call returns 0. Returns -1 when receiving fails, errno being the system's (EAGAIN for a
/// time limit); the buffer is then undefined. Whoever must tell an empty line from a peer that has
/// closed reads by readJ_n_chars(), whose 0 is the latter alone. Calls the system for each byte.
KP_API int readJ_line(int socket, char* buffer, int size);

/// Reads @p n raw bytes into @p buffer and adds no terminator. Returns how many came before the
/// peer closed, 0 for an n below 1, or -1 when receiving fails, errno being the system's; the
/// buffer is then undefined.
KP_API int readJ_n_chars(int socket, char* buffer, int n);

/// Sends @p n raw bytes; returns n (0 for an n below 1), or -1 when sending fails.
/// The failure is told in the log, between the lines "writeJ_n_chars: BEFORE" and "writeJ_n_chars:
/// AFTER" on standard output: a program whose output is data moves that to another descriptor. A
/// socket that takes no byte a thousand times in a row has failed.
KP_API int writeJ_n_chars(int socket, const char* buffer, int n);
