#include "camera_model.h"

#include <algorithm>

#include "byte_order.h"
#include "sam_answer.h"

namespace tarvik::sim {

const char* ToString(TransferStatus status) {
    switch (status) {
        case TransferStatus::kCompleted:
            return "completed";
        case TransferStatus::kStalled:
            return "stalled";
        case TransferStatus::kNoDevice:
            return "no device";
        case TransferStatus::kDiscarded:
            return "discarded";
    }
    return "?";
}

namespace {

constexpr size_t kDataBlockMax = 48;
constexpr uint8_t kSamNoCard = 0x80;    // status word 3: no card in the reader's field
constexpr uint8_t kIgnoredFill = 0xEE;  // answer bytes that no reader should take

Reply Stall() {
    Reply r;
    r.status = TransferStatus::kStalled;
    return r;
}

Reply DataReply(std::vector<uint8_t> data) {
    Reply r;
    r.actualLength = data.size();
    r.data = std::move(data);
    return r;
}

template <size_t N>
void PutWords(uint8_t* at, const std::array<uint32_t, N>& words) {
    for (size_t i = 0; i < N; ++i) PutLe32(at + 4 * i, words[i]);
}

template <size_t N>
void GetWords(const uint8_t* at, std::array<uint32_t, N>& words) {
    for (size_t i = 0; i < N; ++i) words[i] = GetLe32(at + 4 * i);
}

// What a control reports for its range: a UVC tool asks before it reads or writes one.
std::vector<uint8_t> RangeValue(uint8_t request, size_t length) {
    std::vector<uint8_t> value(length, request == kGetMax ? 0xFF : 0x00);
    if (request == kGetRes) value[0] = 1;
    return value;
}

// Whether a transfer belongs to the read transaction of `item` (see Fault::item).
bool OfItem(int item, const SetupPacket& s, const std::vector<uint8_t>& out, uint32_t answering) {
    if (s.selector() != kSelectorChannel) return false;
    if (s.bRequest == kGetCur) return answering == static_cast<uint32_t>(item);
    const bool readRequest =
        s.bRequest == kSetCur && out.size() == kFrameLength && (GetLe16(out.data()) & 0x0FFF) == 0;
    return readRequest && GetLe32(out.data() + 4) == static_cast<uint32_t>(item);
}

bool Matches(const Fault& f, const SetupPacket& s, const std::vector<uint8_t>& out,
             uint32_t answering) {
    if (f.item != kAnyItem && !OfItem(f.item, s, out, answering)) return false;
    if (f.selector != kAnySelector && f.selector != s.selector()) return false;
    if (f.request != kAnyRequest && f.request != s.bRequest) return false;
    if (f.direction == Direction::kIn && !s.isIn()) return false;
    if (f.direction == Direction::kOut && s.isIn()) return false;
    return true;
}

}  // namespace

CameraModel::CameraModel() : CameraModel(DefaultCameraState()) {}
CameraModel::CameraModel(CameraState initial) : m_state(initial), m_powerOn(std::move(initial)) {}

uint16_t CameraModel::ControlLength(uint8_t selector) {
    switch (selector) {
        case kSelectorMarker:
            return kMarkerLength;
        case 2:
            return 4;
        case 3:
            return 2;
        case 4:
            return 16;
        case kSelectorChannel:
            return kFrameLength;
        default:
            return 0;
    }
}

CameraState CameraModel::State() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

void CameraModel::Update(const std::function<void(CameraState&)>& change) {
    std::lock_guard<std::mutex> lock(m_mutex);
    change(m_state);
}

void CameraModel::InjectFault(const Fault& fault) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (fault.count > 0) m_faults.push_back({fault, fault.skip, fault.count});
}

void CameraModel::InjectSamFault(SamFault fault, int count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (count > 0) m_samFaults.emplace_back(fault, count);
}

void CameraModel::InjectZeroGyro(int count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_zeroGyro += std::max(count, 0);
}

void CameraModel::ClearFaults() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.clear();
    m_samFaults.clear();
    m_zeroGyro = 0;
    m_gone = false;
}

bool CameraModel::Gone() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_gone;
}

void CameraModel::Unplug() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_gone = true;
}

