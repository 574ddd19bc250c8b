#include "testbed.h"

#include <umockdev.h>

#include <algorithm>
#include <stdexcept>

#include "usb_descriptors.h"
#include "usb_device_node.h"

namespace tarvik::sim {

Camera::Camera(int bus, int address, std::shared_ptr<CameraModel> model,
               std::shared_ptr<UsbDeviceNode> node)
    : m_bus(bus), m_address(address), m_model(std::move(model)), m_node(std::move(node)) {}

std::vector<Transfer> Camera::Log() const { return m_node->Log(); }
std::vector<Transfer> Camera::TakeLog() { return m_node->TakeLog(); }
void Camera::ClearLog() { m_node->ClearLog(); }
bool Camera::KernelDriverAttached() const { return m_node->KernelDriverBound(); }

Testbed::Testbed() : m_testbed(umockdev_testbed_new()) {
    if (m_testbed == nullptr) throw std::runtime_error("umockdev_testbed_new failed");
}

Testbed::~Testbed() {
    // The testbed goes first: it stops serving the nodes before their handlers are released.
    g_object_unref(m_testbed);
    m_cameras.clear();
    m_nodes.clear();
}

std::string Testbed::RootDir() const {
    gchar* dir = umockdev_testbed_get_root_dir(m_testbed);
    std::string out = dir != nullptr ? dir : "";
    g_free(dir);
    return out;
}

bool Testbed::InMockEnvironment() { return umockdev_in_mock_environment() != FALSE; }

void Testbed::AddNode(int bus, int address, const std::shared_ptr<UsbDeviceNode>& node,
                      const std::vector<uint8_t>& descriptors) {
    if (bus < 1 || bus > 255 || address < 1 || address > 255) {
        throw std::runtime_error("bus and address must be 1-255");
    }
    if (std::find(m_taken.begin(), m_taken.end(), std::make_pair(bus, address)) != m_taken.end()) {
        throw std::runtime_error("bus/address taken: " + DeviceNodePath(bus, address));
    }
    std::string error;
    if (!node->Add(m_testbed, bus, address, descriptors, error)) {
        throw std::runtime_error("cannot add " + DeviceNodePath(bus, address) + ": " + error);
    }
    m_taken.emplace_back(bus, address);
    m_nodes.push_back(node);
}

Camera& Testbed::AddCamera(int bus, int address, bool kernelDriverBound, CameraState initial) {
    auto model = std::make_shared<CameraModel>(std::move(initial));
    auto node = std::make_shared<UsbDeviceNode>(model, kernelDriverBound);
    AddNode(bus, address, node, CameraDescriptors());
    m_cameras.push_back(std::unique_ptr<Camera>(new Camera(bus, address, model, node)));
    return *m_cameras.back();
}

void Testbed::AddOtherDevice(int bus, int address, uint16_t vendorId, uint16_t productId) {
    auto node = std::make_shared<UsbDeviceNode>(nullptr, false);
    AddNode(bus, address, node, OtherDeviceDescriptors(vendorId, productId));
}

}  // namespace tarvik::sim
