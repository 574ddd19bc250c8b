#include "testbed.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "camera_port.h"
#include "card_file.h"
#include "fault_syntax.h"
#include "gyro_tilt.h"
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

// The fixture's own files lie in the testbed's root, where no path needs redirecting, and
// their calls go straight to the kernel: umockdev's preload handles some of them (mkdir, open)
// with a path buffer that other threads' calls share unlocked.
int MakeDir(const std::string& path) {
    return static_cast<int>(::syscall(SYS_mkdirat, AT_FDCWD, path.c_str(), 0755));
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
    MakeDir(dir);
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

void MakeDirs(const std::string& path) {
    for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
        MakeDir(path.substr(0, at));
        if (at == std::string::npos) return;
    }
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    MakeDirs(path.substr(0, path.rfind('/')));
    const int fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path.c_str(),
                                              O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    const bool written = fd >= 0 && ::syscall(SYS_write, fd, bytes.data(), bytes.size()) ==
                                        static_cast<long>(bytes.size());
    const int error = errno;
    if (fd >= 0) ::syscall(SYS_close, fd);
    if (!written) throw std::runtime_error("cannot write " + path + ": " + std::strerror(error));
}

template <typename Node>
void AttachTo(UMockdevTestbed* testbed, Node& node, const std::string& path) {
    std::string error;
    if (!node.Attach(testbed, path, error)) {
        throw std::runtime_error("cannot add " + path + ": " + error);
    }
}

}  // namespace

Camera::Camera(Testbed& bed, int bus, int address, std::string serial,
               std::shared_ptr<CameraModel> model, std::shared_ptr<CameraPort> port)
    : m_bed(bed),
      m_bus(bus),
      m_hubPort(address),
      m_serial(std::move(serial)),
      m_model(std::move(model)),
      m_port(std::move(port)) {
    m_where.address = address;
}

Camera::~Camera() { std::lock_guard<std::mutex> settled(m_refreshing); }

Camera::Where Camera::Now() const {
    std::lock_guard<std::mutex> lock(m_whereMutex);
    return m_where;
}

int Camera::Address() const { return Now().address; }
std::string Camera::VideoNode() const { return Now().videoNode; }
std::string Camera::MetadataNode() const { return Now().metadataNode; }
bool Camera::Plugged() const { return Now().plugged; }

std::vector<Transfer> Camera::Log() const { return m_port->Log(); }
std::vector<Transfer> Camera::TakeLog() { return m_port->TakeLog(); }
void Camera::ClearLog() { m_port->ClearLog(); }
bool Camera::DriverBound() const { return m_port->DriverBound(); }

bool Camera::InterfaceClaimed() const {
    std::shared_ptr<UsbDeviceNode> node;
    {
        std::lock_guard<std::mutex> lock(m_whereMutex);
        node = m_node;
    }
    return node->InterfaceClaimed();
}

// Makes the files a program looks at follow the camera's state: the gate of each node and
// uvcvideo's `driver` link. Runs on whichever thread changed the state.
void Camera::Refresh() {
    std::lock_guard<std::mutex> lock(m_refreshing);
    const Where where = Now();
    const bool gone = !where.plugged || m_port->Gone();
    const bool bound = m_port->DriverBound();
    const int usb = gone ? ENODEV : m_denyAccess ? EACCES : 0;
    const std::string& root = m_bed.m_root;
    SetGate(root, DeviceNodePath(m_bus, where.address), usb);
    for (const std::string& node : {where.videoNode, where.metadataNode}) {
        if (!node.empty()) SetGate(root, node, usb != 0 ? usb : bound ? 0 : ENODEV);
    }
    SetLink(
        root + DeviceSysPath(m_bus, m_hubPort) + "/" + InterfaceName(m_bus, m_hubPort) + "/driver",
        DriverLinkTarget(), bound && !gone);
    if (gone && m_onGone && !m_goneTold.exchange(true)) m_onGone(*this);
}

void Camera::Unplug() {
    std::lock_guard<std::mutex> changing(m_bed.m_mutex);
    UnplugLocked();
}

