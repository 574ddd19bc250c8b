#include "library_output.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace tarvikctl {

namespace {

std::runtime_error SystemError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

void WriteAll(int fd, const char* data, size_t length) {
    while (length > 0) {
        const ssize_t n = ::write(fd, data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // a log that can't be written is not worth failing a command
        data += n;
        length -= static_cast<size_t>(n);
    }
}

}  // namespace

LibraryOutput::LibraryOutput(LogDestination destination, const std::string& logFile)
    : m_destination(destination) {
    if (destination == LogDestination::kFile) {
        m_file = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (m_file < 0) throw SystemError("cannot open log file " + logFile);
    }
    // A memory file never fills up and never blocks the library, whatever it prints.
    m_capture = ::memfd_create("tarvikctl-library-output", MFD_CLOEXEC);
    m_savedOut = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    m_savedErr = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (m_capture < 0 || m_savedOut < 0 || m_savedErr < 0) {
        const std::runtime_error error = SystemError("cannot set up the library's output");
        for (int fd : {m_file, m_capture, m_savedOut, m_savedErr}) {
            if (fd >= 0) ::close(fd);
        }
        throw error;
    }
}

LibraryOutput::~LibraryOutput() {
    if (m_active) End();
    for (int fd : {m_file, m_capture, m_savedOut, m_savedErr}) ::close(fd);
}

void LibraryOutput::Begin() {
    if (m_active) return;
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(m_capture, STDOUT_FILENO);
    ::dup2(m_capture, STDERR_FILENO);
    m_active = true;
}

void LibraryOutput::End() {
    if (!m_active) return;
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(m_savedOut, STDOUT_FILENO);
    ::dup2(m_savedErr, STDERR_FILENO);
    m_active = false;
    Forward();
}

void LibraryOutput::Forward() {
    const off_t size = ::lseek(m_capture, 0, SEEK_CUR);
    if (size > 0 && m_destination != LogDestination::kNowhere) {
        std::vector<char> bytes(static_cast<size_t>(size));
        const ssize_t n = ::pread(m_capture, bytes.data(), bytes.size(), 0);
        if (n > 0) {
            const int to = m_destination == LogDestination::kFile ? m_file : STDERR_FILENO;
            WriteAll(to, bytes.data(), static_cast<size_t>(n));
            if (m_destination == LogDestination::kStderr) m_midLine = bytes[n - 1] != '\n';
        }
    }
    if (::ftruncate(m_capture, 0) == 0) ::lseek(m_capture, 0, SEEK_SET);
}

void LibraryOutput::StartOwnLine() {
    if (m_midLine) {
        std::fflush(stderr);
        WriteAll(STDERR_FILENO, "\n", 1);
        m_midLine = false;
    }
}

}  // namespace tarvikctl
