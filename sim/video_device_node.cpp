#include "video_device_node.h"

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "byte_order.h"
#include "usb_descriptors.h"

namespace tarvik::sim {

namespace {

constexpr char kDriverName[] = "uvcvideo";
constexpr uint32_t kKernelVersion = (6u << 16) | (1u << 8);
constexpr uint8_t kCapGet = 0x01;  // GET_INFO bits
constexpr uint8_t kCapSet = 0x02;
constexpr size_t kQueryDataOffset = offsetof(uvc_xu_control_query, data);
static_assert(kQueryDataOffset == 8, "the query's data pointer sits at offset 8");

bool Advertised(uint8_t selector) {
    return selector >= 1 && selector <= 16 && (kExtensionControls & (1u << (selector - 1))) != 0;
}

template <size_t N>
void PutText(__u8 (&field)[N], const std::string& text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

// The length the driver expects for `query` on a control it knows, and the capability bit the
// control must have; 0 length for a query the driver does not know.
std::pair<size_t, uint8_t> Expected(uint8_t query, uint16_t controlLength) {
    switch (query) {
        case UVC_GET_LEN:
            return {2, 0};
        case UVC_GET_INFO:
            return {1, 0};
        case UVC_GET_CUR:
        case UVC_GET_MIN:
        case UVC_GET_MAX:
        case UVC_GET_RES:
        case UVC_GET_DEF:
            // The driver takes the range queries as always there; only GET_CUR has a bit.
            return {controlLength, query == UVC_GET_CUR ? kCapGet : 0};
        case UVC_SET_CUR:
            return {controlLength, kCapSet};
        default:
            return {0, 0};
    }
}

}  // namespace

struct VideoDeviceNode::Late {
    VideoDeviceNode* node;
    UMockdevIoctlClient* client;  // our reference
    int error;
};

VideoDeviceNode::VideoDeviceNode(std::shared_ptr<CameraPort> port, Kind kind,
                                 VideoIdentity identity)
    : m_port(std::move(port)), m_kind(kind), m_identity(std::move(identity)) {
    m_handler = umockdev_ioctl_base_new();
    g_signal_connect(m_handler, "handle-ioctl", G_CALLBACK(&VideoDeviceNode::OnIoctl), this);
    std::lock_guard<std::mutex> publish(PublicationLock());
}

VideoDeviceNode::~VideoDeviceNode() {
    g_signal_handlers_disconnect_by_data(m_handler, this);
    g_object_unref(m_handler);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& [late, source] : m_late) {
        g_source_destroy(source);
        g_source_unref(source);
        g_object_unref(late->client);
        delete late;
    }
    for (UMockdevIoctlClient* client : m_waiting) g_object_unref(client);
}

bool VideoDeviceNode::Attach(UMockdevTestbed* testbed, const std::string& node,
                             std::string& error) {
    GError* gerror = nullptr;
    if (!umockdev_testbed_attach_ioctl(testbed, node.c_str(), m_handler, &gerror)) {
        error = gerror != nullptr ? gerror->message : "attach_ioctl failed";
        g_clear_error(&gerror);
        return false;
    }
    return true;
}

void VideoDeviceNode::Retire() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_retired = true;
}

bool VideoDeviceNode::Away() const { return m_retired || m_port->Gone() || !m_port->DriverBound(); }

int VideoDeviceNode::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
    { std::lock_guard<std::mutex> published(PublicationLock()); }
    static_cast<VideoDeviceNode*>(self)->HandleIoctl(client);
    return TRUE;
}

void VideoDeviceNode::HandleIoctl(UMockdevIoctlClient* client) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (Away()) return Complete(client, ENODEV);
    switch (umockdev_ioctl_client_get_request(client)) {
        case VIDIOC_QUERYCAP:
            return QueryCapabilities(client);
        case UVCIOC_CTRL_QUERY:
            if (m_kind != Kind::kCapture) return Complete(client, ENOTTY);
            return ControlQuery(client);
        case VIDIOC_QUERYCTRL:
        case VIDIOC_QUERY_EXT_CTRL:
        case VIDIOC_QUERYMENU:
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL:
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_TRY_EXT_CTRLS:
        case VIDIOC_ENUM_FMT:
        case VIDIOC_ENUM_FRAMESIZES:
        case VIDIOC_ENUM_FRAMEINTERVALS:
        case VIDIOC_ENUMINPUT:
            return Complete(client, EINVAL);  // none of them: the end of every enumeration
        default:
            return Complete(client, ENOTTY);
    }
}

void VideoDeviceNode::QueryCapabilities(UMockdevIoctlClient* client) {
    DataRef arg = ResolveArgument(client, sizeof(v4l2_capability));
    if (!arg) return Complete(client, EFAULT);
    auto* cap = reinterpret_cast<v4l2_capability*>(arg.bytes());
    std::memset(cap, 0, sizeof *cap);
    PutText(cap->driver, kDriverName);
    PutText(cap->card, m_identity.card);
    PutText(cap->bus_info, m_identity.busInfo);
    cap->version = kKernelVersion;
    cap->device_caps = V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT |
                       (m_kind == Kind::kCapture ? V4L2_CAP_VIDEO_CAPTURE : V4L2_CAP_META_CAPTURE);
    cap->capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING |
                        V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_DEVICE_CAPS;
    Complete(client, 0);
}

