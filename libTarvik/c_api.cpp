// The C interface: a thin layer over TarvikImpl. It adds no protocol of its
// own; it turns records into C types and results into codes that mean one
// thing each.
#include <string.h>

#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "TarvikImpl.h"
#include "c_camera.h"
#include "call_status.h"
#include "camera_finder.h"
#include "camera_opener.h"
#include "item_table.h"
#include "operation_runner.h"
#include "result_table.h"
#include "sam_channel.h"
#include "sam_packet.h"
#include "sensor_math.h"
#include "tarvik.h"
#include "tarvik_log.h"
#include "tarvik_private.h"
#include "tarvik_version.h"

namespace {

// One call on a camera: the arguments checked, the member run, its result mapped.
// A camera that has left the bus answers at once, with no transfer; a call
// that finds it gone takes it away.
template <typename Call>
int on_camera(tarvik_camera* camera, bool argumentsGiven, Call call) {
    if (camera == nullptr || !argumentsGiven) return TARVIK_E_INVALID_ARGUMENT;
    try {
        int result;
        {
            std::shared_lock<std::shared_mutex> lock(camera->swap);
            if (camera->gone) return TARVIK_LIBUSB_ERROR_NO_DEVICE;
            // What the transfer layer notes during this call, and nothing before it,
            // tells a short transfer from the library's own positive results.
            tarvik::clear_transfer_failure();
            const HRESULT r = call(*camera->impl);
            result = tarvik::results::from_member(r, tarvik::last_transfer_failure());
        }
        if (result == TARVIK_LIBUSB_ERROR_NO_DEVICE) tarvik::capi::mark_gone(*camera);
        return result;
    } catch (const std::bad_alloc&) {
        return TARVIK_E_NO_MEMORY;
    }
}

// A write's result, the record remembered when it succeeded (to be written
// again after the camera comes back).
template <typename Record>
HRESULT kept(tarvik_camera* camera, int item, const Record& record, HRESULT r) {
    if (r == 0) tarvik::capi::remember(*camera, item, &record, sizeof record);
    return r;
}

// A wide string of the card (one BMP character per element) as UTF-8, cut to
// whole characters that fit `size` with the terminating zero.
void utf8_of(const wchar_t* text, char* out, size_t size) {
    size_t n = 0;
    for (; *text != L'\0'; ++text) {
        const auto c = static_cast<unsigned>(*text) & 0xFFFFu;
        const size_t bytes = c < 0x80 ? 1 : c < 0x800 ? 2 : 3;
        if (n + bytes >= size) break;
        if (bytes == 1) {
            out[n++] = static_cast<char>(c);
        } else if (bytes == 2) {
            out[n++] = static_cast<char>(0xC0 | (c >> 6));
            out[n++] = static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out[n++] = static_cast<char>(0xE0 | (c >> 12));
            out[n++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out[n++] = static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    out[n] = '\0';
}

template <size_t N>
void copy_text(const std::string& from, char (&to)[N]) {
    std::strncpy(to, from.c_str(), N - 1);
    to[N - 1] = '\0';
}

// The commands the SAM has (5 is none).
bool sam_command_exists(int command) {
    return command >= TARVIK_SAM_CMD_STATUS && command <= TARVIK_SAM_CMD_7 && command != 5;
}

// A whole exchange with the SAM that it answered with a failure.
int with_sam_verdict(int result, int samCode) {
    return result == 0 && samCode != 0 && samCode != 1 ? TARVIK_E_SAM : result;
}

// The item's record in one direction, as the C interface takes it: -1 when
// the item is not read (or written) through tarvik_read_item (or _write_item).
int c_record_size(const tarvik::items::Item& item, bool write) {
    if (write) return item.write.handled ? static_cast<int>(item.write.record) : -1;
    const bool readable = item.read.handled && item.number != EXT_ITEM_SAM;
    return readable ? static_cast<int>(item.read.record) : -1;
}

int item_info(const tarvik::items::Item* item, tarvik_item_info* info) {
    if (item == nullptr || info == nullptr) return TARVIK_E_INVALID_ARGUMENT;
    *info = tarvik_item_info{static_cast<int>(item->number), item->name,
                             c_record_size(*item, false), c_record_size(*item, true)};
    return 0;
}

// What a call of tarvik_read_item or tarvik_write_item gets before anything is
// sent: 0 to go on, TARVIK_E_INVALID_ARGUMENT for no such item or a record of
// the wrong size, TARVIK_E_NOT_HANDLED for an item not moved that way.
int check_item_call(int number, size_t size, bool write) {
    const tarvik::items::Item* item =
        number < 0 ? nullptr : tarvik::items::find(static_cast<std::uint32_t>(number));
    if (item == nullptr) return TARVIK_E_INVALID_ARGUMENT;
    const int want = c_record_size(*item, write);
    if (want < 0) return number == EXT_ITEM_SAM ? TARVIK_E_INVALID_ARGUMENT : TARVIK_E_NOT_HANDLED;
    const bool fits = write ? size == static_cast<size_t>(want) : size >= static_cast<size_t>(want);
    return fits ? 0 : TARVIK_E_INVALID_ARGUMENT;
}

}  // namespace

extern "C" {

int tarvik_list(tarvik_camera_info* cameras, size_t capacity) {
    tarvik::use_c_interface_defaults();
    if (cameras == nullptr && capacity > 0) return TARVIK_E_INVALID_ARGUMENT;
    try {
        const std::vector<tarvik::UsbCamera> found = tarvik::find_cameras();
        for (size_t i = 0; i < found.size() && i < capacity; ++i) {
            tarvik_camera_info& info = cameras[i];
            info = tarvik_camera_info{};
            info.bus = found[i].bus;
            info.address = found[i].address;
            copy_text(found[i].serial, info.serial);
            copy_text(tarvik::capture_node(found[i]), info.video_node);
        }
        return static_cast<int>(found.size());
    } catch (const std::bad_alloc&) {
        return TARVIK_E_NO_MEMORY;
    }
}

tarvik_open_options tarvik_default_options(void) {
    return tarvik_open_options{-1, -1, nullptr, nullptr, TARVIK_TRANSPORT_AUTO, 0u};
}

int tarvik_open(const tarvik_open_options* options, tarvik_camera** camera) {
    tarvik::use_c_interface_defaults();
    if (camera == nullptr) return TARVIK_E_INVALID_ARGUMENT;
    *camera = nullptr;
    const tarvik_open_options o = options != nullptr ? *options : tarvik_default_options();
    // Read as an integer: a value outside the enumeration is the caller's mistake.
    int transport;
    std::memcpy(&transport, &o.transport, sizeof transport);
    static const tarvik::Choice kChoices[] = {tarvik::Choice::kAuto, tarvik::Choice::kUsb,
                                              tarvik::Choice::kKernel};
    if (transport < TARVIK_TRANSPORT_AUTO || transport > TARVIK_TRANSPORT_KERNEL) {
        return TARVIK_E_INVALID_ARGUMENT;
    }
    try {
        tarvik::CameraTarget target;
        target.bus = o.bus;
        target.address = o.address;
        target.videoNode = o.video_node != nullptr ? o.video_node : "";
        if (o.serial != nullptr) target.serial = o.serial;
        target.choice = kChoices[transport];
        auto c = std::make_unique<tarvik_camera>();
        c->impl = std::make_unique<TarvikImpl>();
        const int r = tarvik::open_camera(*c->impl, target, tarvik::InUse::kRefuse);
        tarvik::say_opened(r);
        if (r != 0) return r;
        if (!c->watch.Start()) return TARVIK_LIBUSB_ERROR_OTHER;
        // Found again after an unplug by its port and serial, on the same path.
        const tarvik::TarvikPrivate& p = c->impl->Private();
        c->target = tarvik::CameraTarget{};
        c->target.choice = p.videoNode.empty() ? tarvik::Choice::kUsb : tarvik::Choice::kKernel;
        c->reapply = (o.flags & TARVIK_OPEN_REAPPLY) != 0;
        *camera = c.release();
        return 0;
    } catch (const std::bad_alloc&) {
        return TARVIK_E_NO_MEMORY;
    }
}

void tarvik_close(tarvik_camera* camera) {
    if (camera == nullptr) return;
    delete camera;
}

// Also while the camera is gone: which camera the object is stays known.
int tarvik_describe(tarvik_camera* camera, tarvik_camera_info* info, tarvik_transport* transport) {
    if (camera == nullptr || info == nullptr || transport == nullptr) {
        return TARVIK_E_INVALID_ARGUMENT;
    }
    std::shared_lock<std::shared_mutex> lock(camera->swap);
    try {
        const tarvik::TarvikPrivate& p = camera->impl->Private();
        *info = tarvik_camera_info{};
        info->bus = p.bus;
        info->address = p.address;
        *transport = p.videoNode.empty() ? TARVIK_TRANSPORT_USB : TARVIK_TRANSPORT_KERNEL;
        // Which camera this object is stays known when the camera has left; its
        // capture node is the one opened, or (USB path) the one it has now.
        copy_text(p.serial, info->serial);
        std::string node = p.videoNode;
        if (node.empty()) {
            const std::optional<tarvik::UsbCamera> now = tarvik::find_camera(p.bus, p.address);
            if (now) node = tarvik::capture_node(*now);
        }
        copy_text(node, info->video_node);
        return 0;
    } catch (const std::bad_alloc&) {
        return TARVIK_E_NO_MEMORY;
    }
}

int tarvik_read_product_type(tarvik_camera* camera, int* type) {
    return on_camera(camera, type != nullptr,
                     [&](TarvikImpl& t) { return t.zq_ReadProductType(type); });
}

int tarvik_read_version(tarvik_camera* camera, uint8_t version[56]) {
    return on_camera(camera, version != nullptr, [&](TarvikImpl& t) {
        _VERSION_PARAM p{};
        const HRESULT r = t.zq_ReadVersion(&p);
        std::memcpy(version, p.version, sizeof p.version);
        return r;
    });
}

int tarvik_read_mjpeg_qp(tarvik_camera* camera, int32_t qp[4]) {
    return on_camera(camera, qp != nullptr, [&](TarvikImpl& t) {
        _MJPEG_QP_PARAM p{};
        const HRESULT r = t.zq_ReadMJpegQp(&p);
        std::memcpy(qp, p.qp, sizeof p.qp);
        return r;
    });
}

int tarvik_write_mjpeg_qp(tarvik_camera* camera, const int32_t qp[4]) {
    return on_camera(camera, qp != nullptr, [&](TarvikImpl& t) {
        _MJPEG_QP_PARAM p{};
        std::memcpy(p.qp, qp, sizeof p.qp);
        return kept(camera, EXT_ITEM_MJPEG_QP, p, t.zq_WriteMJpegQp(p));
    });
}

int tarvik_read_roi(tarvik_camera* camera, int32_t roi[4]) {
    return on_camera(camera, roi != nullptr, [&](TarvikImpl& t) {
        _ROI_PARAM p{};
        const HRESULT r = t.zq_ReadROI(&p);
        std::memcpy(roi, p.roi, sizeof p.roi);
        return r;
    });
}

int tarvik_write_roi(tarvik_camera* camera, const int32_t roi[4]) {
    return on_camera(camera, roi != nullptr, [&](TarvikImpl& t) {
        _ROI_PARAM p{};
        std::memcpy(p.roi, roi, sizeof p.roi);
        return kept(camera, EXT_ITEM_ROI, p, t.zq_WriteROI(p));
    });
}

int tarvik_read_roi_status(tarvik_camera* camera, uint32_t* status) {
    return on_camera(camera, status != nullptr,
                     [&](TarvikImpl& t) { return t.zq_ReadRoiStatus(status); });
}

int tarvik_read_device_id(tarvik_camera* camera, uint8_t id[20]) {
    return on_camera(camera, id != nullptr, [&](TarvikImpl& t) {
        _DEVICE_ID_PARAM p{};
        const HRESULT r = t.zq_ReadDeviceId(&p);
        std::memcpy(id, p.id, sizeof p.id);
        return r;
    });
}

int tarvik_write_device_id(tarvik_camera* camera, const uint8_t id[20]) {
    return on_camera(camera, id != nullptr, [&](TarvikImpl& t) {
        _DEVICE_ID_PARAM p{};
        std::memcpy(p.id, id, sizeof p.id);
        return t.zq_WriteDeviceId(p);
    });
}

int tarvik_read_device_sn(tarvik_camera* camera, uint8_t sn[20]) {
    return on_camera(camera, sn != nullptr, [&](TarvikImpl& t) {
        _DEVICE_SN_PARAM p{};
        const HRESULT r = t.zq_ReadDeviceSn(&p);
        std::memcpy(sn, p.sn, sizeof p.sn);
        return r;
    });
}

int tarvik_write_device_sn(tarvik_camera* camera, const uint8_t sn[20]) {
    return on_camera(camera, sn != nullptr, [&](TarvikImpl& t) {
        _DEVICE_SN_PARAM p{};
        std::memcpy(p.sn, sn, sizeof p.sn);
        return t.zq_WriteDeviceSn(p);
    });
}

int tarvik_write_gpio(tarvik_camera* camera, int32_t gpio0, int32_t gpio1) {
    return on_camera(camera, true, [&](TarvikImpl& t) {
        const _GPIO_PARAM p{{gpio0, gpio1}};
        return kept(camera, EXT_ITEM_GPIO, p, t.zq_WriteGpio(p));
    });
}

int tarvik_read_vcm(tarvik_camera* camera, int mode, uint16_t* value) {
    return on_camera(camera, value != nullptr, [&](TarvikImpl& t) {
        return t.zq_ReadVCM(static_cast<_VCM_MODE_E>(mode), value);
    });
}

int tarvik_write_vcm(tarvik_camera* camera, int mode, uint16_t value, uint8_t ctrl0,
                     uint8_t ctrl1) {
    return on_camera(camera, true, [&](TarvikImpl& t) {
        const _VCM_PARAM p{ctrl0, ctrl1, value, static_cast<_VCM_MODE_E>(mode)};
        return kept(camera, EXT_ITEM_VCM, p, t.zq_WriteVCM(p));
    });
}

int tarvik_read_autofocus_state(tarvik_camera* camera, uint8_t* state) {
    return on_camera(camera, state != nullptr,
                     [&](TarvikImpl& t) { return t.zq_ReadAutoFocusState(state); });
}

int tarvik_read_stream_state(tarvik_camera* camera, uint32_t* streaming) {
    return on_camera(camera, streaming != nullptr,
                     [&](TarvikImpl& t) { return t.ReadStreamState(streaming); });
}

int tarvik_read_gyro(tarvik_camera* camera, int32_t* pitch, int32_t* roll) {
    return on_camera(camera, pitch != nullptr && roll != nullptr, [&](TarvikImpl& t) {
        _GYRO_PARAM p{};
        const HRESULT r = t.zq_ReadGyro(&p);
        *pitch = p.pitch;
        *roll = p.roll;
        return r;
    });
}

static_assert(sizeof(tarvik_data_block) == sizeof(uvc_extDataBlock) &&
                  offsetof(tarvik_data_block, data) == offsetof(uvc_extDataBlock, data),
              "the C record is the library's data block");
static_assert(sizeof(tarvik_exposure) == sizeof(_DUAL_ET_PARAM) &&
                  offsetof(tarvik_exposure, right) == offsetof(_DUAL_ET_PARAM, right) &&
                  offsetof(tarvik_eye_exposure, flags) == offsetof(_ET_PARAM, flags),
              "the C record is the library's exposure record");

int tarvik_read_exposure(tarvik_camera* camera, tarvik_exposure* exposure) {
    return on_camera(camera, exposure != nullptr, [&](TarvikImpl& t) {
        _DUAL_ET_PARAM p{};
        const HRESULT r =
            tarvik::RunRead(t, {tarvik::kReadArrow, "ReadET"}, EXT_ITEM_ET, nullptr, &p);
        std::memcpy(exposure, &p, sizeof p);
        return r;
    });
}

int tarvik_write_exposure(tarvik_camera* camera, const tarvik_exposure* exposure) {
    return on_camera(camera, exposure != nullptr, [&](TarvikImpl& t) {
        _DUAL_ET_PARAM p{};
        std::memcpy(&p, exposure, sizeof p);
        return kept(camera, EXT_ITEM_ET, p,
                    tarvik::RunWrite(t, {tarvik::kWriteArrow, "WriteET"}, EXT_ITEM_ET, &p));
    });
}

int tarvik_item(int number, tarvik_item_info* info) {
    return item_info(number < 0 ? nullptr : tarvik::items::find(static_cast<std::uint32_t>(number)),
                     info);
}

int tarvik_item_by_name(const char* name, tarvik_item_info* info) {
    return item_info(tarvik::items::find_named(name), info);
}

int tarvik_write_exposure_times(tarvik_camera* camera, uint32_t left, uint32_t right) {
    return on_camera(camera, true, [&](TarvikImpl& t) {
        _DUAL_ET_PARAM current{};
        HRESULT r =
            tarvik::RunRead(t, {tarvik::kReadArrow, "ReadET"}, EXT_ITEM_ET, nullptr, &current);
        const _MAE_PARAM wanted{left, right};
        if (r == 0) r = tarvik::check_manual_ae(current, wanted);
        if (r != 0) return r;
        _DUAL_ET_PARAM block = tarvik::manual_ae_record(current, wanted);
        return kept(camera, EXT_ITEM_ET, block,
                    tarvik::RunWrite(t, {tarvik::kWriteArrow, "WriteET"}, EXT_ITEM_ET, &block));
    });
}

int tarvik_write_exposure_mode(tarvik_camera* camera, int32_t left, int32_t right) {
    return on_camera(camera, true, [&](TarvikImpl& t) {
        if (left != right) return tarvik::kErrModeMismatch;
        _DUAL_ET_PARAM block = tarvik::et_mode_record(_DUAL_ET_MODE{left, right});
        return kept(camera, EXT_ITEM_ET, block,
                    tarvik::RunWrite(t, {tarvik::kWriteArrow, "WriteET"}, EXT_ITEM_ET, &block));
    });
}

int tarvik_read_item(tarvik_camera* camera, int item, const void* input, void* output,
                     size_t size) {
    const bool given = output != nullptr && (item != EXT_ITEM_VCM || input != nullptr);
    if (camera == nullptr || !given) return TARVIK_E_INVALID_ARGUMENT;
    if (const int refused = check_item_call(item, size, false); refused != 0) return refused;
    return on_camera(camera, true, [&](TarvikImpl& t) {
        const auto it = static_cast<UVC_EXT_ITEM_E>(item);
        if (item == EXT_ITEM_DATA_BLOCK) return t.ReadByExtItem(it, output, nullptr);
        return t.ReadByExtItem(it, const_cast<void*>(input), output);
    });
}

int tarvik_write_item(tarvik_camera* camera, int item, const void* record, size_t size) {
    if (camera == nullptr || record == nullptr) return TARVIK_E_INVALID_ARGUMENT;
    if (const int refused = check_item_call(item, size, true); refused != 0) return refused;
    return on_camera(camera, true, [&](TarvikImpl& t) {
        const HRESULT r =
            t.WriteByExtItem(static_cast<UVC_EXT_ITEM_E>(item), const_cast<void*>(record));
        if (r == 0) tarvik::capi::remember(*camera, item, record, size);
        return r;
    });
}

int tarvik_sam_command(tarvik_camera* camera, int command, int* samResult, uint8_t number[16]) {
    const bool given = samResult != nullptr && sam_command_exists(command) &&
                       (command != TARVIK_SAM_CMD_NUMBER || number != nullptr);
    int code = 0;
    const int r = on_camera(camera, given, [&](TarvikImpl& t) {
        auto out = std::make_unique<_SAM_OUT_PARAM>();
        _SAM_IN_PARAM in{static_cast<unsigned char>(command)};
        const HRESULT hr = t.ReadByExtItem(EXT_ITEM_SAM, &in, out.get());
        code = out->result;
        if (number != nullptr) std::memcpy(number, out->number, sizeof out->number);
        tarvik::sam::wipe(*out);  // commands 3 and 4 read a card into it
        return hr;
    });
    if (samResult != nullptr) *samResult = code;
    return with_sam_verdict(r, code);
}

int tarvik_read_card(tarvik_camera* camera, tarvik_card* card, unsigned flags) {
    if (card == nullptr || (flags & ~TARVIK_CARD_THIRD_BLOCK) != 0)
        return TARVIK_E_INVALID_ARGUMENT;
    tarvik_card_clear(card);
    const bool third = (flags & TARVIK_CARD_THIRD_BLOCK) != 0;
    const int r = on_camera(camera, true, [&](TarvikImpl& t) {
        auto out = std::make_unique<_SAM_OUT_PARAM>();
        tarvik::sam::CardCodes codes;
        _SAM_IN_PARAM in{
            static_cast<unsigned char>(third ? SAM_CMD_READ_CARD_THIRD : SAM_CMD_READ_CARD)};
        const HRESULT hr = tarvik::sam::read_card(t, &in, out.get(), &codes);
        card->sam_result = out->result;
        utf8_of(out->name, card->name, sizeof card->name);
        utf8_of(out->sex, card->sex, sizeof card->sex);
        utf8_of(codes.sex.c_str(), card->sex_code, sizeof card->sex_code);
        utf8_of(out->nation, card->nation, sizeof card->nation);
        utf8_of(codes.nation.c_str(), card->nation_code, sizeof card->nation_code);
        utf8_of(out->birth, card->birth, sizeof card->birth);
        utf8_of(out->address, card->address, sizeof card->address);
        utf8_of(out->id_number, card->id_number, sizeof card->id_number);
        utf8_of(out->authority, card->authority, sizeof card->authority);
        utf8_of(out->valid_from, card->valid_from, sizeof card->valid_from);
        utf8_of(out->valid_to, card->valid_to, sizeof card->valid_to);
        utf8_of(out->reserved, card->reserved, sizeof card->reserved);
        std::memcpy(card->photo, out->photo, sizeof card->photo);
        std::memcpy(card->third_block, out->fingerprint, sizeof card->third_block);
        const bool delivered =
            hr == 0 && (out->result == TARVIK_SAM_OK || out->result == TARVIK_SAM_OK_9F);
        card->has_third_block = third && delivered ? 1 : 0;
        tarvik::sam::wipe(*out);
        codes.Wipe();
        return hr;
    });
    return with_sam_verdict(r, card->sam_result);
}

void tarvik_card_clear(tarvik_card* card) {
    if (card != nullptr) explicit_bzero(card, sizeof *card);
}

const char* tarvik_sam_strerror(int samResult) {
    const char* text = tarvik::sam::code_text(samResult);
    return text != nullptr ? text : "unknown SAM code";
}

const char* tarvik_version(void) { return TARVIK_VERSION; }

void tarvik_set_log_handler(tarvik_log_handler handler, void* user) {
    tarvik::use_c_interface_defaults();
    tarvik::set_log_handler(handler, user);
}

void tarvik_set_log_level(int level) {
    tarvik::use_c_interface_defaults();
    tarvik::set_log_level(level);
}

}  // extern "C"
