#include "fault_syntax.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>

#include "camera_state.h"
#include "control_transfer.h"

namespace tarvik::sim {

namespace {

int ItemNumber(const std::string& text, const std::string& what) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || text.empty() || *end != '\0' || v < kItemEt || v > kItemVcm) {
        throw std::invalid_argument("bad " + what + " item (1-18): " + text);
    }
    return static_cast<int>(v);
}

}  // namespace

std::vector<Fault> ParseFaultSpec(const std::string& spec, const std::string& what) {
    const size_t colon = spec.find(':');
    const std::string kind = spec.substr(0, colon);
    Fault f;
    f.selector = kSelectorChannel;
    f.count = INT_MAX;
    if (colon != std::string::npos) f.item = ItemNumber(spec.substr(colon + 1), what);
    if (kind == "stall") {
        f.kind = FaultKind::kStall;
    } else if (kind == "timeout") {
        f.kind = FaultKind::kDelay;
        f.delay = std::chrono::hours(24);
    } else if (kind == "garbage") {
        f.kind = FaultKind::kGarbage;
        f.request = kGetCur;
        return {f};
    } else {
        throw std::invalid_argument("bad " + what + ": " + spec +
                                    " (stall, timeout or garbage[:ITEM])");
    }
    Fault set = f;
    f.request = kGetCur;
    set.request = kSetCur;
    return {f, set};
}

}  // namespace tarvik::sim
