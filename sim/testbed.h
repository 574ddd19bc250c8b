// The in-process test fixture: simulated cameras that the real libusb of this process
// enumerates, opens and talks to, and that the kernel's UVC driver (as far as the emulation
// goes) shows as /dev/videoN.
//
// The process must run under umockdev's preload (tests registered with
// tarvik_add_device_test() do; otherwise `umockdev-wrapper CMD`). Create the Testbed and add
// devices before the code under test calls libusb_init / libusb_get_device_list.
//
//   tarvik::sim::Testbed bed;
//   tarvik::sim::Camera& cam = bed.AddCamera(1, 2);        // bus 1, address 2, driver bound
//   cam.Model().Update([](tarvik::sim::CameraState& s) { s.roi = {1, 2, 3, 4}; });
//   cam.Model().InjectFault({tarvik::sim::FaultKind::kStall, 14, tarvik::sim::Direction::kIn});
//   ... run libusb code, or UVCIOC_CTRL_QUERY on cam.VideoNode() ...
//   for (const tarvik::sim::Transfer& t : cam.TakeLog()) { ... t.setup, t.door, t.byDriver ... }
//
// Thread safety: every member may be called from any thread while libusb runs; umockdev
// serves the device ioctls on its own worker thread. Devices live as long as the Testbed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "camera_model.h"
#include "camera_state.h"
#include "faults.h"
#include "transfer_log.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace tarvik::sim {

class CameraPort;
class UsbDeviceNode;
class VideoDeviceNode;

// The serial number of the default camera: its iSerialNumber string and its device-SN item.
inline constexpr char kDefaultSerial[] = "SN2024SIMCAMERA00042";

struct CameraOptions {
    bool kernelDriverBound = true;  // uvcvideo bound to interface 0 at the start
    // The driver's side: a capture node and a metadata node while the driver is bound. A camera
    // that starts without the driver has none.
    bool videoNodes = true;
    // iSerialNumber and the device-SN item's content: printable ASCII, at most 20 characters;
    // empty for a camera without a serial string.
    std::string serial = kDefaultSerial;
    // Every node of the camera refuses open() with EACCES, as without the udev rule. Needs
    // the open gate preloaded (tarvik-sim run does it; see sim/gate/open_gate.c).
    bool denyAccess = false;
    CameraState initial = DefaultCameraState();
};

// One simulated camera (0x0AC8:0x010C) on the bus.
class Camera {
public:
    ~Camera();
    int Bus() const { return m_bus; }
    int Address() const { return m_address; }
    const std::string& Serial() const { return m_serial; }

    // The camera's extension unit: state (State/Update), faults (InjectFault, InjectSamFault,
    // InjectZeroGyro, ClearFaults) and scripted answers (QueueAnswer). See camera_model.h.
    CameraModel& Model() { return *m_model; }

    // Every request the camera answered through either door, in completion order; each
    // Transfer says its door (Door::kUsbfs or Door::kVideo) and whether the driver made it on
    // its own (byDriver: GET_LEN and GET_INFO on a control's first use through the video door).
    std::vector<Transfer> Log() const;
    // The log so far, leaving it empty.
    std::vector<Transfer> TakeLog();
    void ClearLog();

    // Whether uvcvideo is bound to interface 0 (libusb detaches and re-attaches it).
    bool DriverBound() const;
    bool KernelDriverAttached() const { return DriverBound(); }
    // Whether some open descriptor of /dev/bus/usb/BBB/DDD holds interface 0 (claimed, or
    // implicitly by its first control transfer to it).
    bool InterfaceClaimed() const;

    // "/dev/videoN" (capture) and "/dev/videoN+1" (metadata); empty when the camera has none.
    // While the driver is unbound or the camera gone they answer ENODEV.
    const std::string& VideoNode() const { return m_videoNode; }
    const std::string& MetadataNode() const { return m_metadataNode; }

    // Takes the camera off the bus for good, as pulling its cable: every request through
    // either door fails with ENODEV from now on, its sysfs entries and video nodes go (a
    // program that enumerates again no longer finds it), /dev/bus/usb/BBB/DDD refuses to open
    // with ENODEV (through the open gate) and descriptors still open get ENODEV. No hotplug
    // event is sent. Call it from the test's thread, not from a gone listener.
    void Unplug();

private:
    friend class Testbed;
    Camera(int bus, int address, std::string serial, std::shared_ptr<CameraModel> model,
           std::shared_ptr<CameraPort> port);
    int m_bus;
    int m_address;
    std::string m_serial;
    std::shared_ptr<CameraModel> m_model;
    std::shared_ptr<CameraPort> m_port;
    std::shared_ptr<UsbDeviceNode> m_node;
    std::vector<std::shared_ptr<VideoDeviceNode>> m_videoNodes;
    std::string m_videoNode;
    std::string m_metadataNode;
    bool m_denyAccess = false;
    UMockdevTestbed* m_testbed = nullptr;
    std::string m_root;
    bool m_unplugged = false;
    std::atomic<bool> m_goneTold{false};
    // Held by Refresh, which may run on umockdev's worker thread: the destructor takes it too,
    // so that a refresh there is over before the members go (umockdev's thread join is not
    // visible to the thread sanitizer).
    std::mutex m_refreshing;
    std::function<void(Camera&)> m_onGone;
    void Refresh();
};

class Testbed {
public:
    Testbed();
    ~Testbed();
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    // Adds a camera at bus/address (1-255 each). Returns the camera; the reference stays valid
    // as long as the Testbed. A bus/address pair taken already, a bad serial or a umockdev
    // failure throws std::runtime_error.
    Camera& AddCamera(int bus, int address, CameraOptions options);
    Camera& AddCamera(int bus, int address, bool kernelDriverBound = true,
                      CameraState initial = DefaultCameraState());

    // Adds a device of another kind (vendor-specific class, no kernel driver) that stalls every
    // control transfer.
    void AddOtherDevice(int bus, int address, uint16_t vendorId = 0x1D6B,
                        uint16_t productId = 0x0104);

    Camera& GetCamera(size_t index) { return *m_cameras.at(index); }
    size_t CameraCount() const { return m_cameras.size(); }

    // The driver's control timeout on the video door (5000 ms, as uvcvideo's), for every camera
    // present and to come: a request the camera holds back longer fails with ETIMEDOUT then.
    void SetDriverTimeout(std::chrono::milliseconds timeout);

    // Called when a camera goes for good (a kGoneForGood fault, an unplug), possibly on
    // umockdev's worker thread: the place to call Camera::Unplug from another thread.
    void SetGoneListener(std::function<void(Camera&)> listener);

    // The umockdev root, as UMOCKDEV_DIR for a child process.
    std::string RootDir() const;

    // Whether this process runs under umockdev's preload (libusb then sees the testbed).
    static bool InMockEnvironment();

private:
    void Reserve(int bus, int address);
    void AddText(const std::string& text);
    void AddVideoNodes(Camera& camera);

    UMockdevTestbed* m_testbed = nullptr;
    std::vector<std::unique_ptr<Camera>> m_cameras;
    std::vector<std::shared_ptr<UsbDeviceNode>> m_others;
    std::vector<std::pair<int, int>> m_taken;
    int m_nextVideo = 0;
    std::chrono::milliseconds m_driverTimeout;
    std::function<void(Camera&)> m_onGone;
};

}  // namespace tarvik::sim
