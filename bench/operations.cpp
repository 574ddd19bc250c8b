#include "operations.h"

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

namespace tarvik::bench {
namespace {

constexpr std::uint8_t kRequestOut = 0x21;
constexpr std::uint8_t kRequestIn = 0xA1;
constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint8_t kGetCur = 0x81;
constexpr std::uint16_t kChannel = 14 << 8;
constexpr std::uint16_t kUnit = 0x0500;
constexpr unsigned kTimeoutMs = 5000;
constexpr unsigned kFrame = 60;
constexpr unsigned kChunk = 52;  // SAM packet bytes per answer frame
constexpr std::uint8_t kVcmMode = 1;

// The records the write operations send; any content costs the same.
const _MJPEG_QP_PARAM kQp{{30, 31, 32, 33}};
const _ROI_PARAM kRoi{{10, 20, 640, 480}};
const _DEVICE_ID_PARAM kId{{'B', 'E', 'N', 'C', 'H', '-', 'I', 'D'}};
const _DEVICE_SN_PARAM kSn{{'B', 'E', 'N', 'C', 'H', '-', 'S', 'N'}};
const _GPIO_PARAM kGpio{{1, 0}};
const _VCM_PARAM kVcm{1, 2, 300, static_cast<_VCM_MODE_E>(kVcmMode)};

template <typename Record>
HRESULT readInto(HRESULT (TarvikImpl::*member)(Record*), TarvikImpl& impl) {
    Record record{};
    return (impl.*member)(&record);
}

template <std::uint8_t Command>
HRESULT readCard(TarvikImpl& impl) {
    _SAM_IN_PARAM in{Command};
    static _SAM_OUT_PARAM out;  // 8 KiB: kept off the stack
    return impl.ReadByExtItem(EXT_ITEM_SAM, &in, &out);
}

// A read request: product code in byte 1, the item at bytes 4-7, parameters from byte 8.
Frame readRequest(std::uint32_t item, std::uint8_t samCommand) {
    Frame f{};
    f[1] = 0x10;
    std::memcpy(&f[4], &item, sizeof item);
    if (item == EXT_ITEM_VCM) f[8] = kVcmMode;
    if (item == EXT_ITEM_SAM) {
        f[8] = samCommand;
        f[12] = 1;
    }
    return f;
}

// A write request: the item in bits 0-11, the product code in 12-15, the payload from byte 4.
Frame writeRequest(std::uint32_t item) {
    Frame f{};
    f[0] = static_cast<std::uint8_t>(item);
    f[1] = static_cast<std::uint8_t>(0x10 | ((item >> 8) & 0x0F));
    switch (item) {
        case EXT_ITEM_MJPEG_QP:
            std::memcpy(&f[4], &kQp, sizeof kQp);
            break;
        case EXT_ITEM_ROI:
            std::memcpy(&f[4], &kRoi, sizeof kRoi);
            break;
        case EXT_ITEM_DEVICE_ID:
            std::memcpy(&f[4], &kId, sizeof kId);
            break;
        case EXT_ITEM_DEVICE_SN:
            std::memcpy(&f[4], &kSn, sizeof kSn);
            break;
        case EXT_ITEM_GPIO:
            std::memcpy(&f[4], &kGpio, sizeof kGpio);
            break;
        case EXT_ITEM_VCM:
            f[4] = kVcm.ctrl0;
            f[5] = kVcm.ctrl1;
            std::memcpy(&f[6], &kVcm.value, sizeof kVcm.value);
            f[8] = static_cast<std::uint8_t>(kVcm.mode);
            break;
        default:
            break;
    }
    return f;
}

// Result of one transfer: the count made so far, or libusb's error.
bool moved(int r, int& status) {
    if (r == static_cast<int>(kFrame)) return true;
    status = r < 0 ? r : LIBUSB_ERROR_IO;
    return false;
}

int floorCardRead(const FloorRequest& request, std::uint8_t samCommand) {
    int status = 0;
    Frame f = readRequest(EXT_ITEM_SAM, samCommand);
    if (!moved(request(false, f), status)) return status;
    f.fill(0);
    if (!moved(request(true, f), status)) return status;
    int transfers = 2;
    static std::array<std::uint8_t, 4096> packet;
    const unsigned total = SamPacketLength(f.data());
    if (total >= packet.size()) return LIBUSB_ERROR_OVERFLOW;
    unsigned have = total < kChunk ? total : kChunk;
    std::memcpy(packet.data(), &f[8], have);
    while (have < total) {
        f.fill(0);
        if (!moved(request(true, f), status)) return status;
        ++transfers;
        const unsigned n = total - have < kChunk ? total - have : kChunk;
        std::memcpy(packet.data() + have, &f[8], n);
        have += n;
    }
    return transfers;
}

}  // namespace

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> ops = {
        {"ReadVersion", Kind::kRead, EXT_ITEM_VERSION,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::zq_ReadVersion, t); }},
        {"ReadMJpegQp", Kind::kRead, EXT_ITEM_MJPEG_QP,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::zq_ReadMJpegQp, t); }},
        {"ReadGyro", Kind::kRead, EXT_ITEM_GYRO,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::zq_ReadGyro, t); }},
        {"ReadRoiStatus", Kind::kRead, EXT_ITEM_ROI_STATUS,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::zq_ReadRoiStatus, t); }},
        {"ReadROI", Kind::kRead, EXT_ITEM_ROI,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::zq_ReadROI, t); }},
        {"ReadDeviceId", Kind::kRead, EXT_ITEM_DEVICE_ID,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::zq_ReadDeviceId, t); }},
        {"ReadDeviceSn", Kind::kRead, EXT_ITEM_DEVICE_SN,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::zq_ReadDeviceSn, t); }},
        {"ReadVCM", Kind::kRead, EXT_ITEM_VCM,
         [](TarvikImpl& t) {
             unsigned short value = 0;
             return t.zq_ReadVCM(static_cast<_VCM_MODE_E>(kVcmMode), &value);
         }},
        {"ReadAutoFocusState", Kind::kRead, EXT_ITEM_STREAM_STATE,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::zq_ReadAutoFocusState, t); }},
        {"ReadStreamState", Kind::kRead, EXT_ITEM_STREAM_STATE,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::ReadStreamState, t); }},
        {"ReadLastId", Kind::kRead, EXT_ITEM_LAST_ID,
         [](TarvikImpl& t) { return readInto(&TarvikImpl::ReadLastId, t); }},
        {"WriteMJpegQp", Kind::kWrite, EXT_ITEM_MJPEG_QP,
         [](TarvikImpl& t) { return t.zq_WriteMJpegQp(kQp); }},
        {"WriteROI", Kind::kWrite, EXT_ITEM_ROI, [](TarvikImpl& t) { return t.zq_WriteROI(kRoi); }},
        {"WriteDeviceId", Kind::kWrite, EXT_ITEM_DEVICE_ID,
         [](TarvikImpl& t) { return t.zq_WriteDeviceId(kId); }},
        {"WriteDeviceSn", Kind::kWrite, EXT_ITEM_DEVICE_SN,
         [](TarvikImpl& t) { return t.zq_WriteDeviceSn(kSn); }},
        {"WriteGpio", Kind::kWrite, EXT_ITEM_GPIO,
         [](TarvikImpl& t) { return t.zq_WriteGpio(kGpio); }},
        {"WriteVCM", Kind::kWrite, EXT_ITEM_VCM, [](TarvikImpl& t) { return t.zq_WriteVCM(kVcm); }},
        {"ReadCard", Kind::kCardRead, EXT_ITEM_SAM, readCard<3>, 3},
        {"ReadCardThird", Kind::kCardRead, EXT_ITEM_SAM, readCard<4>, 4},
    };
    return ops;
}

