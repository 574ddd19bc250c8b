// The launcher's control socket: a Unix stream socket in the simulated machine's root directory
// (mode 0600), one request per connection. A request is the command's words, each ended by a
// NUL byte, then the end of the client's writing; at most kMaxControlRequest bytes, sent within
// a second. The answer is the status as decimal digits and a newline, then the text to print.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "camera_control.h"

namespace tarvik::sim {

inline constexpr size_t kMaxControlRequest = 4096;

class ControlServer {
public:
    // Listens at `path`. Throws std::runtime_error.
    explicit ControlServer(std::string path);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Readable when a client waits.
    int Descriptor() const { return m_fd; }
    const std::string& Path() const { return m_path; }

    // Takes one waiting client, reads its request and sends what `handle` answers. A request
    // too long, cut short or too slow gets status 2 (or nothing, when the client is gone);
    // nothing a client sends ends the server.
    void ServeOne(const std::function<ControlAnswer(const std::vector<std::string>&)>& handle);

private:
    std::string m_path;
    int m_fd = -1;
};

// Sends one request to the launcher listening at `path` and returns its answer. Throws
// std::runtime_error when it cannot be reached or hangs up without an answer.
ControlAnswer SendControlRequest(const std::string& path, const std::vector<std::string>& words);

}  // namespace tarvik::sim
