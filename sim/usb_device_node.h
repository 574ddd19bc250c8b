// The usbfs side of one simulated USB device: a umockdev ioctl handler that serves libusb's
// requests on /dev/bus/usb/BBB/DDD from a CameraModel (or stalls every control transfer for a
// device without one), keeps the transfer log and the kernel-driver binding of interface 0.
//
// Internal to the fixture; tests use testbed.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "camera_model.h"
#include "transfer_log.h"

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace tarvik::sim {

class UsbDeviceNode {
public:
    // `model` may be null: the device then answers every control transfer with a stall.
    UsbDeviceNode(std::shared_ptr<CameraModel> model, bool kernelDriverBound);
    ~UsbDeviceNode();
    UsbDeviceNode(const UsbDeviceNode&) = delete;
    UsbDeviceNode& operator=(const UsbDeviceNode&) = delete;

    // Attaches the handler to the node and adds the device (handler first, so that the node
    // answers as soon as it exists). Returns false with `error` filled on failure.
    bool Add(UMockdevTestbed* testbed, int bus, int address,
             const std::vector<uint8_t>& descriptors, std::string& error);

    std::vector<Transfer> Log() const;
    std::vector<Transfer> TakeLog();
    void ClearLog();
    bool KernelDriverBound() const;

private:
    struct InFlight {
        UMockdevIoctlData* urb = nullptr;  // our reference to the client's URB copy
        unsigned long clientAddress = 0;
        Transfer transfer;
        std::chrono::steady_clock::time_point due;
    };

    static int OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
    bool HandleIoctl(UMockdevIoctlClient* client);
    void Submit(UMockdevIoctlClient* client);
    void Reap(UMockdevIoctlClient* client);
    void Discard(UMockdevIoctlClient* client);
    void DriverIoctl(UMockdevIoctlClient* client);
    void GetDriver(UMockdevIoctlClient* client);
    void Append(Transfer t);

    std::shared_ptr<CameraModel> m_model;
    UMockdevIoctlBase* m_handler = nullptr;
    mutable std::mutex m_mutex;
    bool m_driverBound;
    std::vector<Transfer> m_log;
    std::vector<InFlight> m_flying;
    std::vector<InFlight> m_discarded;
};

}  // namespace tarvik::sim