Frame SamRequest(std::uint8_t command) { return readRequest(EXT_ITEM_SAM, command); }

unsigned MinimumTransfers(Kind kind, unsigned samPacketLength) {
    switch (kind) {
        case Kind::kRead:
            return 2;
        case Kind::kWrite:
            return 1;
        case Kind::kCardRead:
            return 2 + (samPacketLength > kChunk ? (samPacketLength - kChunk + kChunk - 1) / kChunk
                                                 : 0);
    }
    return 0;
}

unsigned SamPacketLength(const std::uint8_t* firstAnswer) {
    return ((static_cast<unsigned>(firstAnswer[8]) << 8) | firstAnswer[9]) + 2u;
}

FloorRequest UsbFloor(libusb_device_handle* handle) {
    return [handle](bool in, Frame& f) {
        return libusb_control_transfer(handle, in ? kRequestIn : kRequestOut,
                                       in ? kGetCur : kSetCur, kChannel, kUnit, f.data(), kFrame,
                                       kTimeoutMs);
    };
}

FloorRequest KernelFloor(int fd) {
    return [fd](bool in, Frame& f) {
        uvc_xu_control_query q{5, 14, static_cast<std::uint8_t>(in ? UVC_GET_CUR : UVC_SET_CUR),
                               kFrame, f.data()};
        return ioctl(fd, UVCIOC_CTRL_QUERY, &q) == 0 ? static_cast<int>(kFrame) : -errno;
    };
}

int FloorExchange(const FloorRequest& request, const Operation& op) {
    int status = 0;
    switch (op.kind) {
        case Kind::kRead: {
            Frame f = readRequest(op.item, 0);
            if (!moved(request(false, f), status)) return status;
            f.fill(0);
            if (!moved(request(true, f), status)) return status;
            return 2;
        }
        case Kind::kWrite: {
            Frame f = writeRequest(op.item);
            if (!moved(request(false, f), status)) return status;
            return 1;
        }
        case Kind::kCardRead:
            return floorCardRead(request, op.samCommand);
    }
    return LIBUSB_ERROR_INVALID_PARAM;
}

// The floor's camera on the USB path, opened by bus and address, its driver detached.
libusb_device_handle* OpenFloorCamera(libusb_context* ctx, int bus, int address) {
    libusb_device** list = nullptr;
    libusb_device_handle* h = nullptr;
    const ssize_t n = libusb_get_device_list(ctx, &list);
    for (ssize_t i = 0; i < n && h == nullptr; ++i) {
        if (libusb_get_bus_number(list[i]) == bus &&
            libusb_get_device_address(list[i]) == address && libusb_open(list[i], &h) != 0) {
            h = nullptr;
        }
    }
    libusb_free_device_list(list, 1);
    if (h != nullptr && libusb_kernel_driver_active(h, 0) == 1) libusb_detach_kernel_driver(h, 0);
    if (h != nullptr) libusb_claim_interface(h, 0);
    return h;
}

}  // namespace tarvik::bench
