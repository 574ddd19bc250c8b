#include "camera_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tarvik {
namespace {

// Where the lock files go, in the order tried: every process tries the same.
std::string lock_path(const char* dir, const std::string& port) {
    return std::string(dir) + "/tarvik-" + port + ".lock";
}

void flock_retrying(int fd, int operation) {
    while (::flock(fd, operation) != 0 && errno == EINTR) {
    }
}

}  // namespace

CameraLock::~CameraLock() { Close(); }

bool CameraLock::Open(const std::string& port, std::string& why) {
    Close();
    // TARVIK_LOCK_DIR puts the lock files elsewhere for every program that
    // shares it (a container's shared volume, a simulated machine).
    const char* chosen = std::getenv("TARVIK_LOCK_DIR");
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    for (const char* dir : {chosen, "/run/lock", runtime, "/tmp"}) {
        if (dir == nullptr) continue;
        // Read-only is enough to lock, and lets any user use a file another made.
        m_fd = ::open(lock_path(dir, port).c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
        if (m_fd >= 0) {
            // Whatever the creator's umask (a service's is often 0077), other
            // users must be able to open it. Not ours: its owner's mode stays.
            (void)::fchmod(m_fd, 0644);
            return true;
        }
        why = lock_path(dir, port) + ": " + std::strerror(errno);
    }
    return false;
}

void CameraLock::Close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_depth = 0;
}

void CameraLock::Acquire() {
    if (m_fd >= 0 && m_depth++ == 0) flock_retrying(m_fd, LOCK_EX);
}

void CameraLock::Release() {
    if (m_fd >= 0 && --m_depth == 0) flock_retrying(m_fd, LOCK_UN);
}

}  // namespace tarvik
