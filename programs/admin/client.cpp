#include "client.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "config_message.h"

namespace kp::admin {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLineSize = 4096;

std::uint32_t addressOf(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int fault = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (fault != 0)
        throw Unreachable("cannot find " + host + ": " + ::gai_strerror(fault));
    sockaddr_in address{};
    std::memcpy(&address, found->ai_addr, sizeof address);
    ::freeaddrinfo(found);
    return address.sin_addr.s_addr;
}

}  // namespace

// Limits the time of what is done while it lives.
class Client::Turn {
public:
    explicit Turn(Client& client) : client_(client) { set(true); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() { set(false); }

private:
    void set(bool isWaiting) {
        const std::lock_guard<std::mutex> lock(client_.mutex_);
        client_.deadline_ = Clock::now() + client_.limit_;
        client_.isWaiting_ = isWaiting;
        client_.changed_.notify_all();
    }

    Client& client_;
};

Client::Client(const std::string& host, std::uint16_t port, std::chrono::seconds limit)
    : peer_(host + ":" + std::to_string(port)), limit_(limit) {
    const std::uint32_t address = addressOf(host);
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0)
        throw Unreachable("cannot reach " + peer_ + ": " + std::strerror(errno));
    try {
        connect(address, port);
        watcher_ = std::thread([this] { watch(); });
    } catch (const std::system_error& error) {
        ::close(socket_);
        throw std::runtime_error(std::string("cannot start a thread: ") + error.what());
    } catch (...) {
        ::close(socket_);
        throw;
    }
}

Client::~Client() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isEnding_ = true;
        changed_.notify_all();
    }
    watcher_.join();
    ::close(socket_);
}

void Client::connect(std::uint32_t address, std::uint16_t port) {
    timeval time{};
    time.tv_sec = limit_.count();
    // A blocking connect() obeys the time limit for sending.
    ::setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
    // Each value is a send of its own, and must not wait for the acknowledgement of the last.
    const int on = 1;
    ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    peer.sin_addr.s_addr = address;
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        const int fault = errno == EINPROGRESS ? ETIMEDOUT : errno;
        throw Unreachable("cannot reach " + peer_ + ": " + std::strerror(fault));
    }
}

void Client::watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!isEnding_) {
        if (!isWaiting_) {
            changed_.wait(lock);
        } else if (Clock::now() < deadline_) {
            changed_.wait_until(lock, deadline_);
        } else {
            isLate_ = true;
            isWaiting_ = false;
            ::shutdown(socket_, SHUT_RDWR);
        }
    }
}

void Client::lost() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (isLate_)
        throw Unreachable(peer_ + " did not answer within " + std::to_string(limit_.count()) +
                          " s");
    throw Unreachable(peer_ + " has closed the connection" +
                      (isAccepted_ ? "" : "; it may not accept clients from this address"));
}

void Client::sendLine(std::string line) {
    line += '\n';
    const int size = static_cast<int>(line.size());
    require(writeJ_n_chars(socket_, line.data(), size) == size);
}

bool Client::answer() {
    unsigned char value = 0;
    require(readJ_UInt8(socket_, &value) == 0);
    return value == 1;
}

void Client::logIn(const std::string& user, const std::string& password) {
    const Turn turn(*this);
    sendLine(user);
    sendLine(password);
    if (!answer())
        throw Refused(peer_ + " refused the user or the password");
    isAccepted_ = true;
}

void Client::readConfig(KP_Config& config) {
    const Turn turn(*this);
    sendLine("GET_CONFIG");
    if (!answer())
        throw Refused(peer_ + " did not send its configuration");
    require(receiveConfig(socket_, config));
}

void Client::writeConfig(const KP_Config& config) {
    const Turn turn(*this);
    sendLine("SET_CONFIG");
    require(sendConfig(socket_, config));
    if (answer())
        return;
    std::vector<std::string> lines;
    try {
        lines = readStatus();
    } catch (const std::exception&) {  // It is refused all the same.
    }
    const std::string key = "refusal=";
    for (const std::string& line : lines) {
        if (line.compare(0, key.size(), key) == 0)
            throw Refused("refused: " + line.substr(key.size()));
    }
    throw Refused("refused, and " + peer_ + " does not say why");
}

std::vector<std::string> Client::status() {
    const Turn turn(*this);
    return readStatus();
}

std::vector<std::string> Client::readStatus() {
    sendLine("GET_STATUS");
    if (!answer())
        throw Refused(peer_ + " did not send its status");
    unsigned short count = 0;
    require(readJ_UInt16(socket_, &count) == 0);
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        char line[kLineSize] = {};
        require(readJ_line(socket_, line, kLineSize) > 0);
        lines.emplace_back(line);
    }
    return lines;
}

void Client::quit() {
    const Turn turn(*this);
    const char line[] = "QUIT\n";
    writeJ_n_chars(socket_, line, sizeof line - 1);  // What matters is done, whoever has gone.
}

}  // namespace kp::admin
