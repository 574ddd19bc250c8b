// The in-process test fixture: simulated cameras that the real libusb of this process
// enumerates, opens and talks to.
//
// The process must run under umockdev's preload (tests registered with
// tarvik_add_device_test() do; otherwise `umockdev-wrapper CMD`). Create the Testbed and add
// devices before the code under test calls libusb_init / libusb_get_device_list.
//
//   tarvik::sim::Testbed bed;
//   tarvik::sim::Camera& cam = bed.AddCamera(1, 2);        // bus 1, address 2, driver bound
//   cam.Model().Update([](tarvik::sim::CameraState& s) { s.roi = {1, 2, 3, 4}; });
//   cam.Model().InjectFault({tarvik::sim::FaultKind::kStall, 14, tarvik::sim::Direction::kIn});
//   ... run libusb code ...
//   for (const tarvik::sim::Transfer& t : cam.TakeLog()) { ... t.setup, t.out, t.in ... }
//
// Thread safety: every member may be called from any thread while libusb runs; umockdev
// serves the device ioctls on its own worker thread. Devices live as long as the Testbed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "camera_model.h"
#include "camera_state.h"
#include "faults.h"
#include "transfer_log.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace tarvik::sim {

class UsbDeviceNode;

// One simulated camera (0x0AC8:0x010C) on the bus.
class Camera {
public:
    int Bus() const { return m_bus; }
    int Address() const { return m_address; }

    // The camera's extension unit: state (State/Update), faults (InjectFault, InjectSamFault,
    // InjectZeroGyro, ClearFaults) and scripted answers (QueueAnswer). See camera_model.h.
    CameraModel& Model() { return *m_model; }

    // Every control transfer the host made to this camera, in completion order.
    std::vector<Transfer> Log() const;
    // The log so far, leaving it empty.
    std::vector<Transfer> TakeLog();
    void ClearLog();

    // Whether a kernel driver is bound to interface 0 (libusb detaches and re-attaches it).
    bool KernelDriverAttached() const;

private:
    friend class Testbed;
    Camera(int bus, int address, std::shared_ptr<CameraModel> model,
           std::shared_ptr<UsbDeviceNode> node);
    int m_bus;
    int m_address;
    std::shared_ptr<CameraModel> m_model;
    std::shared_ptr<UsbDeviceNode> m_node;
};

class Testbed {
public:
    Testbed();
    ~Testbed();
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    // Adds a camera at bus/address (1-255 each), with or without a kernel driver bound to
    // interface 0, starting from `initial` state. Returns the camera; the reference stays valid
    // as long as the Testbed. A bus/address pair taken already, or a umockdev failure, throws
    // std::runtime_error.
    Camera& AddCamera(int bus, int address, bool kernelDriverBound = true,
                      CameraState initial = DefaultCameraState());

    // Adds a device of another kind (vendor-specific class, no kernel driver) that stalls every
    // control transfer.
    void AddOtherDevice(int bus, int address, uint16_t vendorId = 0x1D6B,
                        uint16_t productId = 0x0104);

    Camera& GetCamera(size_t index) { return *m_cameras.at(index); }
    size_t CameraCount() const { return m_cameras.size(); }

    // The umockdev root, as UMOCKDEV_DIR for a child process.
    std::string RootDir() const;

    // Whether this process runs under umockdev's preload (libusb then sees the testbed).
    static bool InMockEnvironment();

private:
    void AddNode(int bus, int address, const std::shared_ptr<UsbDeviceNode>& node,
                 const std::vector<uint8_t>& descriptors);

    UMockdevTestbed* m_testbed = nullptr;
    std::vector<std::unique_ptr<Camera>> m_cameras;
    std::vector<std::shared_ptr<UsbDeviceNode>> m_nodes;
    std::vector<std::pair<int, int>> m_taken;
};

}  // namespace tarvik::sim
