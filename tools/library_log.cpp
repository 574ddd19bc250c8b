#include "library_log.h"

#include <tarvik.h>

#include <cerrno>
#include <cstring>

#include "reply.h"

namespace tarvikctl {

LibraryLog::LibraryLog(bool verbose, const std::string& file) : m_verbose(verbose) {
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

// Each line comes without its line end; a log that can't be written is not worth
// failing a command for.
void LibraryLog::Handle(int /*level*/, const char* line, void* user) {
    const auto* self = static_cast<const LibraryLog*>(user);
    if (self->m_verbose) std::fprintf(stderr, "%s\n", line);
    if (self->m_file != nullptr) {
        std::fprintf(self->m_file, "%s\n", line);
        std::fflush(self->m_file);
    }
}

}  // namespace tarvikctl
