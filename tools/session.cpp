#include "session.h"

#include <TarvikImpl.h>

#include <cstdio>

#include "usb_scan.h"

namespace tarvikctl {

ToolError ResultError(const std::string& what, int hr, ResultOrigin origin) {
    return ToolError(kExitFailed, what + " failed: result " + DescribeResult(hr, origin));
}

Session::Session(GlobalOptions options, LibraryOutput& output)
    : m_options(std::move(options)), m_output(output) {}

Session::~Session() {
    if (m_camera != nullptr) {
        LibrarySection section(m_output);
        zq_ReleaseTarvik(m_camera);
    }
}

TarvikImpl& Session::Camera() {
    if (m_camera != nullptr) return *m_camera;
    libTarvik* opened = nullptr;
    {
        LibrarySection section(m_output);
        opened = zq_CreateTarvik(nullptr, m_options.bus, m_options.address);
    }
    if (opened == nullptr) {
        // The factory only says "no"; look at the bus to say why.
        std::vector<CameraLocation> cameras;
        {
            LibrarySection section(m_output);
            cameras = ScanCameras();
        }
        throw ToolError(kExitNoCamera,
                        ExplainOpenFailure(cameras, m_options.bus, m_options.address) +
                            ": result " + DescribeResult(11));
    }
    // The factory makes nothing but TarvikImpl; applications reach its further members so.
    m_camera = static_cast<TarvikImpl*>(opened);
    return *m_camera;
}

void Session::Emit(const Json& json, const std::string& text) {
    if (m_options.json) {
        const std::string out = json.dump(2, ' ', false, Json::error_handler_t::replace);
        std::fputs((out + "\n").c_str(), stdout);
    } else {
        std::fputs(text.c_str(), stdout);
    }
    std::fflush(stdout);
}

void Session::Note(const std::string& message) { Say(m_output, message); }

void Say(LibraryOutput& output, const std::string& message) {
    output.StartOwnLine();
    std::fprintf(stderr, "tarvikctl: %s\n", message.c_str());
}

}  // namespace tarvikctl
