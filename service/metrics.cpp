#include "metrics.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tarvik.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace tarvikd {

void CameraCounters::Count(int result, double now) {
    ++calls;
    if (result == 0) {
        lastSuccess = now;
        return;
    }
    ++failures[tarvik_result_name(result)];
    lastFailure = now;
}

std::string EscapeLabel(const std::string& value) {
    std::string out;
    for (char c : value) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

namespace {

using Cameras = std::map<std::string, CameraCounters>;

void Family(std::string& out, const char* name, const char* type, const char* help) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

std::string Labels(const std::string& serial, const std::string& result = "") {
    std::string out = "{serial=\"" + EscapeLabel(serial) + "\"";
    if (!result.empty()) out += ",result=\"" + EscapeLabel(result) + "\"";
    return out + "}";
}

void Sample(std::string& out, const char* name, const std::string& labels, double value) {
    char number[64];
    std::snprintf(number, sizeof number, "%.17g", value);
    out += std::string(name) + labels + " " + number + "\n";
}

struct Counter {
    const char* name;
    const char* help;
    std::uint64_t CameraCounters::*field;
};

const Counter kCounters[] = {
    {"tarvik_calls_total", "Calls that reached the camera.", &CameraCounters::calls},
    {"tarvik_reopens_total", "Times the camera came back and was opened again.",
     &CameraCounters::reopens},
    {"tarvik_cards_read_total", "Identity cards read.", &CameraCounters::cardsRead},
    {"tarvik_card_placed_total", "Cards laid on the reader while someone watched.",
     &CameraCounters::cardsPlaced},
};

struct Gauge {
    const char* name;
    const char* help;
    double CameraCounters::*field;
};

const Gauge kGauges[] = {
    {"tarvik_last_success_timestamp_seconds", "Unix time of the last successful call (0: none).",
     &CameraCounters::lastSuccess},
    {"tarvik_last_failure_timestamp_seconds", "Unix time of the last failed call (0: none).",
     &CameraCounters::lastFailure},
};

}  // namespace

std::string RenderMetrics(const Cameras& cameras) {
    std::string out;
    for (const Counter& c : kCounters) {
        Family(out, c.name, "counter", c.help);
        for (const auto& [serial, counts] : cameras) {
            Sample(out, c.name, Labels(serial), static_cast<double>(counts.*c.field));
        }
    }
    Family(out, "tarvik_failures_total", "counter", "Failed calls, by the library's result name.");
    for (const auto& [serial, counts] : cameras) {
        for (const auto& [result, n] : counts.failures) {
            Sample(out, "tarvik_failures_total", Labels(serial, result), static_cast<double>(n));
        }
    }
    for (const Gauge& g : kGauges) {
        Family(out, g.name, "gauge", g.help);
        for (const auto& [serial, counts] : cameras) {
            Sample(out, g.name, Labels(serial), counts.*g.field);
        }
    }
    return out;
}

bool WriteMetricsFile(const std::string& path, const std::string& text, std::string& error) {
    const std::string temporary = path + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    // Readable by the collector's user whatever the service's umask.
    bool ok = fd >= 0 && ::fchmod(fd, 0644) == 0;
    for (std::size_t done = 0; ok && done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        ok = n > 0 || (n < 0 && errno == EINTR);
        if (n > 0) done += static_cast<std::size_t>(n);
    }
    if (ok) ok = ::fsync(fd) == 0;
    const int saved = errno;
    if (fd >= 0 && ::close(fd) != 0 && ok) ok = false;
    if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) ok = false;
    if (!ok) {
        error = std::string(std::strerror(saved != 0 ? saved : errno));
        ::unlink(temporary.c_str());
    }
    return ok;
}

}  // namespace tarvikd
