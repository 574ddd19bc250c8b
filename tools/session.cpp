#include "session.h"

#ifdef TARVIKCTL_WITH_SERVICE
#include "service_client.h"
#endif

namespace tarvikctl {

#ifndef TARVIKCTL_WITH_SERVICE
// Built without libsystemd: no --service, and no client of tarvikd.
class ServiceClient {};
#endif

Session::Session(const GlobalOptions& options, Reply& reply) : m_options(options), m_reply(reply) {}

Session::~Session() { Close(); }

#ifdef TARVIKCTL_WITH_SERVICE
ServiceClient& Session::Service() {
    if (!m_service) m_service = std::make_unique<ServiceClient>(m_options.session);
    return *m_service;
}

Device& Session::Camera() {
    if (!m_camera) {
        m_camera = m_options.service ? Service().OpenCamera(m_options.camera.serial)
                                     : OpenLocalDevice(m_options.camera);
    }
    return *m_camera;
}

void Session::Close() {
    m_camera.reset();
    m_service.reset();
}
#else
Device& Session::Camera() {
    if (!m_camera) m_camera = OpenLocalDevice(m_options.camera);
    return *m_camera;
}

void Session::Close() { m_camera.reset(); }
#endif

void Check(int result, const std::string& what) {
    if (result != 0)
        throw ToolError(kExitFailed, result, what + " failed: " + DescribeResult(result));
}

}  // namespace tarvikctl
