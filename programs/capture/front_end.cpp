#include "front_end.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "log_line.h"

namespace kp::capture {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTurn = 200;  // milliseconds between two looks at the clients
constexpr std::chrono::milliseconds kFirstDelay{250};
constexpr std::chrono::minutes kFailureMemory{10};
constexpr std::size_t kMostFailures = 4096;
constexpr int kMostUnread = 256;         // pieces that a client may still send when it is to go
constexpr std::size_t kLineSize = 1024;  // of a user, a password or a command, terminator included

int listenOn(std::uint16_t port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (listener < 0 || ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, SOMAXCONN) != 0) {
        const std::string reason = std::strerror(errno);
        if (listener >= 0)
            ::close(listener);
        throw std::runtime_error("cannot serve on port " + std::to_string(port) + ": " + reason);
    }
    return listener;
}

std::string textOf(std::uint32_t address) {
    char text[16];
    KP_Tools::IPAddressString(address, text);
    return text;
}

}  // namespace

// One client. Its thread runs one iteration, the whole session.
class FrontEnd::Session : public KP_Thread {
public:
    Session(FrontEnd& owner, int socket, std::uint32_t address)
        : owner_(owner), socket_(socket), address_(address) {
        extend();
    }
    ~Session() override {
        stop();
        join(nullptr, 0);
        ::close(socket_);
    }

    int doTask() override {
        try {
            serve();
        } catch (const std::exception& error) {
            logLine(std::string("a client was dropped: ") + error.what());
        } catch (const KP_NoMoreMemoryException&) {
            logLine("a client was dropped: out of memory");
        }
        sayGoodbye();
        setContinue(0);
        isDone_ = true;
        return 0;
    }

    std::uint32_t address() const { return address_; }
    bool isDone() const { return isDone_; }
    bool isLate() const { return Clock::now().time_since_epoch().count() > deadline_; }
    // Ends whatever the session waits for on its socket.
    void drop() { ::shutdown(socket_, SHUT_RDWR); }

private:
    void extend(std::chrono::milliseconds more = {}) {
        deadline_ = (Clock::now() + owner_.clientLimit_ + more).time_since_epoch().count();
    }

    // What was sent last arrives only if nothing unread is left when the socket is closed.
    void sayGoodbye() {
        ::shutdown(socket_, SHUT_WR);
        char unread[4096];
        int left = kMostUnread;
        while (left > 0 && ::recv(socket_, unread, sizeof unread, 0) > 0)
            --left;
        ::shutdown(socket_, SHUT_RDWR);
    }

    // False when the peer has closed, or the line does not end where a line has to.
    bool readLine(std::string& line) {
        char first = 0;
        if (::recv(socket_, &first, 1, MSG_PEEK) != 1)
            return false;
        char buffer[kLineSize];
        const int length = readJ_line(socket_, buffer, static_cast<int>(sizeof buffer));
        if (length < 0 || length == static_cast<int>(sizeof buffer) - 1)
            return false;
        line.assign(buffer, static_cast<std::size_t>(length));
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        return true;
    }

    bool writeLine(std::string line) {
        line += '\n';
        return writeJ_n_chars(socket_, line.data(), static_cast<int>(line.size())) ==
               static_cast<int>(line.size());
    }

    bool answer(bool isGood) { return writeJ_UInt8(socket_, isGood ? 1 : 0) == 0; }

    bool logIn() {
        std::string user;
        std::string password;
        if (!readLine(user) || !readLine(password))
            return false;
        if (owner_.config_.current()->isValidPassword(user.c_str(), password.c_str()) != 0) {
            owner_.succeeded(address_);
            return answer(true);
        }
        logLine("a client at " + textOf(address_) + " was refused");
        const std::chrono::milliseconds delay = owner_.failed(address_);
        extend(delay);
        if (owner_.pause(delay))
            answer(false);
        return false;
    }

    bool setConfig() {
        KP_ConfigAdmin wanted = *owner_.config_.current();
        wanted.reset();  // readJ() does not give the mappings back that it replaces
        if (wanted.readJ(socket_) != 0) {
            // Nobody knows where the next command begins.
            answer(false);
            return false;
        }
        refusal_ = owner_.config_.change(wanted, textOf(address_));
        return answer(refusal_.empty());
    }

