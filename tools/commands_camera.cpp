// list, info and gyro.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "commands.h"
#include "open_failure.h"
#include "text_format.h"
#include "value_parse.h"

namespace tarvikctl {

namespace {

Json OrNull(const char* text) { return text[0] == '\0' ? Json() : Json(text); }

Json CameraJson(const tarvik_camera_info& c) {
    return Json{
        {"bus", c.bus},         {"address", c.address},       {"vendor_id", "0ac8"},
        {"product_id", "010c"}, {"serial", OrNull(c.serial)}, {"video_node", OrNull(c.video_node)}};
}

std::string CameraLine(const tarvik_camera_info& c) {
    const auto shown = [](const char* text) { return text[0] == '\0' ? "-" : text; };
    return "bus " + std::to_string(c.bus) + ", address " + std::to_string(c.address) + "  " +
           kCameraIds + "  serial: " + shown(c.serial) + "  video: " + shown(c.video_node) + "\n";
}

template <size_t N>
Json Fields(const int32_t (&fields)[N]) {
    return Json(std::vector<int32_t>(fields, fields + N));
}

template <size_t N>
std::string FieldsText(const int32_t (&fields)[N]) {
    std::string out;
    for (int32_t f : fields) out += (out.empty() ? "" : " ") + std::to_string(f);
    return out;
}

template <size_t N>
Json BytesJson(const uint8_t (&bytes)[N]) {
    return Json{{"text", Printable(bytes, N)}, {"hex", Hex(bytes, N)}};
}

template <size_t N>
std::string BytesText(const uint8_t (&bytes)[N]) {
    return Printable(bytes, N) + " (" + Hex(bytes, N) + ")";
}

std::string Hex32(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", v);
    return text;
}

std::string TiltText(int32_t pitch, int32_t roll) {
    return "pitch " + std::to_string(pitch) + ", roll " + std::to_string(roll);
}

// `info`: every read on its own; a failed one is reported in its place.
class InfoReport {
public:
    void Add(const char* key, const char* label, int result, const Json& json,
             const std::string& text) {
        std::string line = std::string(label) + ":";
        line.resize(std::max<size_t>(line.size() + 1, 18), ' ');
        if (result == 0) {
            m_fields[key] = json;
            m_text += line + text + "\n";
            return;
        }
        m_fields[key] = ErrorJson(result, DescribeResult(result));
        m_text += line + "error: " + DescribeResult(result) + "\n";
        if (m_failures++ == 0) m_firstFailure = result;
    }
    void Reply(Session& session) const {
        if (m_failures == 0) return session.Out().Ok(m_fields, m_text);
        session.Out().Text(m_text);
        throw ToolError(kExitFailed, m_firstFailure,
                        "info: " + std::to_string(m_failures) + " of the reads failed", m_fields);
    }

private:
    Json m_fields = Json::object();
    std::string m_text;
    int m_failures = 0;
    int m_firstFailure = 0;
};

void AddIdentity(tarvik_camera* c, InfoReport& report) {
    // Each read comes first: the values are formatted after it, not while it is made.
    int type = 0;
    int r = tarvik_read_product_type(c, &type);
    report.Add("product_type", "product type", r, type, std::to_string(type));
    uint8_t version[56] = {};
    r = tarvik_read_version(c, version);
    report.Add("version", "version", r, BytesJson(version),
               Printable(version, sizeof version) + "\n" + std::string(18, ' ') +
                   Hex(version, sizeof version));
    uint8_t id[20] = {};
    r = tarvik_read_device_id(c, id);
    report.Add("device_id", "device id", r, BytesJson(id), BytesText(id));
    uint8_t sn[20] = {};
    r = tarvik_read_device_sn(c, sn);
    report.Add("device_sn", "device sn", r, BytesJson(sn), BytesText(sn));
}

void AddSettings(tarvik_camera* c, InfoReport& report) {
    int32_t qp[4] = {};
    int r = tarvik_read_mjpeg_qp(c, qp);
    report.Add("mjpeg_qp", "mjpeg qp", r, Fields(qp), FieldsText(qp));
    int32_t roi[4] = {};
    r = tarvik_read_roi(c, roi);
    report.Add("roi", "roi", r, Fields(roi), FieldsText(roi));
    uint32_t roiStatus = 0;
    r = tarvik_read_roi_status(c, &roiStatus);
    report.Add("roi_status", "roi status", r, roiStatus, Hex32(roiStatus));
    uint16_t vcm = 0;
    r = tarvik_read_vcm(c, 0, &vcm);
    report.Add("vcm", "vcm (mode 0)", r, Json{{"mode", 0}, {"value", vcm}}, std::to_string(vcm));
}

void AddState(tarvik_camera* c, InfoReport& report) {
    uint8_t focus = 0;
    int r = tarvik_read_autofocus_state(c, &focus);
    report.Add("autofocus_state", "autofocus state", r, focus, std::to_string(focus));
    uint32_t stream = 0;
    r = tarvik_read_stream_state(c, &stream);
    report.Add("stream_state", "stream state", r, stream, std::to_string(stream));
    int32_t pitch = 0, roll = 0;
    r = tarvik_read_gyro(c, &pitch, &roll);
    report.Add("gyro", "gyro", r, Json{{"pitch", pitch}, {"roll", roll}}, TiltText(pitch, roll));
}

volatile sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

// Sleeps, waking early when interrupted.
void Pause(long ms) {
    timespec left{ms / 1000, (ms % 1000) * 1000000L};
    while (!g_interrupted && nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void Sample(Session& session, bool inPlace) {
    int32_t pitch = 0, roll = 0;
    const int result = session.Camera().ReadGyro(pitch, roll);
    if (result != 0 && inPlace) session.Out().Text("\n");
    Check(result, "gyro");
    session.Out().Sample(Json{{"pitch", pitch}, {"roll", roll}}, TiltText(pitch, roll), inPlace);
}

}  // namespace

int RunList(Session& session) {
#ifdef TARVIKCTL_WITH_SERVICE
    if (session.Options().service) return RunServiceList(session);
#endif
    const std::vector<tarvik_camera_info> cameras = ListCameras();
    if (cameras.empty()) {
        throw ToolError(kExitNoCamera, TARVIK_E_NO_CAMERA,
                        std::string("no camera (") + kCameraIds + ") found");
    }
    Json json = Json::array();
    std::string text;
    for (const tarvik_camera_info& c : cameras) {
        json.push_back(CameraJson(c));
        text += CameraLine(c);
    }
    session.Out().Ok(Json{{"cameras", json}}, text);
    return kExitOk;
}

int RunInfo(Session& session) {
    if (session.Options().service) {
        throw ValueError(
            "info reads the camera through the library alone; through tarvikd, 'status' shows "
            "the camera and get, exposure, item and gyro read its values");
    }
    InfoReport report;
    tarvik_camera* camera = LibraryHandle(session.Camera());
    AddIdentity(camera, report);
    AddSettings(camera, report);
    AddState(camera, report);
    report.Reply(session);
    return kExitOk;
}

int RunGyro(Session& session, const GyroOptions& o) {
    const long interval = static_cast<long>(ParseInteger(o.intervalMs, "--interval", 10, 3600000));
    const long long count = ParseInteger(o.count, "--count", 0, 1000000000);
    if (!o.watch) {
        Sample(session, false);
        return kExitOk;
    }
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    // Calls inside the library and its transport carry on across the signal;
    // the loop looks at the flag between samples (a sleep still wakes early).
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // Refresh in place only on a terminal; elsewhere one line (or JSON object) per sample.
    const bool inPlace = !session.Options().json && isatty(STDOUT_FILENO);
    try {
        for (long long n = 0; !g_interrupted && (count == 0 || n < count); ++n) {
            if (n > 0) Pause(interval);
            if (!g_interrupted) Sample(session, inPlace);
        }
        if (inPlace) session.Out().Text("\n");
    } catch (const OutputClosed&) {
        // The reader has had enough (`| head -2`): that ends a watch as Ctrl-C does.
    }
    return kExitOk;
}

}  // namespace tarvikctl