void CameraModel::PowerCycle() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_gone = false;
    m_pending = PendingAnswer{};
    m_answering = 0;
    m_state.et = m_powerOn.et;
    m_state.mjpegQp = m_powerOn.mjpegQp;
    m_state.roi = m_powerOn.roi;
    m_state.gpio = m_powerOn.gpio;
    m_state.vcm = m_powerOn.vcm;
    m_state.marker = m_powerOn.marker;
}

void CameraModel::QueueAnswer(std::vector<Frame> frames) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scripted.push_back(std::move(frames));
}

bool CameraModel::MatchFault(const SetupPacket& setup, const std::vector<uint8_t>& out,
                             Fault& hit) {
    for (auto it = m_faults.begin(); it != m_faults.end(); ++it) {
        if (!Matches(it->fault, setup, out, m_answering)) continue;
        if (it->skipLeft > 0) {
            --it->skipLeft;
            continue;
        }
        hit = it->fault;
        if (--it->hitsLeft == 0) m_faults.erase(it);
        return true;
    }
    return false;
}

std::vector<uint8_t> CameraModel::Garbage(size_t n) {
    std::vector<uint8_t> out(n);
    for (auto& b : out) {  // xorshift32: reproducible noise
        m_garbageSeed ^= m_garbageSeed << 13;
        m_garbageSeed ^= m_garbageSeed >> 17;
        m_garbageSeed ^= m_garbageSeed << 5;
        b = static_cast<uint8_t>(m_garbageSeed);
    }
    return out;
}

Reply CameraModel::Handle(const SetupPacket& setup, const std::vector<uint8_t>& out) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_gone) {
        Reply r;
        r.status = TransferStatus::kNoDevice;
        r.goneForGood = true;
        return r;
    }
    Fault fault;
    if (!MatchFault(setup, out, fault)) return HandleLocked(setup, out);

    Reply r;
    switch (fault.kind) {
        case FaultKind::kStall:
            return Stall();
        case FaultKind::kGoneForGood:
            m_gone = true;
            r.goneForGood = true;
            [[fallthrough]];
        case FaultKind::kGone:
            r.status = TransferStatus::kNoDevice;
            return r;
        case FaultKind::kShort: {
            const size_t moved = setup.wLength - std::min<size_t>(setup.wLength, fault.shortBy);
            if (!setup.isIn()) {
                r.actualLength = moved;  // the camera got part of a request: it ignores it
                return r;
            }
            r = HandleLocked(setup, out);
            if (r.status == TransferStatus::kCompleted && r.data.size() > moved) {
                r.data.resize(moved);
                r.actualLength = moved;
            }
            return r;
        }
        case FaultKind::kDelay:
            r = HandleLocked(setup, out);
            r.delay = fault.delay;
            return r;
        case FaultKind::kGarbage:
            r = HandleLocked(setup, out);
            if (setup.isIn() && r.status == TransferStatus::kCompleted) {
                r.data = Garbage(setup.wLength);
                r.actualLength = r.data.size();
            }
            return r;
    }
    return Stall();
}

Reply CameraModel::HandleLocked(const SetupPacket& setup, const std::vector<uint8_t>& out) {
    const uint8_t selector = setup.selector();
    const uint16_t length = ControlLength(selector);
    const uint8_t expectedType = setup.isIn() ? kRequestTypeIn : kRequestTypeOut;
    if (setup.wIndex != kUnitIndex || (setup.wValue & 0xFF) != 0 || length == 0 ||
        setup.bmRequestType != expectedType) {
        return Stall();
    }
    switch (setup.bRequest) {
        case kGetLen: {
            std::vector<uint8_t> answer = {static_cast<uint8_t>(length & 0xFF),
                                           static_cast<uint8_t>(length >> 8)};
            answer.resize(std::min<size_t>(answer.size(), setup.wLength));
            return DataReply(answer);
        }
        case kGetInfo:
            return setup.wLength >= 1 ? DataReply({0x03}) : Stall();
        case kGetMin:
        case kGetMax:
        case kGetRes:
        case kGetDef:
            return setup.wLength == length ? DataReply(RangeValue(setup.bRequest, length))
                                           : Stall();
        case kGetCur:
            if (!setup.isIn() || setup.wLength != length) return Stall();
            if (selector == kSelectorChannel) return HandleChannelGet();
            if (selector == kSelectorMarker) {
                return DataReply({m_state.marker.begin(), m_state.marker.end()});
            }
            return DataReply(m_state.plainControls[selector]);
        case kSetCur: {
            if (setup.isIn() || setup.wLength != length || out.size() != length) return Stall();
            if (selector == kSelectorChannel) {
                Frame frame{};
                std::copy(out.begin(), out.end(), frame.begin());
                HandleChannelSet(frame);
            } else if (selector == kSelectorMarker) {
                std::copy(out.begin(), out.end(), m_state.marker.begin());
                ++m_state.markerWrites;
            } else {
                m_state.plainControls[selector] = out;
            }
            Reply r;
            r.actualLength = length;
            return r;
        }
        default:
            return Stall();
    }
}

