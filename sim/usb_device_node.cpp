#include "usb_device_node.h"

#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "byte_order.h"
#include "ioctl_data.h"

namespace tarvik::sim {

namespace {

constexpr char kKernelDriverName[] = "uvcvideo";
constexpr char kClaimedName[] = "usbfs";  // what GETDRIVER says of an interface a program holds
constexpr size_t kSetupLength = 8;
constexpr size_t kMaxControlData = 0xFFFF;
constexpr uint8_t kStandardDeviceIn = 0x80;
constexpr uint8_t kGetDescriptor = 0x06;
constexpr uint8_t kStringDescriptor = 0x03;
constexpr uint16_t kLanguageEnglishUs = 0x0409;
constexpr uint8_t kRecipientMask = 0x1F;
constexpr uint8_t kRecipientInterface = 0x01;
// A request refused for a claim held by another file waits this long, this many times, for
// umockdev to notice that the holder closed it (usbfs releases at close at once; umockdev
// sees the end of a client only when its loop reads it).
constexpr unsigned kDeferMs = 2;
constexpr int kDeferTimes = 5;

SetupPacket ParseSetup(const uint8_t* b) {
    SetupPacket s;
    s.bmRequestType = b[0];
    s.bRequest = b[1];
    s.wValue = GetLe16(b + 2);
    s.wIndex = GetLe16(b + 4);
    s.wLength = GetLe16(b + 6);
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

// A string descriptor: its length, type 3, and the text as UTF-16LE (ASCII text here).
std::vector<uint8_t> StringDescriptor(const std::vector<uint16_t>& units) {
    std::vector<uint8_t> d(2 + 2 * units.size());
    d[0] = static_cast<uint8_t>(d.size());
    d[1] = kStringDescriptor;
    for (size_t i = 0; i < units.size(); ++i) PutLe16(&d[2 + 2 * i], units[i]);
    return d;
}

int UrbStatus(TransferStatus status) {
    switch (status) {
        case TransferStatus::kCompleted:
            return 0;
        case TransferStatus::kStalled:
            return -EPIPE;
        case TransferStatus::kDiscarded:
            return -ENOENT;
        case TransferStatus::kNoDevice:
            return -ENODEV;
    }
    return -EPROTO;
}

}  // namespace

std::string Describe(const Transfer& t) {
    char head[200];
    std::snprintf(head, sizeof head, "%s (%02x %02x %04x %04x %u) sel %u%s -> %s %zu",
                  RequestName(t.setup), t.setup.bmRequestType, t.setup.bRequest, t.setup.wValue,
                  t.setup.wIndex, t.setup.wLength, t.selector(),
                  t.door == Door::kUsbfs ? "" : (t.byDriver ? " video driver" : " video"),
                  ToString(t.status), t.actualLength);
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

UsbDeviceNode::UsbDeviceNode(std::shared_ptr<CameraPort> port,
                             std::map<uint8_t, std::string> strings)
    : m_port(std::move(port)), m_strings(std::move(strings)) {
    m_handler = umockdev_ioctl_base_new();
    g_signal_connect(m_handler, "handle-ioctl", G_CALLBACK(&UsbDeviceNode::OnIoctl), this);
    g_signal_connect(m_handler, "client-connected", G_CALLBACK(&UsbDeviceNode::OnConnected), this);
    std::lock_guard<std::mutex> publish(PublicationLock());
}

UsbDeviceNode::~UsbDeviceNode() {
    g_signal_handlers_disconnect_by_data(m_handler, this);
    g_object_unref(m_handler);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& [deferred, source] : m_deferred) {
        g_source_destroy(source);
        g_source_unref(source);
        g_object_unref(deferred->client);
        delete deferred;
    }
    for (auto& [client, state] : m_clients) {
        g_signal_handlers_disconnect_by_data(client, this);
        for (InFlight& f : state.flying) g_object_unref(f.urb);
        for (InFlight& f : state.discarded) g_object_unref(f.urb);
        g_object_unref(client);
    }
}

bool UsbDeviceNode::Attach(UMockdevTestbed* testbed, const std::string& node, std::string& error) {
    GError* gerror = nullptr;
    if (!umockdev_testbed_attach_ioctl(testbed, node.c_str(), m_handler, &gerror)) {
        error = gerror != nullptr ? gerror->message : "attach_ioctl failed";
        g_clear_error(&gerror);
        return false;
    }
    return true;
}

bool UsbDeviceNode::InterfaceClaimed() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_claimant != nullptr && umockdev_ioctl_client_get_connected(m_claimant);
}

void UsbDeviceNode::Retire() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_retired = true;
}

