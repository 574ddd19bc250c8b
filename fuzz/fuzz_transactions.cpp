// Every transaction of the library against a camera that answers anything:
// the first input byte chooses the call, the second its item or command, the
// rest is the camera's script (scripted_camera.h). Records are heap blocks of
// exactly their size, so a byte past one is caught. Beyond that: only
// documented results, nothing delivered from a rejected SAM packet, and card
// fields that end inside their arrays.
#include <algorithm>
#include <cstring>
#include <cwchar>
#include <memory>
#include <vector>

#include "scripted_camera.h"

using tarvik::fuzz::Documented;

namespace {

constexpr unsigned char kPoison = 0xCD;

// The bytes each item's record has when read and when written (0: none).
constexpr std::size_t kReadSize[] = {0,  48, 16, 0, 0, 56, 16, 4, 20, 20,
                                     52, 0,  0,  4, 2, 0,  14, 0, 2};
constexpr std::size_t kWriteSize[] = {0,  48, 16, 4, 8, 0,  16, 0, 20, 20,
                                      52, 4,  1,  0, 0, 32, 0,  8, 8};

std::vector<unsigned char> Block(std::size_t size) {
    return std::vector<unsigned char>(size, kPoison);
}

template <std::size_t N>
bool Ends(const wchar_t (&field)[N]) {
    return wcsnlen(field, N) < N;
}

void Sam(TarvikImpl& t, unsigned char cmd) {
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    std::memset(out.get(), kPoison, sizeof *out);
    _SAM_IN_PARAM in{cmd};
    FUZZ_CHECK(Documented(t.ReadByExtItem(EXT_ITEM_SAM, &in, out.get())));
    const auto* p = reinterpret_cast<const unsigned char*>(out.get()) + sizeof out->result;
    const std::size_t rest = sizeof *out - sizeof out->result;
    if (out->result != 0 && out->result != 1) {
        // A failed or rejected answer delivers nothing but its result.
        const bool zero = std::all_of(p, p + rest, [](unsigned char b) { return b == 0; });
        const bool untouched =
            std::all_of(p, p + rest, [](unsigned char b) { return b == kPoison; });
        FUZZ_CHECK(zero || untouched);
    } else if (cmd == 3 || cmd == 4) {
        FUZZ_CHECK(Ends(out->name) && Ends(out->sex) && Ends(out->nation) && Ends(out->birth) &&
                   Ends(out->address) && Ends(out->id_number) && Ends(out->authority) &&
                   Ends(out->valid_from) && Ends(out->valid_to) && Ends(out->reserved));
    }
}

// Item 12 takes SAM records: Sam() reads it.
void Read(TarvikImpl& t, unsigned item) {
    if (item == EXT_ITEM_SAM) return;
    const std::size_t size = item < std::size(kReadSize) ? kReadSize[item] : 0;
    std::vector<unsigned char> input = Block(std::max<std::size_t>(size, 1));
    std::vector<unsigned char> output = Block(std::max<std::size_t>(size, 1));
    const auto it = static_cast<UVC_EXT_ITEM_E>(item);
    FUZZ_CHECK(Documented(t.ReadByExtItem(it, input.data(), output.data())));
    FUZZ_CHECK(Documented(t.RetryReadByExtCmd(it, input.data(), output.data())));
}

void Write(TarvikImpl& t, unsigned item) {
    const std::size_t size = item < std::size(kWriteSize) ? kWriteSize[item] : 0;
    std::vector<unsigned char> record = Block(std::max<std::size_t>(size, 1));
    FUZZ_CHECK(Documented(t.WriteByExtItem(static_cast<UVC_EXT_ITEM_E>(item), record.data())));
}

// The operations, each on records of their own.
void Operation(TarvikImpl& t, unsigned which, unsigned char arg) {
    _VERSION_PARAM version;
    _MJPEG_QP_PARAM qp;
    _GYRO_PARAM gyro;
    unsigned int value = 0;
    unsigned short vcm = 0;
    unsigned char state = 0;
    short lastId = 0;
    HRESULT r = 0;
    switch (which % 8) {
        case 0:
            r = t.zq_ReadVersion(&version);
            break;
        case 1:
            r = t.zq_ReadMJpegQp(&qp);
            break;
        case 2:
            r = t.zq_ReadGyro(&gyro);
            break;
        case 3:
            r = t.zq_ReadRoiStatus(&value);
            break;
        case 4:
            r = t.zq_ReadVCM(static_cast<_VCM_MODE_E>(arg), &vcm);
            break;
        case 5:
            r = t.zq_ReadAutoFocusState(&state);
            break;
        case 6:
            r = t.ReadStreamState(&value);
            break;
        default:
            r = t.ReadLastId(&lastId);
            break;
    }
    FUZZ_CHECK(Documented(r));
    if (which % 8 == 2 && r == 0) {
        FUZZ_CHECK(gyro.pitch >= -90 && gyro.pitch <= 90 && gyro.roll >= -90 && gyro.roll <= 90);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    std::unique_ptr<TarvikImpl> t = tarvik::fuzz::ScriptedCamera(data + 2, size - 2);
    switch (data[0] % 4) {
        case 0:
            Sam(*t, data[1]);
            break;
        case 1:
            Read(*t, data[1] % 24);
            break;
        case 2:
            Write(*t, data[1] % 24);
            break;
        default:
            Operation(*t, data[0] / 4, data[1]);
            break;
    }
    return 0;
}