Reply CameraModel::HandleChannelGet() {
    if (m_pending.frames.empty()) return DataReply(std::vector<uint8_t>(kFrameLength, 0));
    const bool continuation = !m_pending.first;
    m_pending.first = false;
    if (continuation && m_pending.goneAtContinuation) {
        m_pending = PendingAnswer{};
        Reply r;
        r.status = TransferStatus::kNoDevice;
        return r;
    }
    Frame f = m_pending.frames.front();
    m_pending.frames.pop_front();
    return DataReply({f.begin(), f.end()});
}

void CameraModel::HandleChannelSet(const Frame& frame) {
    const uint16_t item = GetLe16(frame.data()) & 0x0FFF;
    m_pending = PendingAnswer{};
    m_answering = item == 0 ? GetLe32(frame.data() + 4) : 0;
    if (item != 0) {
        HandleWrite(item, frame);
        return;
    }
    if (!m_scripted.empty()) {
        m_pending.frames.assign(m_scripted.front().begin(), m_scripted.front().end());
        m_scripted.pop_front();
        return;
    }
    m_pending = AnswerRead(frame);
}

void CameraModel::HandleWrite(uint16_t item, const Frame& f) {
    CameraState& s = m_state;
    const uint8_t* p = f.data();
    switch (item) {
        case kItemEt:
            std::copy(p + 4, p + 26, s.et[0].begin());
            std::copy(p + 32, p + 54, s.et[1].begin());
            break;
        case kItemMjpegQp:
            GetWords(p + 4, s.mjpegQp);
            break;
        case kItemBeep:
            s.beep = GetLe32(p + 4);
            break;
        case kItemStatusLed:
            GetWords(p + 4, s.statusLed);
            break;
        case kItemRoi:
            GetWords(p + 4, s.roi);
            break;
        case kItemDeviceSn:
            std::copy(p + 4, p + 24, s.deviceSn.begin());
            break;
        case kItemDeviceId:
            std::copy(p + 4, p + 24, s.deviceId.begin());
            break;
        case kItemDataBlock: {
            s.lastId = GetLe16(p + 2);
            const size_t n = std::min<size_t>(p[5], kDataBlockMax);
            const uint32_t offset = GetLe16(p + 6);
            for (size_t i = 0; i < n; ++i) s.dataMemory[{p[4], offset + i}] = p[8 + i];
            break;
        }
        case kItemUvcMode:
            s.uvcMode = GetLe32(p + 4);
            break;
        case kItemLed:
            std::copy(p + 4, p + 30, s.led.begin());
            break;
        case kItemGpio:
            GetWords(p + 4, s.gpio);
            break;
        case kItemVcm:
            s.vcm[p[8]] = VcmEntry{p[4], p[5], GetLe16(p + 6)};
            break;
        default:  // the SAM header and items that cannot be written: nothing to do
            break;
    }
}

