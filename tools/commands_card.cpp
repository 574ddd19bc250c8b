// idcard and sam: the SAM channel.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "commands.h"
#include "text_format.h"
#include "value_parse.h"

namespace tarvikctl {

namespace {

struct CardField {
    const char* key;
    const char* label;
    const char* (*get)(const tarvik_card&);
};

const CardField kCardFields[] = {
    {"name", "name", [](const tarvik_card& c) -> const char* { return c.name; }},
    {"sex", "sex", [](const tarvik_card& c) -> const char* { return c.sex; }},
    {"sex_code", "sex code", [](const tarvik_card& c) -> const char* { return c.sex_code; }},
    {"nation", "nation", [](const tarvik_card& c) -> const char* { return c.nation; }},
    {"nation_code", "nation code",
     [](const tarvik_card& c) -> const char* { return c.nation_code; }},
    {"birth", "birth", [](const tarvik_card& c) -> const char* { return c.birth; }},
    {"address", "address", [](const tarvik_card& c) -> const char* { return c.address; }},
    {"id_number", "id number", [](const tarvik_card& c) -> const char* { return c.id_number; }},
    {"authority", "authority", [](const tarvik_card& c) -> const char* { return c.authority; }},
    {"valid_from", "valid from", [](const tarvik_card& c) -> const char* { return c.valid_from; }},
    {"valid_to", "valid to", [](const tarvik_card& c) -> const char* { return c.valid_to; }},
    {"reserved", "reserved", [](const tarvik_card& c) -> const char* { return c.reserved; }},
};

std::string Line(const std::string& label, const std::string& value) {
    std::string line = label + ":";
    line.resize(13, ' ');
    line += value;
    line.erase(line.find_last_not_of(' ') + 1);  // an empty field leaves no blanks
    return line + "\n";
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

// The photo and the third block are personal data: readable by their owner alone,
// also when the file was there before with wider permissions.
void WritePrivate(const std::string& path, const uint8_t* bytes, size_t count) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok = fd >= 0 && ::fchmod(fd, 0600) == 0;
    for (size_t done = 0; ok && done < count;) {
        const ssize_t n = ::write(fd, bytes + done, count - done);
        ok = n > 0 || (n < 0 && errno == EINTR);
        if (n > 0) done += static_cast<size_t>(n);
    }
    const int error = errno;
    if (fd >= 0 && ::close(fd) != 0 && ok) ok = false;
    if (!ok) {
        throw ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_OTHER,
                        "cannot write " + path + ": " + std::strerror(ok ? errno : error));
    }
}

}  // namespace

CardReply DescribeCard(const tarvik_card& card, bool third) {
    CardReply r{Json{{"sam_result", card.sam_result}}, ""};
    for (const CardField& f : kCardFields) {
        r.json[f.key] = f.get(card);
        r.text += Line(f.label, f.get(card));
    }
    r.text += Line("sam result", DescribeSamCode(card.sam_result));
    r.json["photo"] = Base64(card.photo, sizeof card.photo);
    if (third) r.json["third_block"] = Base64(card.third_block, sizeof card.third_block);
    return r;
}

CardRecord ReadCard(Session& session, bool third) {
    CardRecord card(new tarvik_card{});
    const int result = session.Camera().ReadCard(*card, third);
    const Json context{{"sam_result", card->sam_result}};
    if (result == TARVIK_E_SAM) {
        throw ToolError(kExitFailed, result,
                        "idcard: the SAM answered " + DescribeSamCode(card->sam_result), context);
    }
    if (result != 0) {
        throw ToolError(kExitFailed, result, "idcard failed: " + DescribeResult(result), context);
    }
    return card;
}

int RunIdcard(Session& session, const CardOptions& o) {
    CheckWritable(o.photo, "--photo");
    CheckWritable(o.thirdBlock, "--third-block");
    const bool third = !o.thirdBlock.empty();
    const CardRecord card = ReadCard(session, third);
    if (!o.photo.empty()) WritePrivate(o.photo, card->photo, sizeof card->photo);
    if (third) WritePrivate(o.thirdBlock, card->third_block, sizeof card->third_block);
    const CardReply reply = DescribeCard(*card, third);
    session.Out().Ok(reply.json, reply.text);
    return kExitOk;
}

int RunSam(Session& session, const std::string& command) {
    const uint8_t cmd = ParseSamCommand(command);
    int code = 0;
    uint8_t number[16] = {};
    const int result = session.Camera().SamCommand(cmd, code, number);
    const std::string what = "SAM command " + std::to_string(cmd);
    Json json{{"command", cmd}, {"sam_result", code}};
    if (result == TARVIK_E_SAM) {
        throw ToolError(kExitFailed, result, what + ": the SAM answered " + DescribeSamCode(code),
                        json);
    }
    if (result != 0) {
        throw ToolError(kExitFailed, result, what + " failed: " + DescribeResult(result), json);
    }
    std::string text = "sam result: " + DescribeSamCode(code) + "\n";
    if (cmd == 2) {  // the SAM's number
        json["number"] = Hex(number, sizeof number);
        text += "number: " + Hex(number, sizeof number) + "\n";
    }
    session.Out().Ok(json, text);
    return kExitOk;
}

}  // namespace tarvikctl
