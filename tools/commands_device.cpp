// list, info, get, set, exposure and gyro.
#include <TarvikImpl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "commands.h"
#include "text_format.h"
#include "usb_scan.h"
#include "value_parse.h"

namespace tarvikctl {

namespace {

template <size_t N>
Json BytesJson(const unsigned char (&bytes)[N]) {
    return Json{{"hex", Hex(bytes, N)}, {"text", Printable(bytes, N)}};
}

template <size_t N>
std::string BytesText(const unsigned char (&bytes)[N], bool hex) {
    return hex ? Hex(bytes, N) : Printable(bytes, N);
}

template <size_t N>
Json FieldsJson(const int (&fields)[N]) {
    Json out = Json::array();
    for (int f : fields) out.push_back(f);
    return out;
}

template <size_t N>
std::string FieldsText(const int (&fields)[N]) {
    std::string out;
    for (int f : fields) out += (out.empty() ? "" : " ") + std::to_string(f);
    return out;
}

std::string Hex32(unsigned v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", v);
    return text;
}

std::string GyroText(const _GYRO_PARAM& g) {
    return "pitch " + std::to_string(g.pitch) + ", roll " + std::to_string(g.roll);
}

// `info`: every read, each on its own; a failed one is reported in its place.
class InfoReport {
public:
    void Add(const std::string& key, const std::string& label, int hr, const Json& json,
             const std::string& text, ResultOrigin origin = ResultOrigin::kTransfer) {
        if (hr == 0) {
            m_json[key] = json;
            m_lines.emplace_back(label, text);
        } else {
            const std::string error = "result " + DescribeResult(hr, origin);
            m_json[key] = Json{{"error", error}, {"result", hr}};
            m_lines.emplace_back(label, "error: " + error);
            ++m_failures;
        }
    }
    const Json& JsonValue() const { return m_json; }
    std::string Text() const {
        std::string out;
        for (const auto& [label, text] : m_lines) {
            std::string padded = label + ":";
            padded.resize(std::max<size_t>(padded.size() + 1, 18), ' ');
            out += padded + text + "\n";
        }
        return out;
    }
    int Failures() const { return m_failures; }

private:
    Json m_json = Json::object();
    std::vector<std::pair<std::string, std::string>> m_lines;
    int m_failures = 0;
};

volatile sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

// Sleeps, waking early when interrupted.
void Pause(long ms) {
    timespec left{ms / 1000, (ms % 1000) * 1000000L};
    while (!g_interrupted && nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace

int RunList(Session& session) {
    std::vector<CameraLocation> cameras;
    {
        LibrarySection section(session.Output());
        cameras = ScanCameras();
    }
    Json json = Json::array();
    std::string text;
    for (const CameraLocation& c : cameras) {
        json.push_back(Json{{"bus", c.bus}, {"address", c.address}});
        text += "bus " + std::to_string(c.bus) + ", address " + std::to_string(c.address) +
                "  0ac8:010c\n";
    }
    session.Emit(json, text);
    if (cameras.empty() && !session.Options().json) session.Note("no camera (0ac8:010c) found");
    return kExitOk;
}

int RunInfo(Session& session) {
    InfoReport report;
    session.WithCamera([&](TarvikImpl& cam) {
        int type = 0;
        int hr = cam.zq_ReadProductType(&type);
        report.Add("product_type", "product type", hr, type, std::to_string(type),
                   ResultOrigin::kProductType);

        _VERSION_PARAM version{};
        hr = cam.zq_ReadVersion(&version);
        report.Add("version", "version", hr, BytesJson(version.version),
                   Printable(version.version, sizeof version.version) + "\n" +
                       std::string(18, ' ') + Hex(version.version, sizeof version.version));

        _DEVICE_ID_PARAM id{};
        hr = cam.zq_ReadDeviceId(&id);
        report.Add("device_id", "device id", hr, BytesJson(id.id),
                   Printable(id.id, sizeof id.id) + " (" + Hex(id.id, sizeof id.id) + ")");

        _DEVICE_SN_PARAM sn{};
        hr = cam.zq_ReadDeviceSn(&sn);
        report.Add("device_sn", "device sn", hr, BytesJson(sn.sn),
                   Printable(sn.sn, sizeof sn.sn) + " (" + Hex(sn.sn, sizeof sn.sn) + ")");

        _MJPEG_QP_PARAM qp{};
        hr = cam.zq_ReadMJpegQp(&qp);
        report.Add("mjpeg_qp", "mjpeg qp", hr, FieldsJson(qp.qp), FieldsText(qp.qp));

        _ROI_PARAM roi{};
        hr = cam.zq_ReadROI(&roi);
        report.Add("roi", "roi", hr, FieldsJson(roi.roi), FieldsText(roi.roi));

        unsigned roiStatus = 0;
        hr = cam.zq_ReadRoiStatus(&roiStatus);
        report.Add("roi_status", "roi status", hr, roiStatus, Hex32(roiStatus));

        unsigned short vcm = 0;
        hr = cam.zq_ReadVCM(VCM_MODE_0, &vcm);
        report.Add("vcm", "vcm (mode 0)", hr, Json{{"mode", 0}, {"value", vcm}},
                   std::to_string(vcm));

        unsigned char focus = 0;
        hr = cam.zq_ReadAutoFocusState(&focus);
        report.Add("autofocus_state", "autofocus state", hr, focus, std::to_string(focus));

        unsigned stream = 0;
        hr = cam.ReadStreamState(&stream);
        report.Add("stream_state", "stream state", hr, stream, std::to_string(stream));

        _GYRO_PARAM gyro{};
        hr = cam.zq_ReadGyro(&gyro);
        report.Add("gyro", "gyro", hr, Json{{"pitch", gyro.pitch}, {"roll", gyro.roll}},
                   GyroText(gyro));
    });
    session.Emit(report.JsonValue(), report.Text());
    if (report.Failures() > 0) {
        session.Note("info: " + std::to_string(report.Failures()) + " of the reads failed");
        return kExitFailed;
    }
    return kExitOk;
}

int RunGet(Session& session, const GetSetOptions& o) {
    const uint8_t mode = CheckGetRequest(o);
    const std::string& name = o.name;
    int hr = 0;
    Json json;
    std::string text;
    if (name == "roi" || name == "mjpeg-qp") {
        int fields[4] = {};
        if (name == "roi") {
            _ROI_PARAM p{};
            hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadROI(&p); });
            std::copy(std::begin(p.roi), std::end(p.roi), fields);
        } else {
            _MJPEG_QP_PARAM p{};
            hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadMJpegQp(&p); });
            std::copy(std::begin(p.qp), std::end(p.qp), fields);
        }
        json = FieldsJson(fields);
        text = FieldsText(fields);
    } else if (name == "device-id") {
        _DEVICE_ID_PARAM p{};
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadDeviceId(&p); });
        json = BytesJson(p.id);
        text = BytesText(p.id, o.hex);
    } else if (name == "device-sn") {
        _DEVICE_SN_PARAM p{};
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadDeviceSn(&p); });
        json = BytesJson(p.sn);
        text = BytesText(p.sn, o.hex);
    } else {  // vcm
        unsigned short value = 0;
        hr = session.WithCamera(
            [&](TarvikImpl& c) { return c.zq_ReadVCM(static_cast<_VCM_MODE_E>(mode), &value); });
        json = Json{{"mode", mode}, {"value", value}};
        text = std::to_string(value);
    }
    if (hr != 0) throw ResultError("get " + name, hr);
    std::string key = name;
    std::replace(key.begin(), key.end(), '-', '_');
    session.Emit(Json{{key, json}}, text + "\n");
    return kExitOk;
}

