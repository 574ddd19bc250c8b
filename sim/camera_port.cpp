#include "camera_port.h"

namespace tarvik::sim {

CameraPort::CameraPort(std::shared_ptr<CameraModel> model, bool driverBound)
    : m_model(std::move(model)), m_driverBound(driverBound) {}

Reply CameraPort::Request(const SetupPacket& setup, const std::vector<uint8_t>& out) {
    if (m_model == nullptr) {
        Reply stall;
        stall.status = TransferStatus::kStalled;
        return stall;
    }
    Reply reply = m_model->Handle(setup, out);
    bool justGone = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        justGone = reply.goneForGood && !m_goneSeen;
        m_goneSeen = m_goneSeen || reply.goneForGood;
    }
    if (justGone) Notify();
    return reply;
}

bool CameraPort::Gone() const { return m_model != nullptr && m_model->Gone(); }

void CameraPort::Record(Transfer t) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_log.push_back(std::move(t));
}

std::vector<Transfer> CameraPort::Log() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_log;
}

std::vector<Transfer> CameraPort::TakeLog() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Transfer> out;
    out.swap(m_log);
    return out;
}

void CameraPort::ClearLog() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_log.clear();
}

bool CameraPort::DriverBound() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_driverBound;
}

void CameraPort::SetDriverBound(bool bound) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_driverBound == bound) return;
        m_driverBound = bound;
    }
    Notify();
}

void CameraPort::PluggedIn(bool driverBound) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_driverBound = driverBound;
    m_goneSeen = false;
}

std::chrono::milliseconds CameraPort::DriverTimeout() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_driverTimeout;
}

void CameraPort::SetDriverTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_driverTimeout = timeout;
}

void CameraPort::SetListener(std::function<void()> listener) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_listener = std::move(listener);
}

void CameraPort::Notify() {
    std::function<void()> listener;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        listener = m_listener;
    }
    if (listener) listener();
}

}  // namespace tarvik::sim