void UsbDeviceNode::OnConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
    { std::lock_guard<std::mutex> published(PublicationLock()); }
    auto* node = static_cast<UsbDeviceNode*>(self);
    std::lock_guard<std::mutex> lock(node->m_mutex);
    // Files closed since are forgotten here at the latest, so that their state does not pile up.
    std::vector<UMockdevIoctlClient*> closed;
    for (const auto& entry : node->m_clients) {
        if (!umockdev_ioctl_client_get_connected(entry.first)) closed.push_back(entry.first);
    }
    for (UMockdevIoctlClient* old : closed) node->Forget(old);
    node->ClientOf(client);
}

void UsbDeviceNode::OnConnectionChanged(UMockdevIoctlClient* client, GParamSpec*, void* self) {
    if (!umockdev_ioctl_client_get_connected(client)) {
        static_cast<UsbDeviceNode*>(self)->Vanished(client);
    }
}

UsbDeviceNode::Client& UsbDeviceNode::ClientOf(UMockdevIoctlClient* client) {
    auto it = m_clients.find(client);
    if (it != m_clients.end()) return it->second;
    // Our reference keeps the address from being reused by a later client before we drop it.
    g_object_ref(client);
    g_signal_connect(client, "notify::connected", G_CALLBACK(&UsbDeviceNode::OnConnectionChanged),
                     this);
    return m_clients[client];
}

void UsbDeviceNode::Vanished(UMockdevIoctlClient* client) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Forget(client);
}

// The file was closed (or its process ended): usbfs drops its URBs and releases its claim.
void UsbDeviceNode::Forget(UMockdevIoctlClient* client) {
    auto it = m_clients.find(client);
    if (it == m_clients.end()) return;
    for (InFlight& f : it->second.flying) g_object_unref(f.urb);
    for (InFlight& f : it->second.discarded) g_object_unref(f.urb);
    m_clients.erase(it);
    if (m_claimant == client) m_claimant = nullptr;
    g_signal_handlers_disconnect_by_data(client, this);
    g_object_unref(client);
}

int UsbDeviceNode::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
    { std::lock_guard<std::mutex> published(PublicationLock()); }
    static_cast<UsbDeviceNode*>(self)->HandleIoctl(client);
    return TRUE;  // every request is answered here, so none reaches a real file
}

void UsbDeviceNode::HandleIoctl(UMockdevIoctlClient* client) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Dispatch(client);
}

// Puts the client's request off for a moment when another file holds interface 0 and may just
// have been closed. False when it has waited long enough: the holder is there.
bool UsbDeviceNode::Defer(UMockdevIoctlClient* client) {
    ForgetClosedClaimant();
    Client& mine = ClientOf(client);
    if (m_claimant == nullptr || m_claimant == client || mine.deferred >= kDeferTimes) {
        mine.deferred = 0;
        return false;
    }
    ++mine.deferred;
    auto* deferred = new Deferred{this, static_cast<UMockdevIoctlClient*>(g_object_ref(client))};
    GSource* source = g_timeout_source_new(kDeferMs);
    g_source_set_callback(source, &UsbDeviceNode::OnDeferred, deferred, nullptr);
    g_source_attach(source, g_main_context_get_thread_default());
    m_deferred.emplace(deferred, source);
    return true;
}

