#include "usb_device_node.h"

#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <umockdev.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "usb_descriptors.h"

namespace tarvik::sim {

namespace {

// The driver name a bound interface reports; "usbfs" would mean "claimed by a program".
constexpr char kKernelDriverName[] = "uvcvideo";
constexpr size_t kSetupLength = 8;

std::mutex& PublicationLock() {
    static std::mutex lock;  // constant-initialised: no thread can see it half-made
    return lock;
}

struct DataRef {  // owns one reference to umockdev ioctl data
    UMockdevIoctlData* p;
    explicit DataRef(UMockdevIoctlData* data) : p(data) {}
    ~DataRef() {
        if (p != nullptr) g_object_unref(p);
    }
    DataRef(const DataRef&) = delete;
    DataRef& operator=(const DataRef&) = delete;
    UMockdevIoctlData* release() {
        UMockdevIoctlData* d = p;
        p = nullptr;
        return d;
    }
};

SetupPacket ParseSetup(const uint8_t* b) {
    SetupPacket s;
    s.bmRequestType = b[0];
    s.bRequest = b[1];
    s.wValue = static_cast<uint16_t>(b[2] | (b[3] << 8));
    s.wIndex = static_cast<uint16_t>(b[4] | (b[5] << 8));
    s.wLength = static_cast<uint16_t>(b[6] | (b[7] << 8));
    return s;
}

const char* RequestName(const SetupPacket& s) {
    switch (s.bRequest) {
        case kGetCur:
            return s.isIn() ? "GET_CUR" : "req 0x81";
        case kSetCur:
            return s.isIn() ? "req 0x01" : "SET_CUR";
        case kGetLen:
            return "GET_LEN";
        case kGetInfo:
            return "GET_INFO";
        default:
            return "request";
    }
}

}  // namespace

std::string Describe(const Transfer& t) {
    char head[160];
    std::snprintf(head, sizeof head, "%s (%02x %02x %04x %04x %u) sel %u -> %s %zu",
                  RequestName(t.setup), t.setup.bmRequestType, t.setup.bRequest, t.setup.wValue,
                  t.setup.wIndex, t.setup.wLength, t.selector(), ToString(t.status),
                  t.actualLength);
    std::string text = head;
    const std::vector<uint8_t>& data = t.isIn() ? t.in : t.out;
    text += " [";
    for (size_t i = 0; i < data.size(); ++i) {
        char hex[4];
        std::snprintf(hex, sizeof hex, i == 0 ? "%02x" : " %02x", data[i]);
        text += hex;
    }
    return text + "]";
}

UsbDeviceNode::UsbDeviceNode(std::shared_ptr<CameraModel> model, bool kernelDriverBound)
    : m_model(std::move(model)), m_driverBound(kernelDriverBound) {
    m_handler = umockdev_ioctl_base_new();
    g_signal_connect(m_handler, "handle-ioctl", G_CALLBACK(&UsbDeviceNode::OnIoctl), this);
    // The handler runs on umockdev's worker thread, which learns of this node through GLib's
    // own (uninstrumented) synchronisation. Passing through a lock that exists before any node
    // makes the hand-over visible to the thread sanitizer too.
    std::lock_guard<std::mutex> publish(PublicationLock());
}

UsbDeviceNode::~UsbDeviceNode() {
    g_signal_handlers_disconnect_by_data(m_handler, this);
    g_object_unref(m_handler);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (InFlight& f : m_flying) g_object_unref(f.urb);
    for (InFlight& f : m_discarded) g_object_unref(f.urb);
}

bool UsbDeviceNode::Add(UMockdevTestbed* testbed, int bus, int address,
                        const std::vector<uint8_t>& descriptors, std::string& error) {
    GError* gerror = nullptr;
    const std::string node = DeviceNodePath(bus, address);
    if (!umockdev_testbed_attach_ioctl(testbed, node.c_str(), m_handler, &gerror)) {
        error = gerror != nullptr ? gerror->message : "attach_ioctl failed";
        g_clear_error(&gerror);
        return false;
    }
    const std::string text = UmockdevDeviceText(bus, address, descriptors);
    if (!umockdev_testbed_add_from_string(testbed, text.c_str(), &gerror)) {
        error = gerror != nullptr ? gerror->message : "add_from_string failed";
        g_clear_error(&gerror);
        return false;
    }
    return true;
}

std::vector<Transfer> UsbDeviceNode::Log() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_log;
}

