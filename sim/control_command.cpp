#include "control_command.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "card_file.h"
#include "fault_syntax.h"
#include "gyro_tilt.h"
#include "launcher_options.h"

namespace tarvik::sim {

namespace {

struct VerbName {
    ControlCommand::Verb verb;
    const char* name;
    size_t least;  // arguments
    size_t most;
};

constexpr VerbName kVerbs[] = {
    {ControlCommand::Verb::kPlaceCard, "place-card", 0, 1},
    {ControlCommand::Verb::kRemoveCard, "remove-card", 0, 0},
    {ControlCommand::Verb::kUnplug, "unplug", 0, 0},
    {ControlCommand::Verb::kReplug, "replug", 0, 0},
    {ControlCommand::Verb::kTilt, "tilt", 2, 2},
    {ControlCommand::Verb::kFault, "fault", 1, 1},
    {ControlCommand::Verb::kStatus, "status", 0, 0},
};

void Check(ControlCommand& c, const std::vector<std::string>& args, const std::string& folder) {
    switch (c.verb) {
        case ControlCommand::Verb::kPlaceCard:
            if (args.empty()) return;
            c.cardFile = args[0].empty() || args[0][0] == '/' || folder.empty()
                             ? args[0]
                             : folder + "/" + args[0];
            try {
                LoadCardFile(c.cardFile);
            } catch (const std::runtime_error& e) {
                throw UsageError(e.what());
            }
            return;
        case ControlCommand::Verb::kTilt:
            c.pitch = ParseInteger(args[0], "tilt pitch (-90 to 90)", -90, 90);
            c.roll = ParseInteger(args[1], "tilt roll (-90 to 90)", -90, 90);
            if (!GyroSampleForTilt(c.pitch, c.roll)) {
                throw UsageError("tilt " + args[0] + " " + args[1] +
                                 ": no sample gives it (|pitch| + |roll| below 90, or ±90 and 0)");
            }
            return;
        case ControlCommand::Verb::kFault:
            c.faultSpec = args[0];
            try {
                if (c.faultSpec != "none") ParseFaultSpec(c.faultSpec, "fault");
            } catch (const std::invalid_argument& e) {
                throw UsageError(std::string(e.what()) + " or none");
            }
            return;
        default:
            return;
    }
}

}  // namespace

ControlCommand ParseControlCommand(const std::vector<std::string>& words,
                                   const std::string& folder) {
    ControlCommand c;
    std::vector<std::string> rest;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& w = words[i];
        const bool valued = w == "--camera" || w == "--serial";
        if (valued && i + 1 == words.size()) throw UsageError(w + " needs a value");
        if (w == "--camera") {
            c.camera = static_cast<size_t>(ParseInteger(words[++i], "--camera", 0, 255));
        } else if (w == "--serial") {
            c.serial = words[++i];
            if (c.serial.empty()) throw UsageError("--serial needs a serial");
        } else if (w == "--json") {
            c.json = true;
        } else if (w.rfind("--", 0) == 0) {
            throw UsageError("unknown option " + w);
        } else {
            rest.push_back(w);
        }
    }
    if (c.camera && !c.serial.empty()) throw UsageError("--camera and --serial exclude each other");
    if (rest.empty()) throw UsageError("no command");
    for (const VerbName& v : kVerbs) {
        if (rest[0] != v.name) continue;
        const std::vector<std::string> args(rest.begin() + 1, rest.end());
        if (args.size() < v.least || args.size() > v.most) {
            throw UsageError(rest[0] + ": " +
                             (args.size() < v.least ? "missing argument" : "too many arguments"));
        }
        c.verb = v.verb;
        Check(c, args, folder);
        return c;
    }
    throw UsageError("unknown command " + rest[0] +
                     " (place-card, remove-card, unplug, replug, tilt, fault, status)");
}

std::vector<std::string> ControlWords(const ControlCommand& c) {
    std::vector<std::string> words;
    for (const VerbName& v : kVerbs) {
        if (v.verb == c.verb) words.emplace_back(v.name);
    }
    if (c.verb == ControlCommand::Verb::kPlaceCard && !c.cardFile.empty()) {
        words.push_back(c.cardFile);
    }
    if (c.verb == ControlCommand::Verb::kTilt) {
        words.push_back(std::to_string(c.pitch));
        words.push_back(std::to_string(c.roll));
    }
    if (c.verb == ControlCommand::Verb::kFault) words.push_back(c.faultSpec);
    if (c.camera) words.insert(words.end(), {"--camera", std::to_string(*c.camera)});
    if (!c.serial.empty()) words.insert(words.end(), {"--serial", c.serial});
    if (c.json) words.emplace_back("--json");
    return words;
}

}  // namespace tarvik::sim