int UsbDeviceNode::OnDeferred(void* p) {
    auto* deferred = static_cast<Deferred*>(p);
    UsbDeviceNode* node = deferred->node;
    std::lock_guard<std::mutex> lock(node->m_mutex);
    auto it = node->m_deferred.find(deferred);
    g_source_unref(it->second);
    node->m_deferred.erase(it);
    if (umockdev_ioctl_client_get_connected(deferred->client)) node->Dispatch(deferred->client);
    g_object_unref(deferred->client);
    delete deferred;
    return G_SOURCE_REMOVE;
}

void UsbDeviceNode::Dispatch(UMockdevIoctlClient* client) {
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    ClientOf(client);
    const bool mayWait = request == USBDEVFS_SUBMITURB || request == USBDEVFS_CLAIMINTERFACE ||
                         request == USBDEVFS_IOCTL;
    if (mayWait && Defer(client)) return;
    if ((m_retired || m_port->Gone()) && request != USBDEVFS_REAPURBNDELAY &&
        request != USBDEVFS_REAPURB && request != USBDEVFS_DISCARDURB) {
        Complete(client, ENODEV);
        return;
    }
    switch (request) {
        case USBDEVFS_GET_CAPABILITIES:
            return Capabilities(client);
        case USBDEVFS_CLAIMINTERFACE:
            return Claim(client, true);
        case USBDEVFS_RELEASEINTERFACE:
            return Claim(client, false);
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESET:
        case USBDEVFS_RESETEP:
            return Complete(client, 0);
        case USBDEVFS_GETDRIVER:
            return GetDriver(client);
        case USBDEVFS_IOCTL:
            return DriverIoctl(client);
        case USBDEVFS_SUBMITURB:
            return Submit(client);
        case USBDEVFS_REAPURB:
        case USBDEVFS_REAPURBNDELAY:
            return Reap(client);
        case USBDEVFS_DISCARDURB:
            return Discard(client);
        default:
            return Complete(client, ENOTTY);
    }
}

void UsbDeviceNode::Capabilities(UMockdevIoctlClient* client) {
    DataRef caps = ResolveArgument(client, sizeof(uint32_t));
    if (!caps) return Complete(client, EFAULT);
    const uint32_t value = USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                           USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
    std::memcpy(caps.bytes(), &value, sizeof value);
    Complete(client, 0);
}

// 0 when `client` holds `interface` (claiming it now if nobody does), else the errno usbfs
// answers: EBUSY while a driver or another file holds it, ENOENT for an interface the device
// does not have.
int UsbDeviceNode::ClaimFor(UMockdevIoctlClient* client, unsigned interface) {
    if (interface != 0) return ENOENT;
    ForgetClosedClaimant();
    if (m_claimant == client) return 0;
    if (m_claimant != nullptr || m_port->DriverBound()) return EBUSY;
    m_claimant = client;
    return 0;
}

void UsbDeviceNode::Claim(UMockdevIoctlClient* client, bool claim) {
    DataRef arg = ResolveArgument(client, sizeof(unsigned int));
    if (!arg) return Complete(client, EFAULT);
    unsigned int interface = 0;
    std::memcpy(&interface, arg.bytes(), sizeof interface);
    if (claim) return Complete(client, ClaimFor(client, interface));
    if (interface != 0 || m_claimant != client) return Complete(client, EINVAL);
    m_claimant = nullptr;
    Complete(client, 0);
}

// umockdev 0.17 tells of new clients but not of closed ones; a closed client's stream reads
// as not connected once umockdev's loop has seen the end of it.
void UsbDeviceNode::ForgetClosedClaimant() {
    if (m_claimant != nullptr && !umockdev_ioctl_client_get_connected(m_claimant)) {
        Forget(m_claimant);
    }
}

