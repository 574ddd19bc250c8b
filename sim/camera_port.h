// What the two doors of one simulated camera share: the model, one transfer log, whether the
// kernel's UVC driver is bound to interface 0, the driver's control timeout, and whoever wants
// to know when the binding changes or the camera goes for good (the sysfs view, the launcher).
//
// The usbfs door (usb_device_node) and the video door (video_device_node) both reach the
// model through Request, so that one state answers either door and a camera that goes away
// through one door is gone for the other too. Internal to the fixture; tests use testbed.h.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "camera_model.h"
#include "transfer_log.h"

namespace tarvik::sim {

// uvcvideo's control timeout (UVC_CTRL_CONTROL_TIMEOUT).
inline constexpr std::chrono::milliseconds kDriverControlTimeout{5000};

class CameraPort {
public:
    // `model` may be null: a device of another kind, which stalls every request.
    CameraPort(std::shared_ptr<CameraModel> model, bool driverBound);

    bool HasModel() const { return m_model != nullptr; }

    // One request to the camera; tells the listener when it made the camera go for good.
    Reply Request(const SetupPacket& setup, const std::vector<uint8_t>& out);
    bool Gone() const;

    void Record(Transfer t);
    std::vector<Transfer> Log() const;
    std::vector<Transfer> TakeLog();
    void ClearLog();

    bool DriverBound() const;
    void SetDriverBound(bool bound);

    // The camera is plugged in again: the driver bound or not, as the kernel binds it, and a
    // later going for good is told again. Tells no listener: the caller refreshes.
    void PluggedIn(bool driverBound);

    std::chrono::milliseconds DriverTimeout() const;
    void SetDriverTimeout(std::chrono::milliseconds timeout);

    // Called, outside any lock of the port, after the binding changed or the camera went for
    // good; it may run on umockdev's worker thread.
    void SetListener(std::function<void()> listener);

private:
    void Notify();

    std::shared_ptr<CameraModel> m_model;
    mutable std::mutex m_mutex;
    std::vector<Transfer> m_log;
    bool m_driverBound;
    bool m_goneSeen = false;
    std::chrono::milliseconds m_driverTimeout = kDriverControlTimeout;
    std::function<void()> m_listener;
};

}  // namespace tarvik::sim
