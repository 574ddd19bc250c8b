// Finding, opening and releasing the camera when the library opens it itself.
#include <cerrno>
#include <cstdio>

#include "TarvikImpl.h"
#include "call_status.h"
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
    tarvik::LogPlain(tarvik::Stream::kOut, "vid:pid[0x%04x:0x%04x] (bus %d, device %d)\n",
                     desc.idVendor, desc.idProduct, libusb_get_bus_number(dev),
                     libusb_get_device_address(dev));
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
    const int r = tarvik::open_by_environment(*this, bus, deviceAddress);
    TLOG("libTarvik: sdk inner open device %s.\n", r == 0 ? "ok" : "failed");
    return r == 0 ? 0 : 11;
}

int TarvikImpl::initialize_libusb(int bus, int deviceAddress) {
    TLOG("libTarvik: libusb_init...\n");
    if (libusb_init(&m_pContext) < 0) {
        const UsbErrno e = usbErrnoNow();
        TLOG("libTarvik: libusb_init failed. libusb errno=%d, %s, %s.\n", e.code, e.name, e.text);
        m_pContext = nullptr;
        return -1;
    }
    libusb_set_option(m_pContext, LIBUSB_OPTION_LOG_LEVEL, kLibusbLogLevelInfo);
    // libusb's own messages take the library's way too (standard error by default).
    libusb_set_log_cb(
        m_pContext,
        [](libusb_context*, enum libusb_log_level, const char* line) {
            tarvik::LogPlain(tarvik::Stream::kErr, "%s", line);
        },
        LIBUSB_LOG_CB_CONTEXT);

    TLOG("libTarvik: libusb_get_device_list...\n");
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(m_pContext, &list);
    if (count < 0) {
        const UsbErrno e = usbErrnoNow();
        TLOG("libTarvik: libusb_get_device_list failed. libusb errno=%d, %s, %s.\n", e.code, e.name,
             e.text);
        release_libusb();
        return -1;
    }

    // One -1 switches off both the bus and the address test.
    const bool wildcard = bus == kAnyBusOrAddress || deviceAddress == kAnyBusOrAddress;
    libusb_device* chosen = nullptr;
    for (ssize_t i = 0; i < count && chosen == nullptr; ++i) {
        libusb_device* dev = list[i];
        libusb_device_descriptor desc{};
        if (libusb_get_device_descriptor(dev, &desc) != 0) {
            const UsbErrno e = usbErrnoNow();
            tarvik::LogPlain(
                tarvik::Stream::kErr,
                "libTarvik: libusb_get_device_descriptor failed. libusb errno=%d, %s, %s.\n",
                e.code, e.name, e.text);
            continue;
        }
        printDeviceLine(desc, dev);
        for (const pm_usb_device_desc& valid : m_vecValidDevices) {
            if (desc.idProduct != valid.pid || desc.idVendor != valid.vid) {
                continue;
            }
            const int devBus = libusb_get_bus_number(dev);
            const int devAddress = libusb_get_device_address(dev);
            if (wildcard) {
                tarvik::LogPlain(tarvik::Stream::kOut,
                                 "ok, found, 0x%04x:0x%04x (bus %d, device %d)\n", desc.idVendor,
                                 desc.idProduct, devBus, devAddress);
            } else if (devBus == bus && devAddress == deviceAddress) {
                tarvik::LogPlain(tarvik::Stream::kOut,
                                 "ok, matched, 0x%04x:0x%04x (bus %d, device %d)\n", desc.idVendor,
                                 desc.idProduct, devBus, devAddress);
            } else {
                continue;
            }
            chosen = dev;
            break;
        }
    }

    if (chosen == nullptr) {
        libusb_free_device_list(list, 1);
        const UsbErrno e = usbErrnoNow();
        TLOG("libTarvik: not found, bus: %d dev: %d. libusb errno=%d, %s, %s.\n", bus,
             deviceAddress, e.code, e.name, e.text);
        release_libusb();
        return -1;
    }

    libusb_device_handle* handle = nullptr;
    const int openResult = libusb_open(chosen, &handle);
    libusb_free_device_list(list, 1);  // the open handle keeps its own reference
    if (openResult < 0 || handle == nullptr) {
        tarvik::note_open_failure(openResult < 0 ? openResult : LIBUSB_ERROR_OTHER);
        const UsbErrno e = usbErrnoNow();
        TLOG("libTarvik: found, but libusb_open failed. libusb errno=%d, %s, %s.\n", e.code, e.name,
             e.text);
        release_libusb();
        return -1;
    }

    if (libusb_kernel_driver_active(handle, kInterface) != 0) {
        if (const int detached = libusb_detach_kernel_driver(handle, kInterface); detached != 0) {
            tarvik::note_open_failure(detached);
            const UsbErrno e = usbErrnoNow();
            TLOG("libTarvik: libusb_detach_kernel_driver error. libusb errno=%d, %s, %s.\n", e.code,
                 e.name, e.text);
            libusb_close(handle);
            release_libusb();
            return -1;
        }
        m_bKernelDetached = true;
    }
    // usbfs gives the driver back only once interface 0 is free, and the first
    // transfer would claim it for this descriptor anyway: claim it now, so that
    // the release can free it before the attach. Another program holding it is
    // noted; the first transfer then fails as it would have.
    const int claimed = libusb_claim_interface(handle, kInterface);
    m_pPrivate->interfaceClaimed = claimed == 0;
    if (claimed == LIBUSB_ERROR_BUSY) {
        tarvik::note_open_failure(claimed);
        TLOG(
            "libTarvik: the camera is in use by another program; its transfers will fail until "
            "that program lets it go.\n");
    }

    m_bInnerOpened = true;
    m_pDevHandle = handle;
    m_pPrivate->transport = tarvik::MakeUsbTransport(handle, m_pContext);
    TLOG("libTarvik: initialize_libusb ok.\n");
    tarvik::open_camera_lock(*this, libusb_get_bus_number(libusb_get_device(handle)),
                             libusb_get_device_address(libusb_get_device(handle)));
    return 0;
}

void TarvikImpl::release_libusb() {
    if (m_pPrivate->interfaceClaimed && m_pDevHandle != nullptr) {
        libusb_release_interface(m_pDevHandle, kInterface);
    }
    m_pPrivate->interfaceClaimed = false;
    m_pPrivate->cameraLock.Close();
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
    TLOG("libTarvik: release_libusb.\n");
}

void print_devs(libusb_device** list) {
    if (list == nullptr) {
        return;
    }
    for (libusb_device** it = list; *it != nullptr; ++it) {
        libusb_device_descriptor desc{};
        if (libusb_get_device_descriptor(*it, &desc) < 0) {
            tarvik::LogPlain(tarvik::Stream::kErr, "failed to get device descriptor");
            return;
        }
        printDeviceLine(desc, *it);
    }
}