void Camera::UnplugLocked() {
    Where where;
    {
        std::lock_guard<std::mutex> lock(m_whereMutex);
        if (!m_where.plugged) return;
        m_where.plugged = false;
        where = m_where;
    }
    // No request through a node of this plug-in reaches the camera again, even once it is back.
    m_node->Retire();
    for (auto& node : m_videoNodes) node->Retire();
    m_model->Unplug();
    Refresh();
    const std::string device = DeviceSysPath(m_bus, m_hubPort);
    const std::string interface = device + "/" + InterfaceName(m_bus, m_hubPort);
    std::vector<std::string> gone;
    for (const std::string& node : {where.metadataNode, where.videoNode}) {
        if (!node.empty()) gone.push_back(interface + "/video4linux/" + node.substr(5));
    }
    gone.push_back(interface);
    gone.push_back(device);
    // The kernel's order, children first. umockdev describes an entry from sysfs, so every
    // uevent goes before the first entry does. Without the preload in this process it could
    // not read them (and would say so on standard error): programs see the camera gone only
    // when they enumerate again.
    if (m_bed.m_announce) {
        for (const std::string& path : gone) {
            umockdev_testbed_uevent(m_bed.m_testbed, path.c_str(), "remove");
        }
    }
    for (const std::string& path : gone) {
        umockdev_testbed_remove_device(m_bed.m_testbed, path.c_str());
    }
    // umockdev takes the folders of a subsystem away with its last device; the kernel keeps them.
    MakeDirs(m_bed.m_root + "/sys/bus/usb/devices");
    if (!where.videoNode.empty()) MakeDirs(m_bed.m_root + "/sys/class/video4linux");
}

void Camera::Replug() {
    std::lock_guard<std::mutex> changing(m_bed.m_mutex);
    UnplugLocked();
    const int address = m_bed.NextAddress(m_bus);
    m_bed.Reserve(m_bus, address);
    m_model->PowerCycle();
    m_port->PluggedIn(m_driverAtPlug);
    m_goneTold = false;
    m_bed.AddCameraNodes(*this, address, m_driverAtPlug);
}

void Camera::PlaceCard(const std::string& cardFile) {
    IdentityCard card = cardFile.empty() ? m_ownCard : LoadCardFile(cardFile);
    m_model->Update([&card](CameraState& s) {
        s.sam.card = std::move(card);
        s.sam.cardPresent = true;
    });
}

void Camera::RemoveCard() {
    m_model->Update([](CameraState& s) { s.sam.cardPresent = false; });
}

bool Camera::HasCard() const { return m_model->State().sam.cardPresent; }

void Camera::SetTilt(int pitch, int roll) {
    m_model->Update([pitch, roll](CameraState& s) {
        std::array<uint8_t, 8> rest{};
        std::copy(s.gyro.begin() + 6, s.gyro.end(), rest.begin());
        const auto sample = GyroSampleForTilt(pitch, roll, rest);
        if (!sample) {
            throw std::invalid_argument("no sample gives the tilt " + std::to_string(pitch) + "," +
                                        std::to_string(roll));
        }
        s.gyro = *sample;
    });
}

void Camera::InjectFault(const std::string& spec) {
    if (spec == "none") return m_model->ClearFaults();
    for (const Fault& f : ParseFaultSpec(spec, "fault")) m_model->InjectFault(f);
}

Testbed::Testbed() : m_testbed(umockdev_testbed_new()), m_driverTimeout(kDriverControlTimeout) {
    if (m_testbed == nullptr) throw std::runtime_error("umockdev_testbed_new failed");
    gchar* dir = umockdev_testbed_get_root_dir(m_testbed);
    m_root = dir != nullptr ? dir : "";
    g_free(dir);
    // The simulated machine's lock directory: programs on its cameras share their lock
    // files (TARVIK_LOCK_DIR), and programs on another simulated machine never meet them.
    setenv("TARVIK_LOCK_DIR", m_root.c_str(), 1);
    // Not InMockEnvironment(): umockdev keeps its first answer, which may have come before.
    const char* preload = std::getenv("LD_PRELOAD");
    m_announce = preload != nullptr && std::strstr(preload, "libumockdev-preload") != nullptr;
}

