// idcard and sam: the SAM channel through the SAM item's read transaction.
#include <TarvikImpl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "commands.h"
#include "text_format.h"
#include "value_parse.h"

namespace tarvikctl {

namespace {

struct CardField {
    const char* key;
    const char* label;
    const wchar_t* (*get)(const _SAM_OUT_PARAM&);
    size_t capacity;
};

#define TARVIK_CARD_FIELD(field, label)                                                 \
    CardField {                                                                         \
#field, label,                                                                  \
            [](const _SAM_OUT_PARAM& o)                                                 \
                 -> const wchar_t* { return o.field; }, sizeof(_SAM_OUT_PARAM::field) / \
                                                            sizeof(wchar_t)             \
    }

const CardField kCardFields[] = {
    TARVIK_CARD_FIELD(name, "name"),           TARVIK_CARD_FIELD(sex, "sex"),
    TARVIK_CARD_FIELD(nation, "nation"),       TARVIK_CARD_FIELD(birth, "birth"),
    TARVIK_CARD_FIELD(address, "address"),     TARVIK_CARD_FIELD(id_number, "id number"),
    TARVIK_CARD_FIELD(authority, "authority"), TARVIK_CARD_FIELD(valid_from, "valid from"),
    TARVIK_CARD_FIELD(valid_to, "valid to"),   TARVIK_CARD_FIELD(reserved, "reserved"),
};

#undef TARVIK_CARD_FIELD

void AddCard(const _SAM_OUT_PARAM& out, Json& json, std::string& text) {
    for (const CardField& f : kCardFields) {
        const std::string value = WideToUtf8(f.get(out), f.capacity);
        json[f.key] = value;
        std::string line = std::string(f.label) + ":";
        line.resize(12, ' ');
        line += value;
        line.erase(line.find_last_not_of(' ') + 1);  // an empty field leaves no blanks
        text += line + "\n";
    }
}

// A file the tool may write: checked before the card is read, so a typo costs no read.
void CheckWritable(const std::string& path, const char* option) {
    if (path.empty()) return;
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const bool ok = ::access(path.c_str(), W_OK) == 0 ||
                    (errno == ENOENT && ::access(dir.c_str(), W_OK | X_OK) == 0);
    if (!ok) {
        throw ValueError(std::string(option) + ": cannot write '" + path +
                         "': " + std::strerror(errno));
    }
}

void WriteBlock(const std::string& path, const unsigned char* bytes, size_t count) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(count));
    file.close();
    if (!file) throw ToolError(kExitFailed, "cannot write " + path);
}

// One SAM exchange; `retry` adds the read retry routine after a failed first attempt,
// as the operations do.
std::unique_ptr<_SAM_OUT_PARAM> Exchange(Session& session, uint8_t cmd, bool retry) {
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    std::memset(out.get(), 0, sizeof *out);
    _SAM_IN_PARAM in{cmd};
    const int hr = session.WithCamera([&](TarvikImpl& c) {
        int r = c.ReadByExtItem(EXT_ITEM_SAM, &in, out.get());
        if (r != 0 && retry) r = c.RetryReadByExtCmd(EXT_ITEM_SAM, &in, out.get());
        return r;
    });
    if (hr != 0) throw ResultError("SAM command " + std::to_string(cmd), hr);
    return out;
}

void CheckVerdict(uint8_t cmd, const _SAM_OUT_PARAM& out) {
    if (!SamSucceeded(out.result)) {
        throw ToolError(kExitFailed, "SAM command " + std::to_string(cmd) +
                                         ": the SAM answered result " +
                                         DescribeSamResult(out.result));
    }
}

}  // namespace

int RunIdcard(Session& session, const CardOptions& o) {
    CheckWritable(o.photo, "--photo");
    CheckWritable(o.thirdBlock, "--third-block");
    const uint8_t cmd = o.thirdBlock.empty() ? SAM_CMD_READ_CARD : SAM_CMD_READ_CARD_THIRD;
    const auto out = Exchange(session, cmd, true);
    CheckVerdict(cmd, *out);
    if (!o.photo.empty()) WriteBlock(o.photo, out->photo, sizeof out->photo);
    if (!o.thirdBlock.empty()) WriteBlock(o.thirdBlock, out->fingerprint, sizeof out->fingerprint);
    Json json = Json::object();
    std::string text;
    AddCard(*out, json, text);
    session.Emit(json, text);
    return kExitOk;
}

int RunSam(Session& session, const std::string& command) {
    const uint8_t cmd = ParseSamCommand(command);
    const auto out = Exchange(session, cmd, false);
    Json json{
        {"command", cmd}, {"result", out->result}, {"meaning", DescribeSamResult(out->result)}};
    std::string text = "result: " + DescribeSamResult(out->result) + "\n";
    if (SamSucceeded(out->result)) {
        if (cmd == SAM_CMD_READ_NUMBER) {
            json["number"] = Hex(out->number, sizeof out->number);
            text += "number: " + Hex(out->number, sizeof out->number) + "\n";
        } else if (cmd == SAM_CMD_READ_CARD || cmd == SAM_CMD_READ_CARD_THIRD) {
            Json card = Json::object();
            AddCard(*out, card, text);
            json["card"] = card;
        }
    }
    session.Emit(json, text);
    CheckVerdict(cmd, *out);
    return kExitOk;
}

}  // namespace tarvikctl