void UsbDeviceNode::GetDriver(UMockdevIoctlClient* client) {
    DataRef arg = ResolveArgument(client, sizeof(usbdevfs_getdriver));
    if (!arg) return Complete(client, EFAULT);
    auto* drv = reinterpret_cast<usbdevfs_getdriver*>(arg.bytes());
    const char* name = nullptr;
    ForgetClosedClaimant();
    if (drv->interface == 0 && m_claimant != nullptr) {
        name = kClaimedName;
    } else if (drv->interface == 0 && m_port->DriverBound()) {
        name = kKernelDriverName;
    }
    if (name == nullptr) return Complete(client, ENODATA);
    std::memset(drv->driver, 0, sizeof drv->driver);
    std::memcpy(drv->driver, name, std::strlen(name));
    Complete(client, 0);
}

// USBDEVFS_DISCONNECT unbinds whatever holds interface 0 (a program's claim too, as the kernel
// does); USBDEVFS_CONNECT binds uvcvideo again, which a held interface refuses.
void UsbDeviceNode::DriverIoctl(UMockdevIoctlClient* client) {
    DataRef arg = ResolveArgument(client, sizeof(usbdevfs_ioctl));
    if (!arg) return Complete(client, EFAULT);
    const auto* cmd = reinterpret_cast<const usbdevfs_ioctl*>(arg.bytes());
    if (cmd->ifno != 0) return Complete(client, EINVAL);
    if (!m_port->HasModel()) return Complete(client, ENODATA);
    ForgetClosedClaimant();
    if (cmd->ioctl_code == static_cast<int>(USBDEVFS_DISCONNECT)) {
        if (m_claimant != nullptr) {
            m_claimant = nullptr;
        } else if (m_port->DriverBound()) {
            m_port->SetDriverBound(false);
        } else {
            return Complete(client, ENODATA);
        }
        return Complete(client, 0);
    }
    if (cmd->ioctl_code == static_cast<int>(USBDEVFS_CONNECT)) {
        if (m_claimant != nullptr || m_port->DriverBound()) return Complete(client, EBUSY);
        m_port->SetDriverBound(true);
        return Complete(client, 0, 1);  // the kernel reports a bound driver
    }
    Complete(client, ENOTTY);
}

void UsbDeviceNode::Submit(UMockdevIoctlClient* client) {
    DataRef urbData = ResolveArgument(client, sizeof(usbdevfs_urb));
    if (!urbData) return Complete(client, EFAULT);
    auto* urb = reinterpret_cast<usbdevfs_urb*>(urbData.bytes());
    if (urb->type != USBDEVFS_URB_TYPE_CONTROL || urb->buffer_length < int{kSetupLength} ||
        static_cast<size_t>(urb->buffer_length) > kSetupLength + kMaxControlData) {
        return Complete(client, EINVAL);
    }
    DataRef buffer = Resolve(urbData.get(), offsetof(usbdevfs_urb, buffer),
                             static_cast<size_t>(urb->buffer_length));
    if (!buffer) return Complete(client, EFAULT);
    InFlight flight;
    Transfer& t = flight.transfer;
    t.setup = ParseSetup(buffer.bytes());
    if (t.setup.wLength > static_cast<size_t>(urb->buffer_length) - kSetupLength) {
        return Complete(client, EINVAL);
    }
    if ((t.setup.bmRequestType & kRecipientMask) == kRecipientInterface) {
        if (const int refused = ClaimFor(client, t.setup.wIndex & 0xFF)) {
            return Complete(client, refused);
        }
    }
    uint8_t* data = buffer.bytes() + kSetupLength;
    if (!t.setup.isIn()) t.out.assign(data, data + t.setup.wLength);

    const Reply reply = Answer(t.setup, t.out);
    t.status = reply.status;
    if (reply.status == TransferStatus::kNoDevice) {
        m_port->Record(std::move(t));
        return Complete(client, ENODEV);
    }
    if (reply.status == TransferStatus::kCompleted) {
        t.actualLength = std::min(reply.actualLength, size_t{t.setup.wLength});
        if (t.setup.isIn()) {
            t.in.assign(reply.data.begin(),
                        reply.data.begin() +
                            static_cast<long>(std::min(t.actualLength, reply.data.size())));
            std::copy(t.in.begin(), t.in.end(), data);
        }
    }
    flight.clientAddress = urbData.clientAddress();
    flight.due = std::chrono::steady_clock::now() + reply.delay;
    flight.urb = urbData.release();
    ClientOf(client).flying.push_back(std::move(flight));
    Complete(client, 0);
}

