// The SAM exchange behind ReadByExtItem(EXT_ITEM_SAM): one request, the first
// answer frame, continuation frames until the packet is complete, its checks
// and the delivery by command.
#include "sam_channel.h"

#include <string.h>

#include <chrono>
#include <cstring>
#include <mutex>

#include "IDCardData.h"
#include "card_lock.h"
#include "code_tables.h"
#include "frame_codec.h"
#include "sam_packet.h"
#include "tarvik_log.h"

using tarvik::frame::Frame;
using tarvik::frame::kFrameSize;
using tarvik::frame::kTransactionSelector;

namespace tarvik::sam {
namespace {

constexpr HRESULT kInvalidCommand = 1;
constexpr int kResultUntrusted = 2;   // checksum failed, or the answer broke a condition
constexpr int kResultFrameLost = -2;  // a continuation frame could not be read
constexpr int kResultSamBusy = -3;    // samResult 1
constexpr int kResultSamFailed = -1;

// Where a card read on this thread hands its codes, if anywhere.
thread_local CardCodes* t_cardCodes = nullptr;

unsigned hex(HRESULT r) { return static_cast<unsigned>(r); }

// The camera wants a pause of at least a microsecond before each continuation
// frame. A sleep lasts the kernel's timer slack (50 µs and more); spinning on
// the clock keeps it to what it is meant to be, without touching the calling
// thread's settings.
void pause_before_next_frame() {
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(1);
    while (std::chrono::steady_clock::now() < until) {
    }
}

// Card data must not outlive its use: buffers that held it are wiped, in a
// way the compiler keeps, before they go.
void wipe(void* p, size_t n) { explicit_bzero(p, n); }

void wipe(std::wstring& s) { wipe(s.data(), (s.capacity() + 1) * sizeof(wchar_t)); }

void wipe(IDCardData& card) {
    for (std::wstring* s :
         {&card.name, &card.sex, &card.nation, &card.birth, &card.address, &card.id_number,
          &card.authority, &card.valid_from, &card.valid_to, &card.reserved}) {
        wipe(*s);
    }
}

// Wipes a frame when it goes out of scope, whatever way the call ends.
struct WipedFrame {
    Frame frame;
    ~WipedFrame() { wipe(frame.data(), frame.size()); }
};

// An answer that breaks one of its conditions delivers nothing but `result`.
void rejectAnswer(_SAM_OUT_PARAM* out, const char* condition) {
    ReportAssertion(condition, "ReadByExtItem");
    std::memset(out, 0, sizeof *out);
    out->result = kResultUntrusted;
}

void deliverCard(unsigned cmd, const std::vector<std::uint8_t>& packet, _SAM_OUT_PARAM* out) {
    std::uint8_t text[kTextBlockSize] = {};
    copy_card_blocks(cmd, packet, text, out);
    {
        // The code tables are process-wide: parse under the lock that guards them.
        std::lock_guard<std::recursive_mutex> lock(card_parse_mutex());
        IDCardData card;
        card.prase(text, nullptr);
        copy_card_fields(card, out);
        wipe(card);
    }
    if (t_cardCodes != nullptr) card_codes(text, t_cardCodes->sex, t_cardCodes->nation);
    wipe(text, sizeof text);
}

// The data phase: the packet, its status and checksum, the delivery.
HRESULT receivePacket(TarvikImpl& impl, unsigned cmd, const FirstAnswer& answer, Frame& frame,
                      _SAM_OUT_PARAM* out) {
    PacketAssembler assembler;
    // The packet length is judged before any continuation frame is fetched.
    if (!assembler.start(frame, receive_buffer_size(cmd))) {
        rejectAnswer(out, "data_len < recv_buf_len");
        return 0;
    }
    const int code = GetSAMResponseCode(answer.sw1, answer.sw2, answer.sw3);
    while (!assembler.complete()) {
        pause_before_next_frame();
        frame.fill(0);
        if (const HRESULT r = impl._GetBytes(kTransactionSelector, frame.data(), kFrameSize);
            r != 0) {
            TLOG_WARN("SAM > Get bytes error. hr=0x%x", hex(r));
            out->result = kResultFrameLost;
            return r;
        }
        assembler.append(frame);
    }

    out->result = code;
    if (code != 0 && code != 1) {
        TLOG_DEBUG("SAM > response error! cmd:%d, SW1:0x%X, SW2:0x%X, SW3:0x%X, ResponseCode:%d.",
                   static_cast<int>(cmd), answer.sw1, answer.sw2, answer.sw3, code);
        return 0;
    }
    const Checksum checksum = verify_checksum(assembler.packet());
    if (!checksum.ok()) {
        TLOG_WARN("SAM > data checksum error! cmd:%d, calc value [0x%x] != [0x%x].",
                  static_cast<int>(cmd), checksum.computed, checksum.received);
        out->result = kResultUntrusted;
        return 0;
    }
    if (cmd == EXT_SAM_CMD_READ_NUMBER) {
        if (!number_length_ok(answer.dataLen)) {
            rejectAnswer(out, "num_len <= 16");
            return 0;
        }
        deliver_number(assembler.packet(), out);
    } else if (cmd == EXT_SAM_CMD_READ_CARD || cmd == EXT_SAM_CMD_READ_CARD_THIRD) {
        deliverCard(cmd, assembler.packet(), out);
    }
    return 0;
}

}  // namespace

HRESULT read_sam_item(TarvikImpl& impl, const _SAM_IN_PARAM* in, _SAM_OUT_PARAM* out) {
    const unsigned cmd = in->cmd;
    uvc_extItem_SAM_E wireCmd = EXT_SAM_CMD_0;
    if (impl.SamCmdTransfer(static_cast<_SAM_CMD_E>(cmd), wireCmd) != 0) {
        TLOG_WARN("ReadByExtItem, invalid sam cmd: %d", in->cmd);
        impl.RecoveryMarker();
        return kInvalidCommand;
    }
    int productType = 0;
    impl.zq_ReadProductType(&productType);
    WipedFrame wiped;
    Frame& frame = wiped.frame;
    frame::build_read_request(frame, EXT_ITEM_SAM, static_cast<std::uint16_t>(productType), 0,
                              nullptr);
    put_request(frame, static_cast<std::uint16_t>(wireCmd));
    if (const HRESULT r = impl._SetBytes(kTransactionSelector, frame.data(), kFrameSize); r != 0) {
        TLOG_WARN("ReadByExtItem, _SetBytes error. extItemType=%d, hr=0x%x", EXT_ITEM_SAM, hex(r));
        impl.RecoveryMarker();
        return r;
    }
    frame.fill(0);
    if (const HRESULT r = impl._GetBytes(kTransactionSelector, frame.data(), kFrameSize); r != 0) {
        TLOG_WARN("ReadByExtItem, _GetBytes error. extItemType=%d, hr=0x%x", EXT_ITEM_SAM, hex(r));
        impl.RecoveryMarker();
        return r;
    }

    std::memset(out, 0, sizeof *out);
    const FirstAnswer answer = decode_first_answer(frame);
    HRESULT result = 0;
    if (answer.cmd != static_cast<int>(cmd)) {
        rejectAnswer(out, "input->cmd == proc->extItemSAM.cmd");
    } else if (handling_of(cmd) == Handling::ResultOnly) {
        TLOG_DEBUG("SAM > input command: %d, return result: %d", static_cast<int>(cmd),
                   answer.samResult);
        out->result = answer.samResult == 0 ? 0 : kResultSamFailed;
    } else if (answer.samResult != 0) {
        out->result = answer.samResult == 1 ? kResultSamBusy : kResultSamFailed;
    } else {
        result = receivePacket(impl, cmd, answer, frame, out);
    }
    impl.RecoveryMarker();
    return result;
}

void CardCodes::Wipe() {
    wipe(sex);
    wipe(nation);
}

HRESULT read_card(TarvikImpl& impl, const _SAM_IN_PARAM* in, _SAM_OUT_PARAM* out,
                  CardCodes* codes) {
    auto* request = const_cast<_SAM_IN_PARAM*>(in);
    t_cardCodes = codes;
    HRESULT r = impl.ReadByExtItem(EXT_ITEM_SAM, request, out);
    if (r != 0) r = impl.RetryReadByExtCmd(EXT_ITEM_SAM, request, out);
    t_cardCodes = nullptr;
    return r;
}

void wipe(_SAM_OUT_PARAM& out) { wipe(&out, sizeof out); }

}  // namespace tarvik::sam

HRESULT TarvikImpl::SamCmdTransfer(_SAM_CMD_E cmd, uvc_extItem_SAM_E& wireCmd) {
    if (tarvik::sam::handling_of(static_cast<unsigned>(cmd)) == tarvik::sam::Handling::Invalid) {
        return tarvik::sam::kInvalidCommand;
    }
    wireCmd = static_cast<uvc_extItem_SAM_E>(cmd);
    return 0;
}
