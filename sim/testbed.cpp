#include "testbed.h"

#include <sys/stat.h>
#include <umockdev.h>

#include <cstdlib>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "camera_port.h"
#include "usb_descriptors.h"
#include "usb_device_node.h"
#include "video_device_node.h"

namespace tarvik::sim {

namespace {

constexpr size_t kSerialMax = 20;  // the device-SN item's length

void CheckSerial(const std::string& serial) {
    const bool printable =
        std::all_of(serial.begin(), serial.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
    if (serial.size() > kSerialMax || !printable) {
        throw std::runtime_error("serial: at most 20 printable ASCII characters: " + serial);
    }
}

// The gate entry for a /dev path (see gate/open_gate.c): absent, or the errno to refuse with.
void SetGate(const std::string& root, const std::string& node, int error) {
    std::string name = node.substr(1);
    std::replace(name.begin(), name.end(), '/', '_');
    const std::string dir = root + "/tarvik-gate";
    const std::string entry = dir + "/" + name;
    if (error == 0) {
        ::unlink(entry.c_str());
        return;
    }
    ::mkdir(dir.c_str(), 0755);
    // A new link renamed over the old one: a program never sees the entry missing midway.
    const std::string fresh = entry + ".new";
    ::unlink(fresh.c_str());
    if (::symlink(std::to_string(error).c_str(), fresh.c_str()) == 0) {
        ::rename(fresh.c_str(), entry.c_str());
    }
}

void SetLink(const std::string& link, const std::string& target, bool present) {
    ::unlink(link.c_str());
    if (present) ::symlink(target.c_str(), link.c_str());
}

}  // namespace

Camera::Camera(int bus, int address, std::string serial, std::shared_ptr<CameraModel> model,
               std::shared_ptr<CameraPort> port)
    : m_bus(bus),
      m_address(address),
      m_serial(std::move(serial)),
      m_model(std::move(model)),
      m_port(std::move(port)) {}

Camera::~Camera() { std::lock_guard<std::mutex> settled(m_refreshing); }

std::vector<Transfer> Camera::Log() const { return m_port->Log(); }
std::vector<Transfer> Camera::TakeLog() { return m_port->TakeLog(); }
void Camera::ClearLog() { m_port->ClearLog(); }
bool Camera::DriverBound() const { return m_port->DriverBound(); }
bool Camera::InterfaceClaimed() const { return m_node->InterfaceClaimed(); }

// Makes the files a program looks at follow the camera's state: the gate of each node and
// uvcvideo's `driver` link. Runs on whichever thread changed the state.
void Camera::Refresh() {
    std::lock_guard<std::mutex> lock(m_refreshing);
    const bool gone = m_port->Gone();
    const bool bound = m_port->DriverBound();
    const int usb = gone ? ENODEV : m_denyAccess ? EACCES : 0;
    SetGate(m_root, DeviceNodePath(m_bus, m_address), usb);
    for (const std::string& node : {m_videoNode, m_metadataNode}) {
        if (!node.empty()) SetGate(m_root, node, usb != 0 ? usb : bound ? 0 : ENODEV);
    }
    SetLink(m_root + DeviceSysPath(m_bus, m_address) + "/" + InterfaceName(m_bus, m_address) +
                "/driver",
            DriverLinkTarget(), bound && !gone);
    if (gone && m_onGone && !m_goneTold.exchange(true)) m_onGone(*this);
}

void Camera::Unplug() {
    if (m_unplugged) return;
    m_unplugged = true;
    m_model->Unplug();
    Refresh();
    const std::string device = DeviceSysPath(m_bus, m_address);
    const std::string interface = device + "/" + InterfaceName(m_bus, m_address);
    std::vector<std::string> gone;
    for (const std::string& node : {m_metadataNode, m_videoNode}) {
        if (!node.empty()) gone.push_back(interface + "/video4linux/" + node.substr(5));
    }
    gone.push_back(interface);
    gone.push_back(device);
    // No "remove" uevent: umockdev can send one only while a program listens for them, and
    // complains on standard error otherwise. Programs that enumerate again see the camera gone.
    for (const std::string& path : gone) umockdev_testbed_remove_device(m_testbed, path.c_str());
}

Testbed::Testbed() : m_testbed(umockdev_testbed_new()), m_driverTimeout(kDriverControlTimeout) {
    if (m_testbed == nullptr) throw std::runtime_error("umockdev_testbed_new failed");
    // The simulated machine's lock directory: programs on its cameras share their lock
    // files (TARVIK_LOCK_DIR), and programs on another simulated machine never meet them.
    setenv("TARVIK_LOCK_DIR", RootDir().c_str(), 1);
}

Testbed::~Testbed() {
    // The testbed goes first: it stops serving the nodes before their handlers are released.
    g_object_unref(m_testbed);
    for (auto& camera : m_cameras) camera->m_port->SetListener(nullptr);
    m_cameras.clear();
    m_others.clear();
}

std::string Testbed::RootDir() const {
    gchar* dir = umockdev_testbed_get_root_dir(m_testbed);
    std::string out = dir != nullptr ? dir : "";
    g_free(dir);
    return out;
}

bool Testbed::InMockEnvironment() { return umockdev_in_mock_environment() != FALSE; }

void Testbed::SetDriverTimeout(std::chrono::milliseconds timeout) {
    m_driverTimeout = timeout;
    for (auto& camera : m_cameras) camera->m_port->SetDriverTimeout(timeout);
}

void Testbed::SetGoneListener(std::function<void(Camera&)> listener) {
    m_onGone = std::move(listener);
    for (auto& camera : m_cameras) camera->m_onGone = m_onGone;
}

void Testbed::Reserve(int bus, int address) {
    if (bus < 1 || bus > 255 || address < 1 || address > 255) {
        throw std::runtime_error("bus and address must be 1-255");
    }
    if (std::find(m_taken.begin(), m_taken.end(), std::make_pair(bus, address)) != m_taken.end()) {
        throw std::runtime_error("bus/address taken: " + DeviceNodePath(bus, address));
    }
    m_taken.emplace_back(bus, address);
}

void Testbed::AddText(const std::string& text) {
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(m_testbed, text.c_str(), &error)) {
        const std::string why = error != nullptr ? error->message : "add_from_string failed";
        g_clear_error(&error);
        throw std::runtime_error("umockdev: " + why);
    }
}

Camera& Testbed::AddCamera(int bus, int address, bool kernelDriverBound, CameraState initial) {
    CameraOptions options;
    options.kernelDriverBound = kernelDriverBound;
    options.initial = std::move(initial);
    return AddCamera(bus, address, std::move(options));
}

Camera& Testbed::AddCamera(int bus, int address, CameraOptions options) {
    CheckSerial(options.serial);
    Reserve(bus, address);
    if (!options.serial.empty()) {
        options.initial.deviceSn.fill(0);
        std::copy(options.serial.begin(), options.serial.end(), options.initial.deviceSn.begin());
    }
    auto model = std::make_shared<CameraModel>(std::move(options.initial));
    auto port = std::make_shared<CameraPort>(model, options.kernelDriverBound);
    port->SetDriverTimeout(m_driverTimeout);
    std::unique_ptr<Camera> camera(new Camera(bus, address, options.serial, model, port));
    camera->m_testbed = m_testbed;
    camera->m_root = RootDir();
    camera->m_denyAccess = options.denyAccess;
    camera->m_onGone = m_onGone;

    std::map<uint8_t, std::string> strings = {{kProductStringIndex, kCameraProductName}};
    if (!options.serial.empty()) strings[kSerialStringIndex] = options.serial;
    camera->m_node = std::make_shared<UsbDeviceNode>(port, strings);
    std::string error;
    if (!camera->m_node->Attach(m_testbed, DeviceNodePath(bus, address), error)) {
        throw std::runtime_error("cannot add " + DeviceNodePath(bus, address) + ": " + error);
    }
    AddText(UmockdevDeviceText(bus, address, CameraDescriptors(), options.serial));
    AddText(UmockdevInterfaceText(bus, address, options.kernelDriverBound));
    if (options.videoNodes && options.kernelDriverBound) AddVideoNodes(*camera);

    Camera* raw = camera.get();
    port->SetListener([raw] { raw->Refresh(); });
    raw->Refresh();
    m_cameras.push_back(std::move(camera));
    return *raw;
}

void Testbed::AddVideoNodes(Camera& camera) {
    const int index = m_nextVideo;
    m_nextVideo += 2;
    const VideoIdentity identity{kCameraProductName,
                                 "usb-0000:00:14.0-" + std::to_string(camera.m_address)};
    for (const bool metadata : {false, true}) {
        const std::string node = "/dev/video" + std::to_string(index + (metadata ? 1 : 0));
        auto handler = std::make_shared<VideoDeviceNode>(
            camera.m_port,
            metadata ? VideoDeviceNode::Kind::kMetadata : VideoDeviceNode::Kind::kCapture,
            identity);
        std::string error;
        if (!handler->Attach(m_testbed, node, error)) {
            throw std::runtime_error("cannot add " + node + ": " + error);
        }
        AddText(UmockdevVideoText(camera.m_bus, camera.m_address, index + (metadata ? 1 : 0),
                                  metadata));
        camera.m_videoNodes.push_back(handler);
        (metadata ? camera.m_metadataNode : camera.m_videoNode) = node;
    }
}

void Testbed::AddOtherDevice(int bus, int address, uint16_t vendorId, uint16_t productId) {
    Reserve(bus, address);
    auto node = std::make_shared<UsbDeviceNode>(std::make_shared<CameraPort>(nullptr, false),
                                                std::map<uint8_t, std::string>{});
    std::string error;
    if (!node->Attach(m_testbed, DeviceNodePath(bus, address), error)) {
        throw std::runtime_error("cannot add " + DeviceNodePath(bus, address) + ": " + error);
    }
    AddText(UmockdevDeviceText(bus, address, OtherDeviceDescriptors(vendorId, productId), ""));
    m_others.push_back(node);
}

}  // namespace tarvik::sim