CameraModel::PendingAnswer CameraModel::AnswerRead(const Frame& request) {
    const uint32_t item = GetLe32(request.data() + 4);
    if (item == kItemSam) return AnswerSam(request);

    const CameraState& s = m_state;
    Frame a{};
    std::copy(request.begin(), request.begin() + 4, a.begin());
    uint8_t* p = a.data();
    switch (item) {
        case kItemEt:
            std::fill(p + 4, p + 60, kIgnoredFill);
            std::copy(s.et[0].begin(), s.et[0].end(), p + 4);
            std::copy(s.et[1].begin(), s.et[1].end(), p + 32);
            break;
        case kItemMjpegQp:
            PutWords(p + 4, s.mjpegQp);
            break;
        case kItemVersion:
            std::copy(s.version.begin(), s.version.end(), p + 4);
            break;
        case kItemRoi:
            PutWords(p + 4, s.roi);
            break;
        case kItemRoiStatus:
            PutLe32(p + 4, s.roiStatus);
            break;
        case kItemDeviceSn:
            std::copy(s.deviceSn.begin(), s.deviceSn.end(), p + 4);
            break;
        case kItemDeviceId:
            std::copy(s.deviceId.begin(), s.deviceId.end(), p + 4);
            break;
        case kItemDataBlock: {
            // Always 48 bytes of memory from `offset`, whatever length was asked, so that a
            // reader that takes more than it asked for shows.
            m_state.lastId = GetLe16(request.data() + 2);
            const uint8_t target = request[8];
            const uint32_t offset = GetLe16(request.data() + 10);
            std::copy(request.begin() + 8, request.begin() + 12, p + 4);
            for (size_t i = 0; i < kDataBlockMax; ++i) {
                auto it = s.dataMemory.find({target, offset + i});
                p[8 + i] =
                    it != s.dataMemory.end() ? it->second : DefaultDataByte(target, offset + i);
            }
            break;
        }
        case kItemStreamState:
            PutLe32(p + 4, s.streamCode | (static_cast<uint32_t>(s.streamUnusedBits) << 16) |
                               (static_cast<uint32_t>(s.autofocusState) << 24));
            break;
        case kItemLastId:
            PutLe16(p + 4, s.lastId);
            break;
        case kItemGyro:
            if (m_zeroGyro > 0) {
                --m_zeroGyro;
            } else {
                std::copy(s.gyro.begin(), s.gyro.end(), p + 4);
            }
            break;
        case kItemVcm: {
            const uint8_t mode = request[8];
            auto it = s.vcm.find(mode);
            const VcmEntry e = it != s.vcm.end() ? it->second : DefaultVcm(mode);
            p[4] = e.lead0;
            p[5] = e.lead1;
            PutLe16(p + 6, e.value);
            p[8] = mode;
            break;
        }
        default:  // no such readable item: header echo and zeros
            break;
    }
    PendingAnswer answer;
    answer.frames.push_back(a);
    return answer;
}

CameraModel::PendingAnswer CameraModel::AnswerSam(const Frame& request) {
    const SamState& sam = m_state.sam;
    const uint16_t command = GetLe16(request.data() + 8);
    int16_t echo = static_cast<int16_t>(command);
    std::optional<uint16_t> dataLen = sam.dataLen;
    bool badChecksum = false;
    PendingAnswer answer;
    for (auto it = m_samFaults.begin(); it != m_samFaults.end();) {
        switch (it->first) {
            case SamFault::kWrongEcho:
                echo = static_cast<int16_t>(command + 1);
                break;
            case SamFault::kBadChecksum:
                badChecksum = true;
                break;
            case SamFault::kOversize:
                dataLen = 5000;
                break;
            case SamFault::kGoneMidPacket:
                answer.goneAtContinuation = true;
                break;
        }
        it = --it->second == 0 ? m_samFaults.erase(it) : it + 1;
    }

    std::vector<uint8_t> packet;
    int16_t result = sam.samResult;
    if (command == 6 || command == 7) {
        auto it = sam.resultOfCommand.find(static_cast<uint8_t>(command));
        if (it != sam.resultOfCommand.end()) result = it->second;
    } else if (command > 4) {
        result = -1;  // the SAM knows no such command
    } else if (result == 0) {
        // Command 2 asks the SAM its own number: it answers that with or without a card.
        packet = !sam.cardPresent && command != 2
                     ? BuildSamPacket(0x00, 0x00, kSamNoCard, {}, dataLen)
                     : BuildSamPacket(sam.sw1, sam.sw2, sam.sw3,
                                      SamCommandData(static_cast<uint8_t>(command), sam), dataLen);
        if (badChecksum) packet.back() ^= 0x5A;
    }
    for (const Frame& f : SamAnswerFrames(request.data(), echo, result, packet)) {
        answer.frames.push_back(f);
    }
    return answer;
}

}  // namespace tarvik::sim
