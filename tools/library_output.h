// Where the library's own log lines and libusb's messages go.
//
// The library prints to standard output and libusb to standard error, while the tool's
// results must be all that reaches standard output. So the tool keeps copies of its
// standard streams and, around every library call, points descriptors 1 and 2 at a
// capture file; after the call the capture is forwarded to the chosen destination
// (standard error, a log file, or nowhere) and the descriptors are restored.
#pragma once

#include <memory>
#include <string>

namespace tarvikctl {

enum class LogDestination { kStderr, kFile, kNowhere };

class LibraryOutput {
public:
    // Throws std::runtime_error when the log file or the capture can't be opened.
    LibraryOutput(LogDestination destination, const std::string& logFile);
    ~LibraryOutput();
    LibraryOutput(const LibraryOutput&) = delete;
    LibraryOutput& operator=(const LibraryOutput&) = delete;

    // Points descriptors 1 and 2 at the capture. Sections do not nest.
    void Begin();
    // Restores them and forwards what was captured.
    void End();

    // Before the tool writes to standard error: when captured lines went there and the
    // last one did not end its line, end it, so the tool's message starts on its own line.
    void StartOwnLine();

private:
    void Forward();

    LogDestination m_destination;
    int m_savedOut = -1;
    int m_savedErr = -1;
    int m_capture = -1;
    int m_file = -1;
    bool m_active = false;
    bool m_midLine = false;
};

// One library call (or a few): the capture is active for the section's lifetime.
class LibrarySection {
public:
    explicit LibrarySection(LibraryOutput& output) : m_output(output) { m_output.Begin(); }
    ~LibrarySection() { m_output.End(); }
    LibrarySection(const LibrarySection&) = delete;
    LibrarySection& operator=(const LibrarySection&) = delete;

private:
    LibraryOutput& m_output;
};

}  // namespace tarvikctl
