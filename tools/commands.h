// The commands. Each checks its values first, then talks to the camera through the
// session, replies and returns the exit status; errors are thrown as ToolError
// (or ValueError for what the user typed).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "item_records.h"
#include "session.h"
#include "settings.h"

namespace tarvikctl {

int RunList(Session& session);
int RunInfo(Session& session);

int RunGet(Session& session, const Setting& setting, const SettingOptions& options);
int RunSet(Session& session, const Setting& setting, const SettingOptions& options);

enum class ExposureOp { kGetTimes, kSetTimes, kGetRange, kGetMode, kSetMode };
int RunExposure(Session& session, ExposureOp op, const std::vector<std::string>& values);

int RunItemList(Session& session);
int RunItemRead(Session& session, const ItemOptions& options);
int RunItemWrite(Session& session, const ItemOptions& options);

struct GyroOptions {
    bool watch = false;
    std::string intervalMs = "500";
    std::string count = "0";  // 0: until interrupted or the output closes
};
int RunGyro(Session& session, const GyroOptions& options);

struct CardOptions {
    std::string photo;
    std::string thirdBlock;
};
int RunIdcard(Session& session, const CardOptions& options);
int RunSam(Session& session, const std::string& command);

// The card's record is wiped however the command ends: no trace stays in memory.
struct CardWipe {
    void operator()(tarvik_card* card) const {
        tarvik_card_clear(card);
        delete card;
    }
};
using CardRecord = std::unique_ptr<tarvik_card, CardWipe>;

// Reads the card on the reader. Throws ToolError (exit 1) when it fails.
CardRecord ReadCard(Session& session, bool third);

// The card as idcard prints it: its JSON fields, and its text.
struct CardReply {
    Json json;
    std::string text;
};
CardReply DescribeCard(const tarvik_card& card, bool third);

struct WatchOptions {
    bool card = false;  // read each card placed, once
    std::string intervalMs = "250";
    bool intervalGiven = false;
};
// One line per event until SIGINT or SIGTERM, through unplugs.
int RunWatch(Session& session, const WatchOptions& options);

// Through tarvikd: its cameras (list), their state and counters (status) and
// its counters in Prometheus' text format (metrics).
int RunServiceList(Session& session);
int RunStatus(Session& session);
int RunMetrics(Session& session);

}  // namespace tarvikctl