Testbed::~Testbed() {
    // The testbed goes first: it stops serving the nodes before their handlers are released.
    g_object_unref(m_testbed);
    for (auto& camera : m_cameras) camera->m_port->SetListener(nullptr);
    m_cameras.clear();
    m_others.clear();
}

std::string Testbed::RootDir() const { return m_root; }

bool Testbed::InMockEnvironment() { return umockdev_in_mock_environment() != FALSE; }

Camera& Testbed::GetCamera(size_t index) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return *m_cameras.at(index);
}

size_t Testbed::CameraCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_cameras.size();
}

void Testbed::SetDriverTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_driverTimeout = timeout;
    for (auto& camera : m_cameras) camera->m_port->SetDriverTimeout(timeout);
}

void Testbed::SetGoneListener(std::function<void(Camera&)> listener) {
    std::lock_guard<std::mutex> lock(m_mutex);
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

// The kernel hands addresses out round robin: the one after the last, skipping those in use.
// Here no address is handed out twice, so that a node of an unplugged camera stays gone.
int Testbed::NextAddress(int bus) const {
    int last = 0;
    for (const auto& [b, a] : m_taken) {
        if (b == bus) last = std::max(last, a);
    }
    for (int k = 1; k <= 255; ++k) {
        const int address = (last + k - 1) % 255 + 1;
        if (std::find(m_taken.begin(), m_taken.end(), std::make_pair(bus, address)) ==
            m_taken.end()) {
            return address;
        }
    }
    throw std::runtime_error("no address left on bus " + std::to_string(bus));
}

void Testbed::AddText(const std::string& text) {
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(m_testbed, text.c_str(), &error)) {
        const std::string why = error != nullptr ? error->message : "add_from_string failed";
        g_clear_error(&error);
        throw std::runtime_error("umockdev: " + why);
    }
}

// The descriptors and the node exist before the device is announced (see usb_descriptors.h).
void Testbed::AddUsbDevice(int bus, int port, int address, const std::vector<uint8_t>& descriptors,
                           const std::string& serial) {
    WriteFile(m_root + DeviceSysPath(bus, port) + "/descriptors", descriptors);
    WriteFile(m_root + DeviceNodePath(bus, address), {});
    AddText(UmockdevDeviceText(bus, port, address, descriptors, serial));
}

Camera& Testbed::AddCamera(int bus, int address, bool kernelDriverBound, CameraState initial) {
    CameraOptions options;
    options.kernelDriverBound = kernelDriverBound;
    options.initial = std::move(initial);
    return AddCamera(bus, address, std::move(options));
}

Camera& Testbed::AddCamera(int bus, int address, CameraOptions options) {
    CheckSerial(options.serial);
    std::lock_guard<std::mutex> lock(m_mutex);
    Reserve(bus, address);
    if (!options.serial.empty()) {
        options.initial.deviceSn.fill(0);
        std::copy(options.serial.begin(), options.serial.end(), options.initial.deviceSn.begin());
    }
    const IdentityCard card = options.initial.sam.card;
    auto model = std::make_shared<CameraModel>(std::move(options.initial));
    auto port = std::make_shared<CameraPort>(model, options.kernelDriverBound);
    port->SetDriverTimeout(m_driverTimeout);
    std::unique_ptr<Camera> camera(new Camera(*this, bus, address, options.serial, model, port));
    camera->m_denyAccess = options.denyAccess;
    camera->m_onGone = m_onGone;
    camera->m_driverAtPlug = options.kernelDriverBound;
    camera->m_withVideo = options.videoNodes;
    camera->m_ownCard = card;
    AddCameraNodes(*camera, address, options.kernelDriverBound);
    Camera* raw = camera.get();
    port->SetListener([raw] { raw->Refresh(); });
    m_cameras.push_back(std::move(camera));
    return *raw;
}