// String descriptors are the device's own business; everything else goes to the camera.
Reply UsbDeviceNode::Answer(const SetupPacket& setup, const std::vector<uint8_t>& out) {
    const bool stringRequest = setup.bmRequestType == kStandardDeviceIn &&
                               setup.bRequest == kGetDescriptor &&
                               (setup.wValue >> 8) == kStringDescriptor;
    if (!stringRequest) return m_port->Request(setup, out);
    Reply r;
    const auto index = static_cast<uint8_t>(setup.wValue & 0xFF);
    auto it = m_strings.find(index);
    if (index == 0) {
        r.data = StringDescriptor({kLanguageEnglishUs});
    } else if (it != m_strings.end()) {
        r.data = StringDescriptor(std::vector<uint16_t>(it->second.begin(), it->second.end()));
    } else {
        r.status = TransferStatus::kStalled;
    }
    r.data.resize(std::min(r.data.size(), size_t{setup.wLength}));
    r.actualLength = r.data.size();
    return r;
}

void UsbDeviceNode::Reap(UMockdevIoctlClient* client) {
    DataRef pointer = ResolveArgument(client, sizeof(void*));  // where to say which URB ended
    if (!pointer) return Complete(client, EFAULT);
    Client& mine = ClientOf(client);
    InFlight done;
    bool found = false;
    if (!mine.discarded.empty()) {
        done = std::move(mine.discarded.front());
        mine.discarded.erase(mine.discarded.begin());
        done.transfer.status = TransferStatus::kDiscarded;
        done.transfer.actualLength = 0;
        done.transfer.in.clear();
        found = true;
    } else {
        const auto now = std::chrono::steady_clock::now();
        auto it = std::find_if(mine.flying.begin(), mine.flying.end(),
                               [&](const InFlight& f) { return f.due <= now; });
        if (it != mine.flying.end()) {
            done = std::move(*it);
            mine.flying.erase(it);
            found = true;
        }
    }
    if (!found) return Complete(client, EAGAIN);
    DataRef urbData(done.urb);
    auto* urb = reinterpret_cast<usbdevfs_urb*>(urbData.bytes());
    urb->status = UrbStatus(done.transfer.status);
    urb->actual_length = static_cast<int>(done.transfer.actualLength);
    umockdev_ioctl_data_set_ptr(pointer.get(), 0, urbData.get());
    m_port->Record(std::move(done.transfer));
    Complete(client, 0);
}

void UsbDeviceNode::Discard(UMockdevIoctlClient* client) {
    Client& mine = ClientOf(client);
    // The argument is the URB's address itself, as the client knows it.
    unsigned long address = 0;
    const UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    if (arg != nullptr && static_cast<size_t>(arg->data_len) >= sizeof address) {
        std::memcpy(&address, arg->data, sizeof address);
    }
    auto it = std::find_if(mine.flying.begin(), mine.flying.end(),
                           [&](const InFlight& f) { return f.clientAddress == address; });
    if (it == mine.flying.end()) return Complete(client, EINVAL);
    mine.discarded.push_back(std::move(*it));
    mine.flying.erase(it);
    Complete(client, 0);
}

}  // namespace tarvik::sim
