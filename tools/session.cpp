#include "session.h"

namespace tarvikctl {

Session::Session(const GlobalOptions& options, Reply& reply) : m_options(options), m_reply(reply) {}

Session::~Session() { Close(); }

Device& Session::Camera() {
    if (!m_camera) m_camera = OpenLocalDevice(m_options.camera);
    return *m_camera;
}

void Session::Close() { m_camera.reset(); }

void Check(int result, const std::string& what) {
    if (result != 0)
        throw ToolError(kExitFailed, result, what + " failed: " + DescribeResult(result));
}

}  // namespace tarvikctl
