// The simulated camera's extension unit: a plain C++ model of the device side of the wire,
// written from the wire description alone. No USB stack is involved: the bridge hands it each
// control transfer (setup packet and OUT data) and returns its reply to the host.
//
// Unit 5 on interface 0 (wIndex 0x0500) answers GET_CUR (0x81), SET_CUR (0x01), GET_LEN (0x85,
// two bytes little-endian), GET_INFO (0x86: get and set supported) and, as every UVC control
// does, the range requests GET_MIN (0x82, zeros), GET_MAX (0x83, all bits set), GET_RES
// (0x84, 1) and GET_DEF (0x87, zeros) on these selectors:
//   1   8 bytes   the marker; SET_CUR stores it (and counts), GET_CUR returns the last one
//   2   4 bytes   plain control
//   3   2 bytes   plain control, shorter than a 32-bit value
//   4  16 bytes   plain control
//   14 60 bytes   the transaction channel
// Anything else (another unit, selector or request, or a wLength that is not the control's
// length) stalls, as a UVC device does.
//
// Selector 14: a SET_CUR whose header has item bits 0-11 at 0 is a read request; its answer
// frames are queued and the following GET_CURs return them one by one. Any other SET_CUR is a
// write request and is acted on at once (it also drops answers still queued). A GET_CUR with
// no queued answer returns 60 zero bytes. Answer frames echo the request's header at bytes 0-3.
//
// Thread-safe: every public member locks the model.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "byte_order.h"
#include "camera_state.h"
#include "control_transfer.h"
#include "faults.h"

namespace tarvik::sim {

class CameraModel {
public:
    CameraModel();
    explicit CameraModel(CameraState initial);

    // One control transfer. `out` holds the host's data for an OUT transfer (wLength bytes).
    Reply Handle(const SetupPacket& setup, const std::vector<uint8_t>& out);

    // A copy of the current state, and an atomic change of it.
    CameraState State() const;
    void Update(const std::function<void(CameraState&)>& change);

    // Faults (see faults.h). Faults are matched in the order injected; the first that matches a
    // transfer applies to it.
    void InjectFault(const Fault& fault);
    void InjectSamFault(SamFault fault, int count = 1);
    // The next `count` gyro reads answer an all-zero sample.
    void InjectZeroGyro(int count = 1);
    void ClearFaults();
    // Whether the camera is gone for good (after a kGoneForGood fault, or Unplug).
    bool Gone() const;
    // Gone for good from now on: every request fails with ENODEV.
    void Unplug();
    // Plugged in again after an unplug: the camera answers again, with what a power cycle
    // leaves. The volatile items (exposure, MJPEG quantisation, ROI, GPIO, lens motor) and the
    // marker are back at the values the camera was made with, and an answer half fetched is
    // dropped; the device id, the serial, the card on the reader and everything else stay.
    // Injected faults stay too: they belong to the test, not to the camera.
    void PowerCycle();

    // The next read request on selector 14 is answered with exactly these frames (each GET_CUR
    // returns the next one), whatever it asks. Calls queue further scripted answers.
    void QueueAnswer(std::vector<Frame> frames);

    // Control lengths, as GET_LEN answers them; 0 for selectors the unit does not have.
    static uint16_t ControlLength(uint8_t selector);

private:
    struct ArmedFault {
        Fault fault;
        int skipLeft;
        int hitsLeft;
    };
    struct PendingAnswer {
        std::deque<Frame> frames;
        bool goneAtContinuation = false;
        bool first = true;
    };

    Reply HandleLocked(const SetupPacket& setup, const std::vector<uint8_t>& out);
    Reply HandleChannelGet();
    void HandleChannelSet(const Frame& frame);
    void HandleWrite(uint16_t item, const Frame& frame);
    PendingAnswer AnswerRead(const Frame& request);
    PendingAnswer AnswerSam(const Frame& request);
    bool MatchFault(const SetupPacket& setup, const std::vector<uint8_t>& out, Fault& hit);
    std::vector<uint8_t> Garbage(size_t n);

    mutable std::mutex m_mutex;
    CameraState m_state;
    const CameraState m_powerOn;  // what PowerCycle brings the volatile items back to
    PendingAnswer m_pending;
    uint32_t m_answering = 0;  // the item whose answer the next GET_CURs fetch
    std::deque<std::vector<Frame>> m_scripted;
    std::vector<ArmedFault> m_faults;
    std::vector<std::pair<SamFault, int>> m_samFaults;
    int m_zeroGyro = 0;
    bool m_gone = false;
    uint32_t m_garbageSeed = 0x2545F491;
};

}  // namespace tarvik::sim
