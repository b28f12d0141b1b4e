#include "wire/socket_error.h"

namespace {

struct ErrorText {
    int number;
    const char* text;
};

constexpr ErrorText kErrorTexts[] = {
    {10004, "Interrupted system call"},
    {10009, "Bad file number"},
    {10013, "Access denied"},
    {10014, "Bad address"},
    {10022, "Invalid argument"},
    {10024, "Too many open files"},
    {10035, "Operation would block"},
    {10036, "Operation now in progress"},
    {10037, "Operation already in progress"},
    {10038, "Socket operation on non-socket"},
    {10039, "Destination address required"},
    {10040, "Message too long"},
    {10041, "Protocol is wrong type for socket"},
    {10042, "Bad protocol option"},
    {10043, "Protocol not supported"},
    {10044, "Socket type not supported"},
    {10045, "Operation not supported on socket"},
    {10046, "Protocol family not supported"},
    {10047, "Address family not supported by protocol family"},
    {10048, "Address already in use"},
    {10049, "Can't assign requested address"},
    {10050, "Network is down"},
    {10051, "ICMP network unreachable"},
    {10052, "Network was reset"},
    {10053, "Software caused connection abort"},
    {10054, "Connection reset by peer"},
    {10055, "No buffer space is supported"},
    {10056, "Socket is already connected"},
    {10057, "Socket is not connected"},
    {10058, "Can't send after socket shutdown"},
    {10059, "Too many references"},
    {10060, "Connection timed out"},
    {10061, "Connection refused"},
    {10062, "Too many levels of symbolic links"},
    {10063, "Name too long"},
    {10064, "Host is down"},
    {10065, "Host is unreachable"},
    {10066, "Directory not empty"},
    {10067, "EPROCLIM returned"},
    {10068, "EUSERS returned"},
    {10069, "Disk quota exceeded"},
    {10070, "ESTALE returned"},
    {10071, "The object is remote"},
    {10091, "System not ready"},
    {10092, "Version is not supported"},
    {10093, "Not initialized"},
    {11001, "Host not found"},
    {11002, "Try again"},
    {11003, "Non-recoverable error"},
    {11004, "No data record available"},
};

}  // namespace

const char* kp::detail::socketErrorText(int number) {
    for (const ErrorText& error : kErrorTexts) {
        if (error.number == number) {
            return error.text;
        }
    }
    return "Unknown";
}
