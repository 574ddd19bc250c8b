// The kernel driver's side of a simulated camera: what uvcvideo answers on /dev/videoN (the
// capture node) and /dev/videoN+1 (the metadata node) while it is bound to interface 0.
//
// The capture node answers VIDIOC_QUERYCAP and UVCIOC_CTRL_QUERY as the driver does: unit 5
// only, and only selectors its bmControls advertise (else ENOENT); on a control's first use
// the driver sends GET_LEN and GET_INFO itself and keeps the answers; GET_CUR and SET_CUR need
// the control's length (else ENOBUFS), GET_LEN 2 bytes, GET_INFO 1; an unknown query is
// EINVAL. One request at a time per camera, as the driver's control lock has it; a request the
// camera does not answer within the driver's control timeout fails with ETIMEDOUT. A stall is
// EPIPE, a camera gone is ENODEV, a short answer is zero-filled and succeeds. The metadata
// node answers only VIDIOC_QUERYCAP. Every other ioctl gets ENOTTY (the nodes are PTYs
// underneath: no ioctl may fall through to them), the standard control and format queries
// EINVAL (there are none). With the driver unbound or the camera gone, everything is ENODEV.
//
// Internal to the fixture; tests use testbed.h.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "camera_port.h"
#include "ioctl_data.h"

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _GSource GSource;

namespace tarvik::sim {

struct VideoIdentity {
    std::string card;     // VIDIOC_QUERYCAP card: the camera's product string
    std::string busInfo;  // "usb-0000:00:14.0-2"
};

class VideoDeviceNode {
public:
    enum class Kind { kCapture, kMetadata };

    VideoDeviceNode(std::shared_ptr<CameraPort> port, Kind kind, VideoIdentity identity);
    ~VideoDeviceNode();
    VideoDeviceNode(const VideoDeviceNode&) = delete;
    VideoDeviceNode& operator=(const VideoDeviceNode&) = delete;

    bool Attach(UMockdevTestbed* testbed, const std::string& node, std::string& error);

    // The camera left the bus: every later request through this node fails with ENODEV, even
    // after the camera comes back (with nodes of its own).
    void Retire();

private:
    struct ControlInfo {  // what the driver learnt on the control's first use
        uint16_t length = 0;
        uint8_t flags = 0;
    };
    struct Late;  // a request whose completion waits for the camera

    static int OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
    static int OnLate(void* late);
    void HandleIoctl(UMockdevIoctlClient* client);
    void QueryCapabilities(UMockdevIoctlClient* client);
    void ControlQuery(UMockdevIoctlClient* client);
    void Serve(UMockdevIoctlClient* client);
    int LearnControl(uint8_t selector, ControlInfo& info, std::chrono::milliseconds& wait);
    int Exchange(uint8_t query, uint8_t selector, size_t size, uint8_t* data, bool byDriver,
                 std::chrono::milliseconds& wait);
    void Finish(Late& late);
    // Whether the node answers ENODEV: retired, the camera gone or the driver unbound.
    bool Away() const;

    std::shared_ptr<CameraPort> m_port;
    Kind m_kind;
    VideoIdentity m_identity;
    UMockdevIoctlBase* m_handler = nullptr;
    std::mutex m_mutex;
    std::map<uint8_t, ControlInfo> m_controls;
    bool m_busy = false;  // a request waits for the camera
    bool m_retired = false;
    std::deque<UMockdevIoctlClient*> m_waiting;  // queries behind it, each with a reference
    std::map<Late*, GSource*> m_late;
};

}  // namespace tarvik::sim
