// tarvikd's client (--service): its cameras, their status and its counters,
// and one of its cameras as a Device, over sd-bus. tarvikd's errors become the
// library's results they name, so that a command tells a failure through the
// service as it tells it on its own; the service's own refusals get messages of
// their own (polkit, too many calls, tarvikd not running).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "device.h"
#include "reply.h"

namespace tarvikctl {

// A camera as tarvikd offers it.
struct ServiceCamera {
    std::string object;  // its object path
    std::string serial;  // "" when the camera shows none
    std::string path;    // usb or kernel: the way its requests take
    std::string state;   // ready, or gone while unplugged
};

class ServiceConnection;

class ServiceClient {
public:
    // Connects to the system bus (the session bus). Throws ToolError (exit 3)
    // when there is none.
    explicit ServiceClient(bool sessionBus);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    // Every camera tarvikd offers, in its order.
    std::vector<ServiceCamera> Cameras();
    // The object path of the camera with `serial`, or of the first camera when
    // it is "". Throws ToolError (exit 3) when there is none.
    std::string Choose(const std::string& serial);
    // The camera Choose picks, as a Device.
    std::unique_ptr<Device> OpenCamera(const std::string& serial);
    // GetStatus of a camera: its values by name (texts, numbers).
    Json Status(const std::string& object);
    // GetMetrics: the counters in Prometheus' text format.
    std::string Metrics();

private:
    std::shared_ptr<ServiceConnection> m_bus;
};

// The library result an error of tarvikd's names
// ("org.tarvik.Tarvik1.Error.LIBUSB_ERROR_TIMEOUT": -7); 0 when it names none.
int ResultOfErrorName(const std::string& name);

}  // namespace tarvikctl