// The camera's entries for one plug-in at `address`: the USB device and its usbfs node,
// interface 0 and, with the driver, the capture and metadata nodes; each announced with its
// "add" uevent once it is whole, parents first, as the kernel does.
void Testbed::AddCameraNodes(Camera& camera, int address, bool driverBound) {
    const int bus = camera.m_bus;
    const int port = camera.m_hubPort;
    std::map<uint8_t, std::string> strings = {{kProductStringIndex, kCameraProductName}};
    if (!camera.m_serial.empty()) strings[kSerialStringIndex] = camera.m_serial;
    auto node = std::make_shared<UsbDeviceNode>(camera.m_port, strings);
    AttachTo(m_testbed, *node, DeviceNodePath(bus, address));
    Camera::Where where;
    where.address = address;
    std::vector<std::shared_ptr<VideoDeviceNode>> video;
    const int firstVideo = m_nextVideo;
    if (camera.m_withVideo && driverBound) {
        const VideoIdentity identity{kCameraProductName,
                                     "usb-0000:00:14.0-" + std::to_string(port)};
        for (const bool metadata : {false, true}) {
            const std::string path = "/dev/video" + std::to_string(m_nextVideo++);
            video.push_back(std::make_shared<VideoDeviceNode>(
                camera.m_port,
                metadata ? VideoDeviceNode::Kind::kMetadata : VideoDeviceNode::Kind::kCapture,
                identity));
            AttachTo(m_testbed, *video.back(), path);
            (metadata ? where.metadataNode : where.videoNode) = path;
        }
    }
    // Every file first, and only then the camera's new names: a program that opened a node
    // before its file existed would fail, and umockdev's preload keeps a table entry and a
    // socket for good for every failed open of a node with a handler (its table holds 50).
    if (camera.m_denyAccess) {
        SetGate(m_root, DeviceNodePath(bus, address), EACCES);
        for (const std::string& path : {where.videoNode, where.metadataNode}) {
            if (!path.empty()) SetGate(m_root, path, EACCES);
        }
    }
    const std::string interface = DeviceSysPath(bus, port) + "/" + InterfaceName(bus, port);
    MakeDirs(m_root + interface);  // for the driver link
    WriteFile(m_root + DeviceSysPath(bus, port) + "/descriptors", CameraDescriptors());
    WriteFile(m_root + DeviceNodePath(bus, address), {});
    for (size_t k = 0; k < video.size(); ++k) {
        const std::string sys =
            interface + "/video4linux/video" + std::to_string(firstVideo + static_cast<int>(k));
        MakeDirs(m_root + sys);
        ::symlink(VideoDeviceLinkTarget(bus, port).c_str(), (m_root + sys + "/device").c_str());
        WriteFile(m_root + (k == 0 ? where.videoNode : where.metadataNode), {});
    }
    {
        std::lock_guard<std::mutex> lock(camera.m_whereMutex);
        if (camera.m_node) camera.m_oldNodes.push_back(camera.m_node);
        camera.m_node = node;
        camera.m_where = where;
        camera.m_videoNodes.insert(camera.m_videoNodes.end(), video.begin(), video.end());
    }
    camera.Refresh();  // the gates and the driver link, before anything is announced
    AddText(UmockdevDeviceText(bus, port, address, CameraDescriptors(), camera.m_serial));
    AddText(UmockdevInterfaceText(bus, port, driverBound));
    for (size_t k = 0; k < video.size(); ++k) {
        AddText(UmockdevVideoText(bus, port, firstVideo + static_cast<int>(k), k == 1));
    }
}

void Testbed::AddOtherDevice(int bus, int address, uint16_t vendorId, uint16_t productId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Reserve(bus, address);
    auto node = std::make_shared<UsbDeviceNode>(std::make_shared<CameraPort>(nullptr, false),
                                                std::map<uint8_t, std::string>{});
    AttachTo(m_testbed, *node, DeviceNodePath(bus, address));
    AddUsbDevice(bus, address, address, OtherDeviceDescriptors(vendorId, productId), "");
    m_others.push_back(node);
}

}  // namespace tarvik::sim
