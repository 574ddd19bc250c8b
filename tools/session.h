// One run of the tool: the global options, the camera (opened on first use, so that
// values are checked before anything is sent; through the library, or through tarvikd
// with --service) and the reply.
#pragma once

#include <memory>
#include <string>

#include "device.h"
#include "reply.h"

namespace tarvikctl {

// Which camera, and the path to it.
struct Selection {
    int bus = -1;  // with address; -1: any
    int address = -1;
    std::string serial;
    std::string video;               // a capture node: the kernel path
    std::string transport = "auto";  // usb, kernel or auto
};

struct GlobalOptions {
    Selection camera;
    bool json = false;
    bool verbose = false;
    bool quiet = false;  // the default; kept so that older scripts still run
    std::string logFile;
    bool simulate = false;
    bool service = false;  // through tarvikd
    bool session = false;  // ... on the session bus, not the system bus
};

class ServiceClient;

class Session {
public:
    Session(const GlobalOptions& options, Reply& reply);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const GlobalOptions& Options() const { return m_options; }
    Reply& Out() { return m_reply; }

    // The camera, opened on first use. Throws ToolError (no camera) saying why not.
    Device& Camera();
    // tarvikd, reached on first use (--service). Throws ToolError when it can't be.
    ServiceClient& Service();
    // Releases the camera (the kernel's video driver gets it back on the USB path).
    void Close();

private:
    const GlobalOptions& m_options;
    Reply& m_reply;
    std::unique_ptr<ServiceClient> m_service;
    std::unique_ptr<Device> m_camera;
};

// A failed call as the command's error: "<what> failed: result -7: ...".
void Check(int result, const std::string& what);

}  // namespace tarvikctl