std::vector<Transfer> UsbDeviceNode::TakeLog() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Transfer> out;
    out.swap(m_log);
    return out;
}

void UsbDeviceNode::ClearLog() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_log.clear();
}

bool UsbDeviceNode::KernelDriverBound() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_driverBound;
}

void UsbDeviceNode::Append(Transfer t) { m_log.push_back(std::move(t)); }

int UsbDeviceNode::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
    return static_cast<UsbDeviceNode*>(self)->HandleIoctl(client) ? TRUE : FALSE;
}

bool UsbDeviceNode::HandleIoctl(UMockdevIoctlClient* client) {
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    { std::lock_guard<std::mutex> published(PublicationLock()); }
    std::lock_guard<std::mutex> lock(m_mutex);
    const bool gone = m_model != nullptr && m_model->Gone();
    if (gone && request != USBDEVFS_REAPURBNDELAY && request != USBDEVFS_REAPURB &&
        request != USBDEVFS_DISCARDURB) {
        umockdev_ioctl_client_complete(client, -1, ENODEV);
        return true;
    }
    switch (request) {
        case USBDEVFS_GET_CAPABILITIES: {
            DataRef caps(umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0,
                                                     sizeof(uint32_t), nullptr));
            const uint32_t value = USBDEVFS_CAP_BULK_CONTINUATION |
                                   USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                   USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
            std::memcpy(caps.p->data, &value, sizeof value);
            umockdev_ioctl_client_complete(client, 0, 0);
            return true;
        }
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_RELEASEINTERFACE:
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESET:
        case USBDEVFS_RESETEP:
            umockdev_ioctl_client_complete(client, 0, 0);
            return true;
        case USBDEVFS_GETDRIVER:
            GetDriver(client);
            return true;
        case USBDEVFS_IOCTL:
            DriverIoctl(client);
            return true;
        case USBDEVFS_SUBMITURB:
            Submit(client);
            return true;
        case USBDEVFS_REAPURB:
        case USBDEVFS_REAPURBNDELAY:
            Reap(client);
            return true;
        case USBDEVFS_DISCARDURB:
            Discard(client);
            return true;
        default:
            umockdev_ioctl_client_complete(client, -1, ENOTTY);
            return true;
    }
}

void UsbDeviceNode::GetDriver(UMockdevIoctlClient* client) {
    DataRef arg(umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0,
                                            sizeof(usbdevfs_getdriver), nullptr));
    auto* drv = reinterpret_cast<usbdevfs_getdriver*>(arg.p->data);
    if (drv->interface != 0 || !m_driverBound || m_model == nullptr) {
        umockdev_ioctl_client_complete(client, -1, ENODATA);
        return;
    }
    std::memset(drv->driver, 0, sizeof drv->driver);
    std::memcpy(drv->driver, kKernelDriverName, sizeof kKernelDriverName);
    umockdev_ioctl_client_complete(client, 0, 0);
}

void UsbDeviceNode::DriverIoctl(UMockdevIoctlClient* client) {
    DataRef arg(umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0,
                                            sizeof(usbdevfs_ioctl), nullptr));
    const auto* cmd = reinterpret_cast<const usbdevfs_ioctl*>(arg.p->data);
    if (cmd->ifno != 0 || m_model == nullptr) {
        umockdev_ioctl_client_complete(client, -1, cmd->ifno != 0 ? EINVAL : ENODATA);
        return;
    }
    if (cmd->ioctl_code == static_cast<int>(USBDEVFS_DISCONNECT)) {
        if (!m_driverBound) {
            umockdev_ioctl_client_complete(client, -1, ENODATA);
            return;
        }
        m_driverBound = false;
        umockdev_ioctl_client_complete(client, 0, 0);
    } else if (cmd->ioctl_code == static_cast<int>(USBDEVFS_CONNECT)) {
        if (m_driverBound) {
            umockdev_ioctl_client_complete(client, -1, EBUSY);
            return;
        }
        m_driverBound = true;
        umockdev_ioctl_client_complete(client, 1, 0);  // the kernel reports a bound driver
    } else {
        umockdev_ioctl_client_complete(client, -1, ENOTTY);
    }
}

