#include "reply.h"

#include <tarvik.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tarvikctl {

namespace {

std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json Success(const Json& fields) {
    Json out{{"ok", true}, {"result", 0}};
    out.update(fields);
    return out;
}

}  // namespace

std::string DescribeResult(int result) {
    return "result " + std::to_string(result) + ": " + tarvik_strerror(result);
}

std::string DescribeSamCode(int code) {
    return std::to_string(code) + " (" + tarvik_sam_strerror(code) + ")";
}

Json ErrorJson(int result, const std::string& message, const Json& context) {
    Json out{{"ok", false},
             {"result", result},
             {"error", tarvik_result_name(result)},
             {"message", message}};
    out.update(context);
    return out;
}

void Reply::Ok(const Json& fields, const std::string& text) {
    Write(m_json ? Dump(Success(fields)) : text);
}

void Reply::Text(const std::string& text) {
    if (!m_json) Write(text);
}

void Reply::Sample(const Json& fields, const std::string& text, bool inPlace) {
    if (m_json) {
        Write(Dump(Success(fields)));
    } else {
        Write(inPlace ? "\r\033[K" + text : text + "\n");
    }
}

void Reply::Fail(const ToolError& error) {
    if (m_json) {
        const std::string out = Dump(ErrorJson(error.Result(), error.what(), error.Context()));
        std::fputs(out.c_str(), stdout);
        std::fflush(stdout);
    }
    std::fprintf(stderr, "tarvikctl: %s\n", error.what());
}

// Every result is flushed at once, so that a closed or full output is noticed while
// the camera is still ours to release, and a --watch stream reaches its reader live.
void Reply::Write(const std::string& text) {
    if (text.empty()) return;
    errno = 0;
    const bool written = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    if (written) return;
    const int error = errno;
    std::clearerr(stdout);
    if (error == EPIPE) throw OutputClosed{};
    throw ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_OTHER,
                    std::string("cannot write the standard output: ") + std::strerror(error));
}

}  // namespace tarvikctl
