// The USB path's leaf: finding, opening and releasing the camera through
// libusb when the library opens it itself.
#include <cerrno>
#include <cstdio>
#include <mutex>

#include "TarvikImpl.h"
#include "camera_opener.h"
#include "tarvik_log.h"
#include "tarvik_private.h"

namespace {

constexpr int kInterface = 0;  // the VideoControl interface, which carries the extension unit
constexpr int kAnyBusOrAddress = -1;
constexpr int kLibusbLogLevelInfo = 3;

// The "libusb errno=%d, %s, %s" part of a failure message: the C library's
// errno at the time of logging, negated, with libusb's name and text for it.
struct UsbErrno {
    int code;
    const char* name;
    const char* text;
};

UsbErrno usbErrnoNow() {
    const int code = -errno;
    return {code, libusb_error_name(code), libusb_strerror(code)};
}

void printDeviceLine(const libusb_device_descriptor& desc, libusb_device* dev) {
    tarvik::LogPlain(tarvik::Level::kDebug, tarvik::Stream::kOut,
                     "vid:pid[0x%04x:0x%04x] (bus %d, device %d)\n", desc.idVendor, desc.idProduct,
                     libusb_get_bus_number(dev), libusb_get_device_address(dev));
}

// libusb's own messages take the library's way too (standard error by
// default), at their level. A context's handler would not do: libusb writes
// to standard error as well unless a handler for the whole process is set.
void route_libusb_log() {
    static std::once_flag once;
    std::call_once(once, [] {
        libusb_set_log_cb(
            nullptr,
            [](libusb_context*, enum libusb_log_level level, const char* line) {
                const tarvik::Level ours = level == LIBUSB_LOG_LEVEL_ERROR ? tarvik::Level::kError
                                           : level == LIBUSB_LOG_LEVEL_WARNING
                                               ? tarvik::Level::kWarning
                                               : tarvik::Level::kDebug;
                tarvik::LogPlain(ours, tarvik::Stream::kErr, "%s", line);
            },
            LIBUSB_LOG_CB_GLOBAL);
    });
}

// libusb's context, with its log level and its messages on the library's
// way (standard error by default); null after the failure line.
libusb_context* start_libusb() {
    libusb_context* context = nullptr;
    if (libusb_init(&context) < 0) {
        const UsbErrno e = usbErrnoNow();
        TLOG_ERROR("libTarvik: libusb_init failed. libusb errno=%d, %s, %s.\n", e.code, e.name,
                   e.text);
        return nullptr;
    }
    libusb_set_option(context, LIBUSB_OPTION_LOG_LEVEL, kLibusbLogLevelInfo);
    route_libusb_log();
    return context;
}

// Whether `dev` is the camera asked for; says so when it is. One -1 in `bus`
// or `address` switches off both the bus and the address test.
bool is_wanted(const libusb_device_descriptor& desc, libusb_device* dev,
               const std::vector<pm_usb_device_desc>& valid, int bus, int address) {
    const bool wildcard = bus == kAnyBusOrAddress || address == kAnyBusOrAddress;
    for (const pm_usb_device_desc& v : valid) {
        if (desc.idProduct != v.pid || desc.idVendor != v.vid) continue;
        const int devBus = libusb_get_bus_number(dev);
        const int devAddress = libusb_get_device_address(dev);
        if (!wildcard && (devBus != bus || devAddress != address)) continue;
        tarvik::LogPlain(tarvik::Level::kDebug, tarvik::Stream::kOut,
                         "ok, %s, 0x%04x:0x%04x (bus %d, device %d)\n",
                         wildcard ? "found" : "matched", desc.idVendor, desc.idProduct, devBus,
                         devAddress);
        return true;
    }
    return false;
}

// The first wanted device of `list`, every device's line printed on the way.
libusb_device* choose_device(libusb_device** list, ssize_t count,
                             const std::vector<pm_usb_device_desc>& valid, int bus, int address) {
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor desc{};
        if (libusb_get_device_descriptor(list[i], &desc) != 0) {
            const UsbErrno e = usbErrnoNow();
            tarvik::LogPlain(
                tarvik::Level::kWarning, tarvik::Stream::kErr,
                "libTarvik: libusb_get_device_descriptor failed. libusb errno=%d, %s, %s.\n",
                e.code, e.name, e.text);
            continue;
        }
        printDeviceLine(desc, list[i]);
        if (is_wanted(desc, list[i], valid, bus, address)) return list[i];
    }
    return nullptr;
}

// Detaches the video driver from interface 0 when it holds it: 0, or libusb's
// code after the failure line. `detached` says whether it was detached.
int detach_video_driver(libusb_device_handle* handle, bool& detached) {
    detached = false;
    if (libusb_kernel_driver_active(handle, kInterface) == 0) return 0;
    if (const int r = libusb_detach_kernel_driver(handle, kInterface); r != 0) {
        const UsbErrno e = usbErrnoNow();
        TLOG_ERROR("libTarvik: libusb_detach_kernel_driver error. libusb errno=%d, %s, %s.\n",
                   e.code, e.name, e.text);
        return r;
    }
    detached = true;
    return 0;
}

}  // namespace

