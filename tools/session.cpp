#include "session.h"

#include "open_failure.h"

namespace tarvikctl {

tarvik_camera* Session::Camera() {
    if (m_camera != nullptr) return m_camera;
    const OpenRequest request(m_options.camera);
    const int result = tarvik_open(&request.options, &m_camera);
    if (result != 0) {
        m_camera = nullptr;
        throw OpenError(result, m_options.camera);
    }
    return m_camera;
}

void Session::Close() {
    tarvik_close(m_camera);
    m_camera = nullptr;
}

void Check(int result, const std::string& what) {
    if (result != 0)
        throw ToolError(kExitFailed, result, what + " failed: " + DescribeResult(result));
}

}  // namespace tarvikctl
