// The usbfs side of one simulated USB device: a umockdev ioctl handler that serves libusb's
// requests on /dev/bus/usb/BBB/DDD from the camera's port (a device of another kind stalls
// every request), answers the string descriptors, and keeps what usbfs keeps per open file:
// the URBs in flight and the claim on interface 0.
//
// Claims, as real usbfs has them: the first descriptor that sends a control transfer to
// interface 0 claims it implicitly; every other descriptor then gets EBUSY on such a submit
// and on USBDEVFS_CLAIMINTERFACE until the holder releases it or closes. Neither is possible
// while the kernel driver is bound. USBDEVFS_CONNECT answers EBUSY while the interface is
// claimed. A descriptor is one umockdev client: one open() in one process.
//
// Internal to the fixture; tests use testbed.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "camera_port.h"

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;
typedef struct _GParamSpec GParamSpec;
typedef struct _GSource GSource;

namespace tarvik::sim {

class UsbDeviceNode {
public:
    // `strings`: the string descriptors by index (language 0x0409).
    UsbDeviceNode(std::shared_ptr<CameraPort> port, std::map<uint8_t, std::string> strings);
    ~UsbDeviceNode();
    UsbDeviceNode(const UsbDeviceNode&) = delete;
    UsbDeviceNode& operator=(const UsbDeviceNode&) = delete;

    // Attaches the handler to `node` (handler first, so that the node answers as soon as it
    // exists). Returns false with `error` filled on failure.
    bool Attach(UMockdevTestbed* testbed, const std::string& node, std::string& error);

    // Whether some descriptor holds interface 0.
    bool InterfaceClaimed() const;

    // The device left the bus: from now on every request through this node fails with ENODEV,
    // as on a file of an unplugged device, even after the camera comes back (at another
    // address, through another node). No request of this node is under way when it returns.
    void Retire();

private:
    struct InFlight {
        UMockdevIoctlData* urb = nullptr;  // our reference to the client's URB copy
        unsigned long clientAddress = 0;
        Transfer transfer;
        std::chrono::steady_clock::time_point due;
    };
    struct Client {  // what usbfs keeps per open file
        std::vector<InFlight> flying;
        std::vector<InFlight> discarded;
        int deferred = 0;  // times its current request waited for a holder's close to show
    };
    struct Deferred {
        UsbDeviceNode* node;
        UMockdevIoctlClient* client;  // our reference
    };

    static int OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
    static void OnConnected(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
    static void OnConnectionChanged(UMockdevIoctlClient* client, GParamSpec*, void* self);
    static int OnDeferred(void* deferred);
    bool Defer(UMockdevIoctlClient* client);
    void Vanished(UMockdevIoctlClient* client);
    void Forget(UMockdevIoctlClient* client);
    void ForgetClosedClaimant();
    void HandleIoctl(UMockdevIoctlClient* client);
    void Dispatch(UMockdevIoctlClient* client);
    void Capabilities(UMockdevIoctlClient* client);
    void Claim(UMockdevIoctlClient* client, bool claim);
    int ClaimFor(UMockdevIoctlClient* client, unsigned interface);
    void GetDriver(UMockdevIoctlClient* client);
    void DriverIoctl(UMockdevIoctlClient* client);
    void Submit(UMockdevIoctlClient* client);
    Reply Answer(const SetupPacket& setup, const std::vector<uint8_t>& out);
    void Reap(UMockdevIoctlClient* client);
    void Discard(UMockdevIoctlClient* client);
    Client& ClientOf(UMockdevIoctlClient* client);

    std::shared_ptr<CameraPort> m_port;
    std::map<uint8_t, std::string> m_strings;
    UMockdevIoctlBase* m_handler = nullptr;
    mutable std::mutex m_mutex;
    std::map<UMockdevIoctlClient*, Client> m_clients;  // each holds a reference to its key
    UMockdevIoctlClient* m_claimant = nullptr;
    bool m_retired = false;
    std::map<Deferred*, GSource*> m_deferred;
};

}  // namespace tarvik::sim
