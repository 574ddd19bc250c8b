// A descriptor closed when it goes out of scope.
#pragma once

#include <unistd.h>

namespace tarvik::sim {

class OwnedFd {
public:
    explicit OwnedFd(int fd) : m_fd(fd) {}
    ~OwnedFd() {
        if (m_fd >= 0) ::close(m_fd);
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

}  // namespace tarvik::sim
