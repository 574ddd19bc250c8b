// Who may reach the bridge: the address it listens on (loopback only), the
// origins allowed on the command line, and the judgement of an upgrade
// request's Host and Origin headers. Pure functions: no sockets, no bus.
#pragma once

#include <string>
#include <vector>

namespace tarvik_bridge {

struct ListenAddress {
    std::string address;  // "127.0.0.1", "::1" (as given, no brackets)
    unsigned short port = 0;
    bool v6 = false;
};

// "ADDR:PORT" or "[ADDR]:PORT", ADDR a loopback address (127.0.0.0/8 or ::1)
// and PORT 0-65535 (0: any free port). False and `why` otherwise, names
// included: a name could resolve anywhere.
bool ParseListen(const std::string& text, ListenAddress& out, std::string& why);

// An origin as browsers send it: scheme "://" host [":" port], lower case, no
// path, no trailing slash; "null" (file: pages, sandboxed frames: anyone's) is
// refused.
bool CheckOriginSyntax(const std::string& origin, std::string& why);

struct Verdict {
    int status = 0;      // 0: allowed; otherwise the HTTP status to answer
    std::string reason;  // for the log (header values made printable)
};

// An upgrade request's verdict from its Host and Origin fields (every
// occurrence of each): exactly one Host naming the address and port the bridge
// listens on ("localhost:PORT" too), and exactly one Origin on `allowed`.
// `port` is the port actually bound.
Verdict JudgeUpgrade(const ListenAddress& listen, unsigned short port,
                     const std::vector<std::string>& allowed, const std::vector<std::string>& hosts,
                     const std::vector<std::string>& origins);

}  // namespace tarvik_bridge
