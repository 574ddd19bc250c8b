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
//   cam.RemoveCard(); cam.PlaceCard("other.json");          // the card on the reader
//   cam.Unplug(); cam.Replug();                             // then see cam.Address()
//
// Devices live as long as the Testbed. For threads, see Camera.
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
class Testbed;
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
//
// Thread safety: every member may be called from any thread while programs use the camera
// through either door on others; umockdev serves the doors on its own worker thread. Unplug,
// Replug and the Testbed's AddCamera and AddOtherDevice run one at a time. Address(),
// VideoNode() and MetadataNode() say where the camera is at the moment of the call. A gone
// listener (Testbed::SetGoneListener) runs inside the camera's own bookkeeping, possibly on
// umockdev's thread: it must not call the Testbed or the Camera (the model is fine), and hands
// an unplug to another thread, as tarvik-sim does.
class Camera {
public:
    ~Camera();
    int Bus() const { return m_bus; }
    // The device address on the bus now; each replug gives the camera a new one.
    int Address() const;
    const std::string& Serial() const { return m_serial; }

    // The camera's extension unit: state (State/Update), faults (InjectFault, InjectSamFault,
    // InjectZeroGyro, ClearFaults) and scripted answers (QueueAnswer). See camera_model.h.
    CameraModel& Model() { return *m_model; }

    // Every request the camera answered through either door, in completion order; each
    // Transfer says its door (Door::kUsbfs or Door::kVideo) and whether the driver made it on
    // its own (byDriver: GET_LEN and GET_INFO on a control's first use through the video door).
    // The log runs on across replugs.
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
    std::string VideoNode() const;
    std::string MetadataNode() const;

    // Whether the camera is on the bus (not unplugged).
    bool Plugged() const;

    // Pulls the camera's cable, as the kernel shows it: "remove" uevents for the video nodes,
    // interface 0 and the USB device (seen by libudev monitors and libusb's hotplug in
    // programs under the preload), then their sysfs entries and video nodes go. From then on
    // every request through either door fails with ENODEV, /dev/bus/usb/BBB/DDD and the video
    // nodes refuse to open with ENODEV (through the open gate), and descriptors still open get
    // ENODEV, also after a replug. Nothing happens when the camera is unplugged already.
    void Unplug();
    // Plugs the camera in again (after Unplug; a plugged camera is unplugged first): the same
    // serial and USB port ("B-P" in sysfs, P being its first address), a new device address on
    // the same bus (the next one no device has had in this testbed, as the kernel's round
    // robin), new video nodes when it had them (the numbers after the last handed out) and
    // uvcvideo bound when it was at the start; each announced with an "add" uevent once it is
    // complete. The camera comes back as from a power cycle (CameraModel::PowerCycle): the
    // volatile items at their defaults; device id, serial and the card on the reader as they
    // were. The transfer log and the injected faults stay. Throws std::runtime_error when the
    // bus has no address left.
    void Replug();

    // The card on the reader. PlaceCard lays a card there: the one in `cardFile` (a card file,
    // see card_file.h; a bad one throws std::runtime_error and changes nothing), or the card the
    // camera was made with when it is empty. Without a card, SAM commands 0, 1, 3 and 4 answer
    // status 00 00 80 (code 17).
    void PlaceCard(const std::string& cardFile = "");
    void RemoveCard();
    bool HasCard() const;

    // The tilt the motion sensor reports from now on, in whole degrees. Throws
    // std::invalid_argument for a tilt no sample gives (see gyro_tilt.h).
    void SetTilt(int pitch, int roll);

    // A fault for the rest of the run, named as tarvik-sim's --fault names it (fault_syntax.h:
    // "stall", "timeout:5", ...); "none" drops every fault injected so far. Throws
    // std::invalid_argument for a bad name.
    void InjectFault(const std::string& spec);

private:
    friend class Testbed;
    Camera(Testbed& bed, int bus, int address, std::string serial,
           std::shared_ptr<CameraModel> model, std::shared_ptr<CameraPort> port);
    // Where the camera is now: what Replug changes. Guarded by m_whereMutex.
    struct Where {
        int address = 0;
        bool plugged = true;
        std::string videoNode;
        std::string metadataNode;
    };
    Where Now() const;
    void UnplugLocked();
    void Refresh();

    Testbed& m_bed;
    const int m_bus;
    const int m_hubPort;  // the root hub's port: the sysfs name B-P, kept across replugs
    const std::string m_serial;
    std::shared_ptr<CameraModel> m_model;
    std::shared_ptr<CameraPort> m_port;
    mutable std::mutex m_whereMutex;
    Where m_where;
    std::shared_ptr<UsbDeviceNode> m_node;  // the usbfs node of the current plug-in
    // Every node the camera ever had: umockdev may still serve descriptors of an earlier one.
    std::vector<std::shared_ptr<UsbDeviceNode>> m_oldNodes;
    std::vector<std::shared_ptr<VideoDeviceNode>> m_videoNodes;
    bool m_driverAtPlug = true;  // uvcvideo binds when the camera is plugged in
    bool m_withVideo = true;     // and makes video nodes
    bool m_denyAccess = false;
    IdentityCard m_ownCard;  // the card the camera was made with
    std::atomic<bool> m_goneTold{false};
    // Held by Refresh, which may run on umockdev's worker thread: the destructor takes it too,
    // so that a refresh there is over before the members go (umockdev's thread join is not
    // visible to the thread sanitizer).
    std::mutex m_refreshing;
    std::function<void(Camera&)> m_onGone;
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

    Camera& GetCamera(size_t index);
    size_t CameraCount() const;

    // The driver's control timeout on the video door (5000 ms, as uvcvideo's), for every camera
    // present and to come: a request the camera holds back longer fails with ETIMEDOUT then.
    void SetDriverTimeout(std::chrono::milliseconds timeout);

    // Called when a camera goes for good (a kGoneForGood fault, an unplug), possibly on
    // umockdev's worker thread: the place to call Camera::Unplug from another thread.
    void SetGoneListener(std::function<void(Camera&)> listener);

    // The umockdev root, as UMOCKDEV_DIR for a child process.
    std::string RootDir() const;

    // Whether this process runs under umockdev's preload (libusb then sees the testbed).
    // umockdev keeps its first answer: ask only once a Testbed exists.
    static bool InMockEnvironment();

private:
    friend class Camera;
    void Reserve(int bus, int address);
    int NextAddress(int bus) const;
    void AddText(const std::string& text);
    void AddUsbDevice(int bus, int port, int address, const std::vector<uint8_t>& descriptors,
                      const std::string& serial);
    void AddCameraNodes(Camera& camera, int address, bool driverBound);

    // Serialises what changes the device tree: adding devices, unplugs and replugs.
    mutable std::mutex m_mutex;
    UMockdevTestbed* m_testbed = nullptr;
    std::string m_root;
    bool m_announce = false;  // under the preload: umockdev can send uevents
    std::vector<std::unique_ptr<Camera>> m_cameras;
    std::vector<std::shared_ptr<UsbDeviceNode>> m_others;
    std::vector<std::pair<int, int>> m_taken;
    int m_nextVideo = 0;
    std::chrono::milliseconds m_driverTimeout;
    std::function<void(Camera&)> m_onGone;
};

}  // namespace tarvik::sim
