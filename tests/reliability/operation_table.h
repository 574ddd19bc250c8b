// Every public operation of the library as a row: how to call it, what a
// healthy camera gives for it, and what it delivers from any answer frame.
// Shared by the fault matrix, the stress test and the leak tour.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TarvikImpl.h"
#include "camera_state.h"
#include "gyro_tilt.h"

namespace tarvik::reliability {

using Bytes = std::vector<std::uint8_t>;

template <typename T>
Bytes BytesOf(const T& value) {
    Bytes b(sizeof value);
    std::memcpy(b.data(), &value, sizeof value);
    return b;
}

// What the caller's record holds before a read, to tell "cleared" from "left".
constexpr std::uint8_t kPoison = 0xAB;

enum class Kind {
    kRead,   // fills the caller's record
    kWrite,  // sends the caller's record
    kFixed,  // never reaches the device
};

struct Operation {
    std::string name;
    Kind kind;
    // Reads: the record is cleared before the transaction (false: the member
    // works on a local record and writes the caller's only on success).
    bool clearsRecord;
    // Runs the operation; `record` receives the caller's record bytes after
    // the call (reads), or the bytes that were sent (writes).
    std::function<HRESULT(TarvikImpl&, Bytes& record)> run;
    // Reads: what a healthy camera in `state` delivers. Writes: whether
    // `state` holds what the write sent.
    std::function<Bytes(const sim::CameraState&)> expected;
    std::function<bool(const sim::CameraState&)> applied;
    // Reads: the record made from an answer frame (any bytes); empty when
    // the operation computes something of its own (gyro).
    std::function<Bytes(const Bytes& answer)> fromAnswer;
};

// Runs a read into a poisoned record of type R.
template <typename R, typename Call>
HRESULT ReadInto(Bytes& record, Call call) {
    R value;
    std::memset(&value, kPoison, sizeof value);
    const HRESULT r = call(&value);
    record = BytesOf(value);
    return r;
}

inline Bytes Slice(const Bytes& frame, size_t from, size_t n) {
    return Bytes(frame.begin() + from, frame.begin() + from + n);
}

// Records written by the write rows; each differs from a fresh camera's state.
// `salt` makes the records of different threads or cameras distinct.
struct WriteRecords {
    explicit WriteRecords(int salt) {
        roi = {{10 + salt, 20 + salt, 300 + salt, 400 + salt}};
        qp = {{1 + salt, 2 + salt, 3 + salt, 0x7000 + salt}};
        for (int i = 0; i < 20; ++i) {
            id.id[i] = static_cast<unsigned char>('a' + (i + salt) % 26);
            sn.sn[i] = static_cast<unsigned char>('A' + (i + 3 * salt) % 26);
        }
        gpio = {{0x30 + salt, 0x40 + salt}};
        vcm = {static_cast<unsigned char>(0x11 + salt), 0x22,
               static_cast<unsigned short>(0x300 + salt), static_cast<_VCM_MODE_E>(7)};
    }
    _ROI_PARAM roi;
    _MJPEG_QP_PARAM qp;
    _DEVICE_ID_PARAM id;
    _DEVICE_SN_PARAM sn;
    _GPIO_PARAM gpio;
    _VCM_PARAM vcm;
};

// The VCM mode the read row asks for.
constexpr std::uint8_t kVcmMode = 3;

// The tilt a camera prepared with `salt` reports.
inline int PitchFor(int salt) { return 10 + 3 * salt; }
inline int RollFor(int salt) { return -20 + 5 * salt; }

// Gives a camera content of its own: every item differs from every other item
// and from the same item of a camera prepared with another salt.
inline void Prepare(sim::CameraState& s, int salt) {
    const auto b = static_cast<std::uint8_t>(salt);
    for (size_t i = 0; i < s.version.size(); ++i)
        s.version[i] = static_cast<std::uint8_t>(0x40 + b * 7 + i);
    s.mjpegQp = {100u + b, 200u + b, 300u + b, 0x0A000000u + b};
    s.roi = {1000u + b, 2000u + b, 3000u + b, 4000u + b};
    s.roiStatus = 0x5A000000u + b;
    for (size_t i = 0; i < s.deviceId.size(); ++i)
        s.deviceId[i] = static_cast<std::uint8_t>(0x90 + b + i);
    for (size_t i = 0; i < s.deviceSn.size(); ++i)
        s.deviceSn[i] = static_cast<std::uint8_t>(0x20 + 3 * b + i);
    s.vcm[kVcmMode] = sim::VcmEntry{kVcmMode, 0x5A, static_cast<std::uint16_t>(0x0700 + b)};
    s.autofocusState = static_cast<std::uint8_t>(0x60 + b);
    s.streamCode = salt % 2 == 0 ? 0x0210 : 0x0110;
    s.lastId = static_cast<std::uint16_t>(0x7100 + b);
    s.gyro = *sim::GyroSampleForTilt(PitchFor(salt), RollFor(salt));
    s.sam.card.name = std::string("测试") + static_cast<char>('A' + salt);
    s.sam.card.idNumber = "00000019900101000" + std::to_string(salt % 10);
    s.sam.card.photo.assign(1024, static_cast<std::uint8_t>(0xC0 + b));
    s.sam.number.assign(16, static_cast<std::uint8_t>(0x30 + b));
}

// The rows for a camera prepared with `salt` (writes send records made with it).
inline std::vector<Operation> Operations(int salt = 0) {
    using S = sim::CameraState;
    auto records = std::make_shared<WriteRecords>(salt);
    std::vector<Operation> ops;

    // --- reads ---
    ops.push_back({"ReadVersion", Kind::kRead, true,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<_VERSION_PARAM>(
                           r, [&](auto* p) { return t.zq_ReadVersion(p); });
                   },
                   [](const S& s) { return Bytes(s.version.begin(), s.version.end()); }, nullptr,
                   [](const Bytes& a) { return Slice(a, 4, 56); }});
    ops.push_back({"ReadMJpegQp", Kind::kRead, true,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<_MJPEG_QP_PARAM>(
                           r, [&](auto* p) { return t.zq_ReadMJpegQp(p); });
                   },
                   [](const S& s) { return BytesOf(s.mjpegQp); }, nullptr,
                   [](const Bytes& a) { return Slice(a, 4, 16); }});
    ops.push_back({"ReadGyro", Kind::kRead, true,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<_GYRO_PARAM>(r, [&](auto* p) { return t.zq_ReadGyro(p); });
                   },
                   [salt](const S&) {
                       return BytesOf(_GYRO_PARAM{PitchFor(salt), RollFor(salt)});
                   },
                   nullptr, nullptr});
    ops.push_back({"ReadRoiStatus", Kind::kRead, true,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<unsigned int>(
                           r, [&](auto* p) { return t.zq_ReadRoiStatus(p); });
                   },
                   [](const S& s) { return BytesOf(s.roiStatus); }, nullptr,
                   [](const Bytes& a) { return Slice(a, 4, 4); }});
    ops.push_back({"ReadROI", Kind::kRead, true,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<_ROI_PARAM>(r, [&](auto* p) { return t.zq_ReadROI(p); });
                   },
                   [](const S& s) { return BytesOf(s.roi); }, nullptr,
                   [](const Bytes& a) { return Slice(a, 4, 16); }});
    ops.push_back({"ReadDeviceId", Kind::kRead, true,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<_DEVICE_ID_PARAM>(
                           r, [&](auto* p) { return t.zq_ReadDeviceId(p); });
                   },
                   [](const S& s) { return Bytes(s.deviceId.begin(), s.deviceId.end()); }, nullptr,
                   [](const Bytes& a) { return Slice(a, 4, 20); }});
    ops.push_back({"ReadDeviceSn", Kind::kRead, true,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<_DEVICE_SN_PARAM>(
                           r, [&](auto* p) { return t.zq_ReadDeviceSn(p); });
                   },
                   [](const S& s) { return Bytes(s.deviceSn.begin(), s.deviceSn.end()); }, nullptr,
                   [](const Bytes& a) { return Slice(a, 4, 20); }});
    ops.push_back(
        {"ReadVCM", Kind::kRead, true,
         [](TarvikImpl& t, Bytes& r) {
             return ReadInto<unsigned short>(
                 r, [&](auto* p) { return t.zq_ReadVCM(static_cast<_VCM_MODE_E>(kVcmMode), p); });
         },
         [](const S& s) {
             const auto it = s.vcm.find(kVcmMode);
             return BytesOf(it == s.vcm.end() ? sim::DefaultVcm(kVcmMode).value : it->second.value);
         },
         nullptr, [](const Bytes& a) { return Slice(a, 6, 2); }});
    ops.push_back({"ReadAutoFocusState", Kind::kRead, false,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<unsigned char>(
                           r, [&](auto* p) { return t.zq_ReadAutoFocusState(p); });
                   },
                   [](const S& s) { return Bytes{s.autofocusState}; }, nullptr,
                   [](const Bytes& a) { return Slice(a, 7, 1); }});
    ops.push_back({"ReadStreamState", Kind::kRead, false,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<unsigned int>(r,
                                                     [&](auto* p) { return t.ReadStreamState(p); });
                   },
                   [](const S& s) { return BytesOf(s.streamCode == 0x0210 ? 1u : 0u); }, nullptr,
                   [](const Bytes& a) { return BytesOf((a[4] | a[5] << 8) == 0x0210 ? 1u : 0u); }});
    ops.push_back({"ReadLastId", Kind::kRead, false,
                   [](TarvikImpl& t, Bytes& r) {
                       return ReadInto<short>(r, [&](auto* p) { return t.ReadLastId(p); });
                   },
                   [](const S& s) { return BytesOf(s.lastId); }, nullptr,
                   [](const Bytes& a) { return Slice(a, 4, 2); }});

    // --- writes ---
    auto write = [&](const char* name, auto member, auto field, auto applied) {
        ops.push_back(
            {name, Kind::kWrite, false,
             [records, member, field](TarvikImpl& t, Bytes& r) {
                 const auto& rec = (*records).*field;
                 r = BytesOf(rec);
                 return (t.*member)(rec);
             },
             nullptr,
             [records, field, applied](const S& s) { return applied(s, (*records).*field); },
             nullptr});
    };
    write("WriteROI", &TarvikImpl::zq_WriteROI, &WriteRecords::roi,
          [](const S& s, const _ROI_PARAM& p) { return BytesOf(s.roi) == BytesOf(p); });
    write("WriteMJpegQp", &TarvikImpl::zq_WriteMJpegQp, &WriteRecords::qp,
          [](const S& s, const _MJPEG_QP_PARAM& p) { return BytesOf(s.mjpegQp) == BytesOf(p); });
    write("WriteDeviceId", &TarvikImpl::zq_WriteDeviceId, &WriteRecords::id,
          [](const S& s, const _DEVICE_ID_PARAM& p) { return BytesOf(s.deviceId) == BytesOf(p); });
    write("WriteDeviceSn", &TarvikImpl::zq_WriteDeviceSn, &WriteRecords::sn,
          [](const S& s, const _DEVICE_SN_PARAM& p) { return BytesOf(s.deviceSn) == BytesOf(p); });
    write("WriteGpio", &TarvikImpl::zq_WriteGpio, &WriteRecords::gpio,
          [](const S& s, const _GPIO_PARAM& p) { return BytesOf(s.gpio) == BytesOf(p); });
    write("WriteVCM", &TarvikImpl::zq_WriteVCM, &WriteRecords::vcm,
          [](const S& s, const _VCM_PARAM& p) {
              const auto it = s.vcm.find(static_cast<std::uint8_t>(p.mode));
              return it != s.vcm.end() && it->second.value == p.value;
          });

    // --- the members that never reach the device ---
    auto fixed = [&](const char* name, std::function<HRESULT(TarvikImpl&)> call) {
        ops.push_back({name, Kind::kFixed, false, [call](TarvikImpl& t, Bytes&) { return call(t); },
                       nullptr, nullptr, nullptr});
    };
    fixed("ReadManualAE", [](TarvikImpl& t) {
        _MAE_PARAM p{};
        return t.zq_ReadManualAE(&p);
    });
    fixed("WriteManualAE", [](TarvikImpl& t) { return t.zq_WriteManualAE(_MAE_PARAM{100, 100}); });
    fixed("ReadETRange", [](TarvikImpl& t) {
        _DUAL_ET_RANGE p{};
        return t.zq_ReadETRange(&p);
    });
    fixed("ReadETMode", [](TarvikImpl& t) {
        _DUAL_ET_MODE p{};
        return t.zq_ReadETMode(&p);
    });
    fixed("WriteETMode", [](TarvikImpl& t) { return t.zq_WriteETMode(_DUAL_ET_MODE{1, 1}); });
    fixed("ReadProductType", [](TarvikImpl& t) {
        int type = 0;
        const HRESULT r = t.zq_ReadProductType(&type);
        return r == 0 && type == 1 ? 0 : (r != 0 ? r : -1000);
    });
    return ops;
}

// What the fixed members always return.
inline HRESULT FixedResult(const std::string& name) { return name == "ReadProductType" ? 0 : -2; }

}  // namespace tarvik::reliability