    bool getStatus() {
        Status status = owner_.status_();
        status.emplace_back("client_address", textOf(address_));
        if (!refusal_.empty())
            status.emplace_back("refusal", refusal_);
        bool isGood =
            answer(true) && writeJ_UInt16(socket_, static_cast<unsigned short>(status.size())) == 0;
        for (const auto& [name, value] : status)
            isGood = isGood && writeLine(std::string(name).append("=").append(value));
        return isGood;
    }

    void serve() {
        if (!logIn())
            return;
        std::string command;
        for (extend(); readLine(command); extend()) {
            extend();
            bool isGood = true;
            if (command == "GET_CONFIG") {
                isGood = answer(true) && owner_.config_.current()->writeJ(socket_) == 0;
            } else if (command == "SET_CONFIG") {
                isGood = setConfig();
            } else if (command == "GET_STATUS") {
                isGood = getStatus();
            } else if (command == "QUIT") {
                return;
            } else {
                isGood = answer(false);
            }
            if (!isGood)
                return;
        }
    }

    FrontEnd& owner_;
    const int socket_;
    const std::uint32_t address_;
    std::string refusal_;  // why the last configuration was not taken
    std::atomic<bool> isDone_{false};
    std::atomic<Clock::rep> deadline_{0};
};

FrontEnd::FrontEnd(std::uint16_t port, LiveConfig& config, std::function<Status()> status,
                   std::chrono::seconds clientLimit)
    : listener_(listenOn(port)),
      config_(config),
      status_(std::move(status)),
      clientLimit_(clientLimit) {}

FrontEnd::~FrontEnd() {
    end();
    ::close(listener_);
}

void FrontEnd::end() {
    stop();
    join(nullptr, 0);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isEnding_ = true;
    }
    ended_.notify_all();
    lookAfterSessions(true);
}

int FrontEnd::doTask() {
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, kTurn) > 0)
        accept();
    lookAfterSessions(false);
    return 0;
}

void FrontEnd::accept() {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int socket =
        ::accept4(listener_, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
    if (socket < 0) {
        // Without descriptors the client stays in the queue, and the loop must not spin.
        if (errno == EMFILE || errno == ENFILE)
            pause(std::chrono::milliseconds(kTurn));
        return;
    }
    // Each value is a send of its own, and must not wait for the acknowledgement of the last.
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const std::uint32_t address = ntohl(peer.sin_addr.s_addr);
    const auto fromThere = static_cast<std::size_t>(
        std::count_if(sessions_.begin(), sessions_.end(),
                      [&](const Session* session) { return session->address() == address; }));
    if (sessions_.size() >= kMostClients || fromThere >= kMostOfOneAddress ||
        config_.current()->isValidSourceIP(address) == 0) {
        ++refusals_;
        ::close(socket);
        return;
    }
    auto* session = new Session(*this, socket, address);
    if (session == nullptr) {
        ::close(socket);
        return;
    }
    if (session->start() != 0) {
        session->release();
        return;
    }
    sessions_.push_back(session);
    clientCount_ = sessions_.size();
}

void FrontEnd::lookAfterSessions(bool isEnd) {
    for (auto it = sessions_.begin(); it != sessions_.end();) {
        Session* const session = *it;
        if (isEnd || session->isLate())
            session->drop();
        if (!isEnd && !session->isDone()) {
            ++it;
            continue;
        }
        session->join(nullptr, 0);
        session->release();
        it = sessions_.erase(it);
    }
    clientCount_ = sessions_.size();
}

std::chrono::milliseconds FrontEnd::failed(std::uint32_t address) {
    ++refusals_;
    const std::lock_guard<std::mutex> lock(mutex_);
    const Clock::time_point now = Clock::now();
    for (auto it = failures_.begin(); it != failures_.end();) {
        const bool isOld = now - it->second.last > kFailureMemory;
        it = isOld ? failures_.erase(it) : std::next(it);
    }
    if (failures_.size() >= kMostFailures && failures_.count(address) == 0)
        return kMostDelay;
    Failures& known = failures_[address];
    known.last = now;
    const int doublings = std::min(known.count++, 10);
    return std::min(kMostDelay, kFirstDelay * (1 << doublings));
}

void FrontEnd::succeeded(std::uint32_t address) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failures_.erase(address);
}

bool FrontEnd::pause(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !ended_.wait_for(lock, time, [this] { return isEnding_; });
}

}  // namespace kp::capture