void UsbDeviceNode::Submit(UMockdevIoctlClient* client) {
    DataRef urbData(umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0,
                                                sizeof(usbdevfs_urb), nullptr));
    auto* urb = reinterpret_cast<usbdevfs_urb*>(urbData.p->data);
    if (urb->type != USBDEVFS_URB_TYPE_CONTROL ||
        urb->buffer_length < static_cast<int>(kSetupLength)) {
        umockdev_ioctl_client_complete(client, -1, EINVAL);
        return;
    }
    DataRef buffer(umockdev_ioctl_data_resolve(urbData.p, offsetof(usbdevfs_urb, buffer),
                                               static_cast<gsize>(urb->buffer_length), nullptr));
    InFlight flight;
    Transfer& t = flight.transfer;
    t.setup = ParseSetup(buffer.p->data);
    const size_t room = static_cast<size_t>(urb->buffer_length) - kSetupLength;
    if (t.setup.wLength > room) {
        umockdev_ioctl_client_complete(client, -1, EINVAL);
        return;
    }
    if (!t.setup.isIn()) {
        t.out.assign(buffer.p->data + kSetupLength,
                     buffer.p->data + kSetupLength + t.setup.wLength);
    }

    Reply reply;
    if (m_model != nullptr) {
        reply = m_model->Handle(t.setup, t.out);
    } else {
        reply.status = TransferStatus::kStalled;
    }
    t.status = reply.status;
    if (reply.status == TransferStatus::kNoDevice) {
        Append(std::move(t));
        umockdev_ioctl_client_complete(client, -1, ENODEV);
        return;
    }
    if (reply.status == TransferStatus::kCompleted) {
        const size_t n = std::min(reply.actualLength, static_cast<size_t>(t.setup.wLength));
        t.actualLength = n;
        if (t.setup.isIn()) {
            t.in.assign(reply.data.begin(),
                        reply.data.begin() + static_cast<long>(std::min(n, reply.data.size())));
            std::memcpy(buffer.p->data + kSetupLength, t.in.data(), t.in.size());
        }
    }
    flight.clientAddress = urbData.p->client_addr;
    flight.due = std::chrono::steady_clock::now() + reply.delay;
    flight.urb = urbData.release();
    m_flying.push_back(std::move(flight));
    umockdev_ioctl_client_complete(client, 0, 0);
}

void UsbDeviceNode::Reap(UMockdevIoctlClient* client) {
    InFlight done;
    bool found = false;
    if (!m_discarded.empty()) {
        done = std::move(m_discarded.front());
        m_discarded.erase(m_discarded.begin());
        done.transfer.status = TransferStatus::kDiscarded;
        done.transfer.actualLength = 0;
        done.transfer.in.clear();
        found = true;
    } else {
        const auto now = std::chrono::steady_clock::now();
        for (auto it = m_flying.begin(); it != m_flying.end(); ++it) {
            if (it->due <= now) {
                done = std::move(*it);
                m_flying.erase(it);
                found = true;
                break;
            }
        }
    }
    if (!found) {
        umockdev_ioctl_client_complete(client, -1, EAGAIN);
        return;
    }
    DataRef urbData(done.urb);
    auto* urb = reinterpret_cast<usbdevfs_urb*>(urbData.p->data);
    switch (done.transfer.status) {
        case TransferStatus::kCompleted:
            urb->status = 0;
            break;
        case TransferStatus::kStalled:
            urb->status = -EPIPE;
            break;
        case TransferStatus::kDiscarded:
            urb->status = -ENOENT;
            break;
        case TransferStatus::kNoDevice:
            urb->status = -ENODEV;
            break;
    }
    urb->actual_length = static_cast<int>(done.transfer.actualLength);
    DataRef pointer(umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0,
                                                sizeof(void*), nullptr));
    umockdev_ioctl_data_set_ptr(pointer.p, 0, urbData.p);
    Append(std::move(done.transfer));
    umockdev_ioctl_client_complete(client, 0, 0);
}

void UsbDeviceNode::Discard(UMockdevIoctlClient* client) {
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    unsigned long address = 0;
    std::memcpy(&address, arg->data, sizeof address);
    for (auto it = m_flying.begin(); it != m_flying.end(); ++it) {
        if (it->clientAddress == address) {
            m_discarded.push_back(std::move(*it));
            m_flying.erase(it);
            umockdev_ioctl_client_complete(client, 0, 0);
            return;
        }
    }
    umockdev_ioctl_client_complete(client, -1, EINVAL);
}

}  // namespace tarvik::sim
