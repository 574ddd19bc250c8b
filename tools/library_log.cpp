#include "library_log.h"

#include <tarvik.h>

#include <cerrno>
#include <cstring>

#include "reply.h"

namespace tarvikctl {

LibraryLog::LibraryLog(bool verbose, const std::string& file)
    : m_verbose(verbose), m_fileName(file) {
    if (!file.empty()) {
        m_file = std::fopen(file.c_str(), "ae");
        if (m_file == nullptr) {
            throw ToolError(kExitUsage, TARVIK_E_INVALID_ARGUMENT,
                            "--log: cannot open " + file + ": " + std::strerror(errno));
        }
    }
    // Installed even when the lines go nowhere: the library's default is standard output,
    // which belongs to the results.
    tarvik_set_log_handler(&LibraryLog::Handle, this);
    // Every line when someone reads them; none is formatted otherwise.
    tarvik_set_log_level(verbose || m_file != nullptr ? TARVIK_LOG_DEBUG : TARVIK_LOG_ERROR);
}

LibraryLog::~LibraryLog() {
    tarvik_set_log_handler(nullptr, nullptr);
    if (m_file != nullptr) std::fclose(m_file);
}

// Each line comes without its line end.
void LibraryLog::Handle(int /*level*/, const char* line, void* user) {
    auto* self = static_cast<LibraryLog*>(user);
    if (self->m_verbose) std::fprintf(stderr, "%s\n", line);
    if (self->m_file != nullptr) self->WriteToFile(line);
}

// A log that can't be written is not worth failing a command for, but its loss is
// told once, on standard error.
void LibraryLog::WriteToFile(const char* line) {
    if (m_fileFailed.load()) return;
    errno = 0;
    if (std::fprintf(m_file, "%s\n", line) >= 0 && std::fflush(m_file) == 0) return;
    const int error = errno;
    if (m_fileFailed.exchange(true)) return;
    std::fprintf(stderr, "tarvikctl: --log %s: cannot write: %s; further log lines are dropped\n",
                 m_fileName.c_str(), error != 0 ? std::strerror(error) : "write error");
}

}  // namespace tarvikctl
