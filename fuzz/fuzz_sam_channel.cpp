// The SAM exchange of ReadByExtItem fed with arbitrary first and continuation
// frames, for every command byte. Input: the command, then the device script
// (device_script.h).
//
// Beyond what ASan and UBSan catch, the run checks what is delivered against
// the packet rebuilt here from the frames the device sent: nothing is
// delivered from a rejected packet, a transfer failure leaves the record as
// the result table says, and the card's text fields end inside their arrays.
#include <cstring>
#include <cwchar>
#include <memory>

#include "TarvikImpl.h"
#include "byte_pack.h"
#include "device_script.h"

using namespace tarvik::fuzz;

namespace {

constexpr unsigned char kPoison = 0xCD;
constexpr unsigned kPacketBytesPerFrame = 52;

class QuietLogger : public AssertLogger {
public:
    void Log(char*) override {}
};

bool Untouched(const _SAM_OUT_PARAM& out) {
    const auto* p = reinterpret_cast<const unsigned char*>(&out);
    for (std::size_t i = 0; i < sizeof out; ++i) {
        if (p[i] != kPoison) return false;
    }
    return true;
}

// Everything but `result`, from byte `from` on, is zero.
bool ZeroAfter(const _SAM_OUT_PARAM& out, std::size_t from) {
    const auto* p = reinterpret_cast<const unsigned char*>(&out);
    for (std::size_t i = from; i < sizeof out; ++i) {
        if (p[i] != 0) return false;
    }
    return true;
}

bool OnlyResult(const _SAM_OUT_PARAM& out) {
    return ZeroAfter(out, offsetof(_SAM_OUT_PARAM, name));
}

template <std::size_t N>
bool Terminated(const wchar_t (&field)[N], std::size_t longest) {
    const std::size_t n = wcsnlen(field, N);
    return n < N && n <= longest;
}

// The packet as the device sent it: frame bytes 8-59 of the first answer and
// of every full continuation frame, cut to dataLen + 2 bytes.
std::vector<std::uint8_t> RebuildPacket(const std::vector<const SeenTransfer*>& answers) {
    std::vector<std::uint8_t> packet;
    for (const SeenTransfer* t : answers) {
        if (t->result != 0 && t->result != 60) break;  // the library stops at a failed frame
        packet.insert(packet.end(), t->in.begin() + 8, t->in.begin() + 8 + kPacketBytesPerFrame);
    }
    if (packet.size() >= 2) packet.resize((packet[0] << 8 | packet[1]) + 2u, 0);
    return packet;
}

std::uint8_t At(const std::vector<std::uint8_t>& p, std::size_t i) {
    return i < p.size() ? p[i] : 0;
}

void CheckDelivery(unsigned cmd, const _SAM_OUT_PARAM& out,
                   const std::vector<const SeenTransfer*>& answers) {
    if (cmd == 6 || cmd == 7) {  // the device's result alone, no packet
        FUZZ_CHECK(answers.size() == 1 && out.result == 0 && OnlyResult(out));
        return;
    }
    const std::vector<std::uint8_t> packet = RebuildPacket(answers);
    const std::size_t dataLen = packet.size() - 2;
    std::uint8_t x = 0;
    for (std::size_t i = 0; i <= dataLen; ++i) x ^= packet[i];
    FUZZ_CHECK(x == packet[dataLen + 1]);  // a delivered packet passed its checksum
    FUZZ_CHECK(answers.size() == 1 + (packet.size() > 52 ? (packet.size() - 52 + 51) / 52 : 0));

    if (cmd == 0 || cmd == 1) {
        FUZZ_CHECK(OnlyResult(out));
    } else if (cmd == 2) {
        FUZZ_CHECK(dataLen <= 20);
        for (std::size_t i = 0; i < 16; ++i) FUZZ_CHECK(out.number[i] == At(packet, 5 + i));
        FUZZ_CHECK(ZeroAfter(out, offsetof(_SAM_OUT_PARAM, name) + 16));
    } else {
        const std::size_t photo = cmd == 3 ? 265 : 267;
        for (std::size_t i = 0; i < sizeof out.photo; ++i)
            FUZZ_CHECK(out.photo[i] == At(packet, photo + i));
        for (std::size_t i = 0; i < sizeof out.fingerprint; ++i) {
            FUZZ_CHECK(out.fingerprint[i] == (cmd == 4 ? At(packet, 1291 + i) : 0));
        }
        FUZZ_CHECK(Terminated(out.name, 15));
        FUZZ_CHECK(Terminated(out.sex, 3));
        FUZZ_CHECK(Terminated(out.nation, 9));
        FUZZ_CHECK(Terminated(out.birth, 8));
        FUZZ_CHECK(Terminated(out.address, 35));
        FUZZ_CHECK(Terminated(out.id_number, 18));
        FUZZ_CHECK(Terminated(out.authority, 15));
        FUZZ_CHECK(Terminated(out.valid_from, 8));
        FUZZ_CHECK(Terminated(out.valid_to, 8));
        FUZZ_CHECK(Terminated(out.reserved, 18));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SilenceStdout();
    static QuietLogger logger;
    SetAssertLogger(&logger);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const unsigned cmd = data[0];
    StartScript(data + 1, size - 1);

    TarvikImpl impl(FakeHandle());
    _SAM_IN_PARAM in{static_cast<unsigned char>(cmd)};
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    std::memset(out.get(), kPoison, sizeof *out);
    const HRESULT r = impl.ReadByExtItem(EXT_ITEM_SAM, &in, out.get());

    std::vector<const SeenTransfer*> requests, answers;
    for (const SeenTransfer& t : Seen()) {
        if (t.selector != 14) continue;
        (t.request == 0x01 ? requests : answers).push_back(&t);
    }
    const bool valid = cmd <= 4 || cmd == 6 || cmd == 7;
    if (!valid) {
        FUZZ_CHECK(requests.empty() && answers.empty());
        FUZZ_CHECK(r == 1 || r < 0 || (r > 0 && r < 8));  // rejected, or the marker failed
        FUZZ_CHECK(Untouched(*out));
        return 0;
    }
    FUZZ_CHECK(requests.size() <= 1);
    FUZZ_CHECK(answers.size() <= 1 + (4096 + 51) / 52);
    if (!requests.empty()) {
        const std::vector<std::uint8_t>& f = requests[0]->out;
        FUZZ_CHECK(f[0] == 0 && f[1] == 0x10 && f[4] == 12 && f[8] == cmd && f[12] == 1);
    }

    if (r != 0) {
        // A failed first exchange leaves the record; a lost continuation frame
        // leaves the result -2 alone.
        FUZZ_CHECK(r < 0 || r < 60);
        FUZZ_CHECK(Untouched(*out) ||
                   (out->result == -2 && OnlyResult(*out) && answers.size() > 1));
        return 0;
    }
    FUZZ_CHECK(answers.size() >= 1);
    const int result = out->result;
    if (result == 0 || result == 1) {
        CheckDelivery(cmd, *out, answers);
    } else {
        FUZZ_CHECK(result == -1 || result == -3 || (result >= 2 && result <= 19));
        FUZZ_CHECK(OnlyResult(*out));
    }
    return 0;
}