int RunSet(Session& session, const GetSetOptions& o) {
    const SetRequest r = ParseSetRequest(o);
    int hr = 0;
    if (r.name == "roi") {
        _ROI_PARAM p{};
        std::copy(r.fields.begin(), r.fields.end(), p.roi);
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_WriteROI(p); });
    } else if (r.name == "mjpeg-qp") {
        _MJPEG_QP_PARAM p{};
        std::copy(r.fields.begin(), r.fields.end(), p.qp);
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_WriteMJpegQp(p); });
    } else if (r.name == "gpio") {
        _GPIO_PARAM p{};
        std::copy(r.fields.begin(), r.fields.end(), p.gpio);
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_WriteGpio(p); });
    } else if (r.name == "device-id") {
        _DEVICE_ID_PARAM p{};
        std::copy(r.bytes.begin(), r.bytes.end(), p.id);
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_WriteDeviceId(p); });
    } else if (r.name == "device-sn") {
        _DEVICE_SN_PARAM p{};
        std::copy(r.bytes.begin(), r.bytes.end(), p.sn);
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_WriteDeviceSn(p); });
    } else {  // vcm
        _VCM_PARAM p{};
        p.ctrl0 = r.ctrl0;
        p.ctrl1 = r.ctrl1;
        p.value = r.vcmValue;
        p.mode = static_cast<_VCM_MODE_E>(r.vcmMode);
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_WriteVCM(p); });
    }
    if (hr != 0) throw ResultError("set " + r.name, hr);
    if (session.Options().json) session.Emit(Json{{"set", r.name}, {"result", 0}}, "");
    return kExitOk;
}

