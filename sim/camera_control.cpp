#include "camera_control.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "testbed.h"

namespace tarvik::sim {

namespace {

// "0 bus=1 address=3 serial=SN2024SIMCAMERA00042 plugged card video=/dev/video2"
std::string StatusLine(size_t index, const Camera& c) {
    const std::string video = c.VideoNode();
    return std::to_string(index) + " bus=" + std::to_string(c.Bus()) +
           " address=" + std::to_string(c.Address()) +
           " serial=" + (c.Serial().empty() ? "-" : c.Serial()) +
           (c.Plugged() ? " plugged" : " unplugged") + (c.HasCard() ? " card" : " no-card") +
           " video=" + (video.empty() ? "-" : video) + "\n";
}

nlohmann::json StatusJson(size_t index, const Camera& c) {
    const std::string video = c.VideoNode();
    return {{"index", index},
            {"bus", c.Bus()},
            {"address", c.Address()},
            {"serial", c.Serial()},
            {"plugged", c.Plugged()},
            {"card", c.HasCard()},
            {"video", video.empty() ? nlohmann::json() : nlohmann::json(video)}};
}

// The cameras a command is for; empty with `why` set when the choice names none.
std::vector<size_t> Chosen(Testbed& bed, const ControlCommand& c, std::string& why) {
    const size_t count = bed.CameraCount();
    if (c.camera) {
        if (*c.camera < count) return {*c.camera};
        why =
            "no camera " + std::to_string(*c.camera) + " (there are " + std::to_string(count) + ")";
        return {};
    }
    if (!c.serial.empty()) {
        for (size_t k = 0; k < count; ++k) {
            if (bed.GetCamera(k).Serial() == c.serial) return {k};
        }
        why = "no camera with serial " + c.serial;
        return {};
    }
    std::vector<size_t> all;
    for (size_t k = 0; k < count && (k == 0 || c.verb == ControlCommand::Verb::kStatus); ++k) {
        all.push_back(k);
    }
    if (all.empty()) why = "no camera";
    return all;
}

// Empty when done, else why not.
std::string Apply(Camera& camera, size_t index, const ControlCommand& c) {
    switch (c.verb) {
        case ControlCommand::Verb::kPlaceCard:
            camera.PlaceCard(c.cardFile);
            break;
        case ControlCommand::Verb::kRemoveCard:
            camera.RemoveCard();
            break;
        case ControlCommand::Verb::kUnplug:
            if (!camera.Plugged()) return "camera " + std::to_string(index) + " is not plugged in";
            camera.Unplug();
            break;
        case ControlCommand::Verb::kReplug:
            camera.Replug();
            break;
        case ControlCommand::Verb::kTilt:
            camera.SetTilt(c.pitch, c.roll);
            break;
        case ControlCommand::Verb::kFault:
            camera.InjectFault(c.faultSpec);
            break;
        case ControlCommand::Verb::kStatus:
            break;
    }
    return "";
}

}  // namespace

ControlAnswer RunControlCommand(Testbed& bed, const ControlCommand& command) {
    std::string why;
    const std::vector<size_t> chosen = Chosen(bed, command, why);
    if (chosen.empty()) return {2, why + "\n"};
    nlohmann::json json = nlohmann::json::array();
    std::string text;
    for (size_t index : chosen) {
        Camera& camera = bed.GetCamera(index);
        try {
            why = Apply(camera, index, command);
        } catch (const std::exception& e) {
            why = e.what();
        }
        if (!why.empty()) return {1, why + "\n"};
        json.push_back(StatusJson(index, camera));
        text += StatusLine(index, camera);
    }
    return {0, command.json ? json.dump() + "\n" : text};
}

}  // namespace tarvik::sim
