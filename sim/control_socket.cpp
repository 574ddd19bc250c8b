#include "control_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "owned_fd.h"

namespace tarvik::sim {

namespace {

constexpr int kRequestTimeMs = 1000;
constexpr size_t kMaxAnswer = 1 << 20;

sockaddr_un Address(const std::string& path) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof a.sun_path) {
        throw std::runtime_error("control socket path empty or too long: " + path);
    }
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    return a;
}

std::runtime_error SystemError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

// Reads until the peer stops writing, at most `limit` bytes (one more tells that it was more)
// and, when `deadlineMs` is not negative, within that time. False when time ran out or reading
// failed.
bool ReadAll(int fd, size_t limit, int deadlineMs, std::string& out) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
    char buffer[1024];
    while (out.size() <= limit) {
        int wait = -1;
        if (deadlineMs >= 0) {
            wait = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        end - std::chrono::steady_clock::now())
                                        .count());
            if (wait <= 0) return false;
        }
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, wait);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        out.append(buffer, static_cast<size_t>(n));
    }
    return true;
}

void SendAll(int fd, const std::string& data) {
    size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the client is gone or does not read: its loss
        sent += static_cast<size_t>(n);
    }
}

std::vector<std::string> Words(const std::string& request) {
    std::vector<std::string> words;
    for (size_t at = 0; at < request.size();) {
        const size_t end = request.find('\0', at);
        words.push_back(request.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

}  // namespace

ControlServer::ControlServer(std::string path) : m_path(std::move(path)) {
    const sockaddr_un a = Address(m_path);
    m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_fd < 0) throw SystemError("control socket");
    ::unlink(m_path.c_str());
    const mode_t old = ::umask(0177);  // 0600 from the start: no moment open to others
    const int bound = ::bind(m_fd, reinterpret_cast<const sockaddr*>(&a), sizeof a);
    ::umask(old);
    if (bound != 0 || ::listen(m_fd, 8) != 0) {
        const std::runtime_error e = SystemError("control socket " + m_path);
        ::close(m_fd);
        throw e;
    }
}

ControlServer::~ControlServer() {
    ::close(m_fd);
    ::unlink(m_path.c_str());
}

void ControlServer::ServeOne(
    const std::function<ControlAnswer(const std::vector<std::string>&)>& handle) {
    const OwnedFd client(::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (client.get() < 0) return;
    std::string request;
    ControlAnswer answer;
    if (!ReadAll(client.get(), kMaxControlRequest, kRequestTimeMs, request)) {
        answer = {2, "request incomplete (words ended by NUL, then the end of writing)\n"};
    } else if (request.size() > kMaxControlRequest) {
        answer = {2, "request longer than " + std::to_string(kMaxControlRequest) + " bytes\n"};
    } else if (!request.empty() && request.back() != '\0') {
        answer = {2, "request not ended by a NUL byte\n"};
    } else {
        answer = handle(Words(request));
    }
    SendAll(client.get(), std::to_string(answer.status) + "\n" + answer.text);
}

ControlAnswer SendControlRequest(const std::string& path, const std::vector<std::string>& words) {
    const sockaddr_un a = Address(path);
    const OwnedFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) throw SystemError("socket");
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
        throw SystemError("cannot reach the simulator at " + path);
    }
    std::string request;
    for (const std::string& w : words) request += w + '\0';
    SendAll(fd.get(), request);
    ::shutdown(fd.get(), SHUT_WR);
    std::string reply;
    const size_t newline = ReadAll(fd.get(), kMaxAnswer, -1, reply) ? reply.find('\n') : 0;
    if (reply.empty() || newline == std::string::npos) {
        throw std::runtime_error("the simulator at " + path + " gave no answer");
    }
    return {std::atoi(reply.substr(0, newline).c_str()), reply.substr(newline + 1)};
}

}  // namespace tarvik::sim
