// What tarvikd counts per camera, and the counts in Prometheus' text format
// (the form node_exporter's textfile collector reads: no timestamps, no units
// line). Labels are the camera's serial and a result's name; never card data.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace tarvikd {

struct CameraCounters {
    std::uint64_t calls = 0;                        // calls that reached the camera
    std::map<std::string, std::uint64_t> failures;  // by result name
    std::uint64_t reopens = 0;                      // the camera came back and was opened again
    std::uint64_t cardsRead = 0;
    std::uint64_t cardsPlaced = 0;
    double lastSuccess = 0;  // Unix time; 0: never
    double lastFailure = 0;

    // One call's end: `result` 0 or a failure, named by the library.
    void Count(int result, double now);
};

// Every family once, with one sample per camera (and per result for failures).
std::string RenderMetrics(const std::map<std::string, CameraCounters>& cameras);

// Writes `text` beside `path` and renames it into place, so that a reader sees
// the old file or the new one, never half of one. False and `error` on failure.
bool WriteMetricsFile(const std::string& path, const std::string& text, std::string& error);

// A label value as the text format wants it: backslash, quote and line feed escaped.
std::string EscapeLabel(const std::string& value);

}  // namespace tarvikd