int RunExposure(Session& session, ExposureOp op, const std::vector<std::string>& values) {
    constexpr ResultOrigin kOrigin = ResultOrigin::kExposure;
    int hr = 0;
    Json json;
    std::string text;
    std::string what;
    if (op == ExposureOp::kSetTimes || op == ExposureOp::kSetMode) {
        what = op == ExposureOp::kSetTimes ? "exposure set-times" : "exposure set-mode";
        if (values.size() != 2) {
            throw ValueError(what + " takes 2 values (left, right), got " +
                             std::to_string(values.size()));
        }
        if (op == ExposureOp::kSetTimes) {
            const _MAE_PARAM p{
                static_cast<unsigned>(ParseInteger(values[0], "left exposure time", 0, UINT32_MAX)),
                static_cast<unsigned>(
                    ParseInteger(values[1], "right exposure time", 0, UINT32_MAX))};
            hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_WriteManualAE(p); });
        } else {
            const _DUAL_ET_MODE p{static_cast<int>(ParseInteger(values[0], "left exposure mode",
                                                                INT32_MIN, INT32_MAX)),
                                  static_cast<int>(ParseInteger(values[1], "right exposure mode",
                                                                INT32_MIN, INT32_MAX))};
            hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_WriteETMode(p); });
        }
        json = Json{{"result", 0}};
    } else if (op == ExposureOp::kGetTimes) {
        what = "exposure get-times";
        _MAE_PARAM p{};
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadManualAE(&p); });
        json = Json{{"left", p.leftEt}, {"right", p.rightEt}};
        text = "left " + std::to_string(p.leftEt) + ", right " + std::to_string(p.rightEt);
    } else if (op == ExposureOp::kGetRange) {
        what = "exposure get-range";
        _DUAL_ET_RANGE p{};
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadETRange(&p); });
        json = Json{{"left", {{"min", p.leftMin}, {"max", p.leftMax}}},
                    {"right", {{"min", p.rightMin}, {"max", p.rightMax}}}};
        text = "left " + std::to_string(p.leftMin) + "-" + std::to_string(p.leftMax) + ", right " +
               std::to_string(p.rightMin) + "-" + std::to_string(p.rightMax);
    } else {
        what = "exposure get-mode";
        _DUAL_ET_MODE p{};
        hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadETMode(&p); });
        json = Json{{"left", p.leftMode}, {"right", p.rightMode}};
        text = "left " + std::to_string(p.leftMode) + ", right " + std::to_string(p.rightMode);
    }
    if (hr != 0) throw ResultError(what, hr, kOrigin);
    session.Emit(json, text + "\n");
    return kExitOk;
}

int RunGyro(Session& session, const GyroOptions& o) {
    const long interval = ParseInteger(o.intervalMs, "--interval", 10, 3600000);
    const long long count = ParseInteger(o.count, "--count", 0, 1000000000);
    if (!o.watch) {
        _GYRO_PARAM g{};
        const int hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadGyro(&g); });
        if (hr != 0) throw ResultError("gyro", hr);
        session.Emit(Json{{"pitch", g.pitch}, {"roll", g.roll}}, GyroText(g) + "\n");
        return kExitOk;
    }
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // Refresh in place only on a terminal; elsewhere one line (or JSON object) per sample.
    const bool inPlace = !session.Options().json && isatty(STDOUT_FILENO);
    for (long long n = 0; !g_interrupted && (count == 0 || n < count); ++n) {
        if (n > 0) Pause(interval);
        if (g_interrupted) break;
        _GYRO_PARAM g{};
        const int hr = session.WithCamera([&](TarvikImpl& c) { return c.zq_ReadGyro(&g); });
        if (hr != 0) {
            if (inPlace) std::fputc('\n', stdout);
            throw ResultError("gyro", hr);
        }
        if (session.Options().json) {
            std::printf("%s\n", Json{{"pitch", g.pitch}, {"roll", g.roll}}.dump().c_str());
        } else if (inPlace) {
            std::printf("\r\033[K%s", GyroText(g).c_str());
        } else {
            std::printf("%s\n", GyroText(g).c_str());
        }
        std::fflush(stdout);
    }
    if (inPlace) std::fputc('\n', stdout);
    return kExitOk;
}

}  // namespace tarvikctl