// The driver's control lock: a query that arrives while another waits for the camera waits
// behind it.
void VideoDeviceNode::ControlQuery(UMockdevIoctlClient* client) {
    if (m_busy) {
        m_waiting.push_back(static_cast<UMockdevIoctlClient*>(g_object_ref(client)));
        return;
    }
    Serve(client);
}

void VideoDeviceNode::Serve(UMockdevIoctlClient* client) {
    DataRef arg = ResolveArgument(client, sizeof(uvc_xu_control_query));
    if (!arg) return Complete(client, EFAULT);
    uvc_xu_control_query query{};
    std::memcpy(&query, arg.bytes(), sizeof query);
    if (query.unit != kUnitId || !Advertised(query.selector)) return Complete(client, ENOENT);

    std::chrono::milliseconds wait{0};
    int error = 0;
    auto known = m_controls.find(query.selector);
    if (known == m_controls.end()) {
        ControlInfo info;
        error = LearnControl(query.selector, info, wait) == 0 ? 0 : ENOENT;
        if (error == 0) known = m_controls.emplace(query.selector, info).first;
    }
    if (error == 0) {
        const auto [size, needs] = Expected(query.query, known->second.length);
        if (size == 0) {
            error = EINVAL;
        } else if (needs != 0 && (known->second.flags & needs) == 0) {
            error = EBADRQC;
        } else if (size != query.size) {
            error = ENOBUFS;
        } else if (DataRef data = Resolve(arg.get(), kQueryDataOffset, size); !data) {
            error = EFAULT;
        } else {
            error = Exchange(query.query, query.selector, size, data.bytes(), false, wait);
        }
    }
    if (wait.count() == 0) return Complete(client, error);
    // The camera keeps the driver waiting: answer later, from umockdev's own main loop.
    m_busy = true;
    auto* late = new Late{this, static_cast<UMockdevIoctlClient*>(g_object_ref(client)), error};
    GSource* source = g_timeout_source_new(static_cast<guint>(wait.count()));
    g_source_set_callback(source, &VideoDeviceNode::OnLate, late, nullptr);
    g_source_attach(source, g_main_context_get_thread_default());
    m_late.emplace(late, source);
}

int VideoDeviceNode::LearnControl(uint8_t selector, ControlInfo& info,
                                  std::chrono::milliseconds& wait) {
    uint8_t length[2] = {};
    uint8_t flags = 0;
    if (const int error = Exchange(UVC_GET_LEN, selector, 2, length, true, wait)) return error;
    if (const int error = Exchange(UVC_GET_INFO, selector, 1, &flags, true, wait)) return error;
    info.length = GetLe16(length);
    info.flags = flags;
    return 0;
}

// One request on the wire, as uvc_query_ctrl makes it; 0 or the errno the driver returns.
int VideoDeviceNode::Exchange(uint8_t query, uint8_t selector, size_t size, uint8_t* data,
                              bool byDriver, std::chrono::milliseconds& wait) {
    Transfer t;
    const bool in = query != UVC_SET_CUR;
    t.setup = {in ? kRequestTypeIn : kRequestTypeOut, query, static_cast<uint16_t>(selector << 8),
               kUnitIndex, static_cast<uint16_t>(size)};
    t.door = Door::kVideo;
    t.byDriver = byDriver;
    if (!in) t.out.assign(data, data + size);
    const Reply reply = m_port->Request(t.setup, t.out);
    const std::chrono::milliseconds timeout = m_port->DriverTimeout();
    int error = 0;
    if (reply.delay >= timeout) {
        t.status = TransferStatus::kDiscarded;
        wait += timeout;
        error = ETIMEDOUT;
    } else {
        wait += reply.delay;
        t.status = reply.status;
        error = reply.status == TransferStatus::kStalled    ? EPIPE
                : reply.status == TransferStatus::kNoDevice ? ENODEV
                                                            : 0;
    }
    if (error == 0 && in) {  // since 6.14 the driver zero-fills a short answer
        const size_t n = std::min(reply.data.size(), size);
        std::copy(reply.data.begin(), reply.data.begin() + static_cast<long>(n), data);
        std::fill(data + n, data + size, 0);
        t.in.assign(data, data + n);
        t.actualLength = n;
    } else if (error == 0) {
        t.actualLength = std::min(reply.actualLength, size);
    }
    m_port->Record(std::move(t));
    return error;
}

int VideoDeviceNode::OnLate(void* p) {
    auto* late = static_cast<Late*>(p);
    late->node->Finish(*late);
    return G_SOURCE_REMOVE;
}

void VideoDeviceNode::Finish(Late& late) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_late.find(&late);
    g_source_unref(it->second);
    m_late.erase(it);
    if (umockdev_ioctl_client_get_connected(late.client)) Complete(late.client, late.error);
    g_object_unref(late.client);
    delete &late;
    m_busy = false;
    while (!m_busy && !m_waiting.empty()) {
        UMockdevIoctlClient* next = m_waiting.front();
        m_waiting.pop_front();
        if (!umockdev_ioctl_client_get_connected(next)) {
            // closed while it waited: nobody to answer
        } else if (Away()) {
            Complete(next, ENODEV);
        } else {
            Serve(next);
        }
        g_object_unref(next);
    }
}

}  // namespace tarvik::sim
