// Where the library's log lines go: nowhere by default, standard error with
// --verbose, appended to a file with --log. They arrive through the C interface's
// log handler, so that standard output carries the tool's results alone.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>

namespace tarvikctl {

class LibraryLog {
public:
    // Installs the handler. Throws ToolError (bad arguments) when the file can't be opened.
    LibraryLog(bool verbose, const std::string& file);
    // Removes the handler before the destinations go away.
    ~LibraryLog();
    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;

private:
    static void Handle(int level, const char* line, void* user);
    void WriteToFile(const char* line);

    bool m_verbose;
    std::string m_fileName;
    std::FILE* m_file = nullptr;
    std::atomic<bool> m_fileFailed{false};  // said once; later lines are dropped
};

}  // namespace tarvikctl