void TarvikImpl::InitializeValidPIdVId() {
    m_vecValidDevices.clear();
    m_vecValidDevices.push_back(pm_usb_device_desc{0x0AC8, 0x010C});
    m_nProductType = 1;
}

HRESULT TarvikImpl::CreateUsbHandle(int bus, int deviceAddress) {
    if (check_dev_opened() == 0) {
        return 0;
    }
    tarvik::CameraTarget target;
    target.bus = bus;
    target.address = deviceAddress;
    target.choice = tarvik::choice_from_environment();
    const int r = tarvik::open_camera(*this, target, tarvik::InUse::kKeep);
    tarvik::say_opened(r);
    return r == 0 ? 0 : 11;
}

// The USB path's leaf: libusb finds the camera, opens it, takes interface 0
// from the video driver and claims it. It opens nothing else.
int TarvikImpl::initialize_libusb(int bus, int deviceAddress) {
    TLOG_DEBUG("libTarvik: libusb_init...\n");
    m_pContext = start_libusb();
    if (m_pContext == nullptr) {
        return -1;
    }
    TLOG_DEBUG("libTarvik: libusb_get_device_list...\n");
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(m_pContext, &list);
    if (count < 0) {
        const UsbErrno e = usbErrnoNow();
        TLOG_ERROR("libTarvik: libusb_get_device_list failed. libusb errno=%d, %s, %s.\n", e.code,
                   e.name, e.text);
        release_libusb();
        return -1;
    }
    libusb_device* chosen = choose_device(list, count, m_vecValidDevices, bus, deviceAddress);
    if (chosen == nullptr) {
        libusb_free_device_list(list, 1);
        const UsbErrno e = usbErrnoNow();
        TLOG_ERROR("libTarvik: not found, bus: %d dev: %d. libusb errno=%d, %s, %s.\n", bus,
                   deviceAddress, e.code, e.name, e.text);
        release_libusb();
        return -1;
    }

    tarvik::TarvikPrivate& p = *m_pPrivate;
    libusb_device_handle* handle = nullptr;
    const int openResult = libusb_open(chosen, &handle);
    libusb_free_device_list(list, 1);  // the open handle keeps its own reference
    if (openResult < 0 || handle == nullptr) {
        p.openFailure = openResult < 0 ? openResult : LIBUSB_ERROR_OTHER;
        const UsbErrno e = usbErrnoNow();
        TLOG_ERROR("libTarvik: found, but libusb_open failed. libusb errno=%d, %s, %s.\n", e.code,
                   e.name, e.text);
        release_libusb();
        return -1;
    }
    if (const int r = detach_video_driver(handle, m_bKernelDetached); r != 0) {
        p.openFailure = r;
        libusb_close(handle);
        release_libusb();
        return -1;
    }
    // usbfs gives the driver back only once interface 0 is free, and the first
    // transfer would claim it for this descriptor anyway: claim it now, so that
    // the release can free it before the attach. Another program holding it is
    // noted; the first transfer then fails as it would have.
    const int claimed = libusb_claim_interface(handle, kInterface);
    p.interfaceClaimed = claimed == 0;
    if (claimed == LIBUSB_ERROR_BUSY) {
        p.openFailure = claimed;
        TLOG_WARN(
            "libTarvik: the camera is in use by another program; its transfers will fail until "
            "that program lets it go.\n");
    }

    m_bInnerOpened = true;
    m_pDevHandle = handle;
    p.transport = tarvik::MakeUsbTransport(handle, m_pContext);
    p.bus = libusb_get_bus_number(libusb_get_device(handle));
    p.address = libusb_get_device_address(libusb_get_device(handle));
    TLOG_DEBUG("libTarvik: initialize_libusb ok.\n");
    return 0;
}

void TarvikImpl::release_libusb() {
    if (m_pPrivate->interfaceClaimed && m_pDevHandle != nullptr) {
        libusb_release_interface(m_pDevHandle, kInterface);
    }
    m_pPrivate->interfaceClaimed = false;
    if (m_bKernelDetached && m_pDevHandle != nullptr) {
        libusb_attach_kernel_driver(m_pDevHandle, kInterface);
    }
    m_bKernelDetached = false;
    m_pPrivate->transport.reset();
    if (m_pDevHandle != nullptr) {
        libusb_close(m_pDevHandle);
        m_pDevHandle = nullptr;
    }
    if (m_pContext != nullptr) {  // libusb_exit(null) would end the default context
        libusb_exit(m_pContext);
        m_pContext = nullptr;
    }
    TLOG_DEBUG("libTarvik: release_libusb.\n");
}

void print_devs(libusb_device** list) {
    if (list == nullptr) {
        return;
    }
    for (libusb_device** it = list; *it != nullptr; ++it) {
        libusb_device_descriptor desc{};
        if (libusb_get_device_descriptor(*it, &desc) < 0) {
            tarvik::LogPlain(tarvik::Level::kWarning, tarvik::Stream::kErr,
                             "failed to get device descriptor");
            return;
        }
        printDeviceLine(desc, *it);
    }
}
