// libTarvik: control of the dual-eye USB camera (0x0AC8:0x010C) through its
// vendor extension unit. Applications get one libTarvik object from
// zq_CreateTarvik and give it back with zq_ReleaseTarvik.
//
// ABI: the slot order of libTarvik, the record layouts and the factory names
// are fixed; applications built against them link and run unchanged.
#ifndef TARVIK_LIBTARVIK_H
#define TARVIK_LIBTARVIK_H

#include <wchar.h>

#include "tarvik_export.h"

struct libusb_device_handle;

// Result of every operation: 0 on success. Messages print it as "hr=0x%x".
typedef int HRESULT;

// ---------------------------------------------------------------------------
// Records read and written by the operations. The application allocates them;
// the library fills or reads them during the call and keeps no reference.
// Values are delivered as the camera sent them; the library gives them no
// meaning of its own.
// ---------------------------------------------------------------------------

// Firmware version block.
struct _VERSION_PARAM {
    unsigned char version[56];
};

// MJPEG quantisation parameters, four values in the camera's order.
struct _MJPEG_QP_PARAM {
    int qp[4];
};

// Region of interest, four values in the camera's order.
struct _ROI_PARAM {
    int roi[4];
};

struct _DEVICE_ID_PARAM {
    unsigned char id[20];
};

struct _DEVICE_SN_PARAM {
    unsigned char sn[20];
};

// Which lens-motor value zq_ReadVCM asks for. The camera defines the values;
// the request carries the low byte. Any 32-bit value may be cast to it.
enum _VCM_MODE_E : int {
    VCM_MODE_0 = 0,
};

// Two GPIO values, sent in order.
struct _GPIO_PARAM {
    int gpio[2];
};

// Lens voice-coil motor setting.
struct _VCM_PARAM {
    unsigned char ctrl0;  // sent unchanged
    unsigned char ctrl1;  // sent unchanged
    unsigned short value;
    _VCM_MODE_E mode;  // only the low byte is sent
};

// One eye's exposure block.
struct _ET_PARAM {
    unsigned int et;     // exposure time
    unsigned int etMax;  // largest time zq_WriteManualAE accepts
    unsigned int etMin;  // smallest time zq_WriteManualAE accepts
    unsigned short extra;
    // flags[2]: what a write sets (0 the time, 1 the mode);
    // flags[4]: the exposure mode, 1 = manual. The others pass through.
    unsigned char flags[8];
};

// Exposure of both eyes, left first.
struct _DUAL_ET_PARAM {
    _ET_PARAM left;
    _ET_PARAM right;
};

struct _MAE_PARAM {
    unsigned int leftEt;
    unsigned int rightEt;
};

struct _DUAL_ET_RANGE {
    unsigned int leftMax;
    unsigned int leftMin;
    unsigned int rightMax;
    unsigned int rightMin;
};

// Exposure modes; 1 is manual exposure.
struct _DUAL_ET_MODE {
    int leftMode;
    int rightMode;
};

// Tilt in whole degrees, each between -90 and 90.
struct _GYRO_PARAM {
    int pitch;
    int roll;
};

// Commands of the secure access module (SAM). 5 is not a command. The fixed
// underlying type lets any byte an application passes be held and refused.
enum _SAM_CMD_E : int {
    SAM_CMD_0 = 0,
    SAM_CMD_1 = 1,
    SAM_CMD_READ_NUMBER = 2,      // delivers `number`
    SAM_CMD_READ_CARD = 3,        // text fields and photo
    SAM_CMD_READ_CARD_THIRD = 4,  // text fields, photo and the third block
    SAM_CMD_6 = 6,                // device result only
    SAM_CMD_7 = 7,                // device result only
};

struct _SAM_IN_PARAM {
    unsigned char cmd;  // a _SAM_CMD_E value
};

// Result of a SAM command. Text fields are zero-terminated wide strings.
struct _SAM_OUT_PARAM {
    int result;  // the SAM's verdict (0 or 1 success; see the documentation)
    union {
        wchar_t name[30];
        unsigned char number[16];  // command 2
    };
    wchar_t sex[16];
    wchar_t nation[16];
    wchar_t birth[16];
    wchar_t address[70];
    wchar_t id_number[36];
    wchar_t authority[30];
    wchar_t valid_from[16];
    wchar_t valid_to[16];
    wchar_t reserved[36];
    unsigned char photo[1024];
    unsigned char fingerprint[1024];  // command 4: the third block
};

// LED setting (item 15).
struct _LED_CONTROL_PARAM {
    unsigned int state;     // 0 sets bit 4 of the mode byte
    unsigned int mode;      // the low 4 bits of its first byte are sent
    unsigned int param[6];  // sent in order
};

// Status-LED setting (item 4): two values sent in order.
struct _STATUS_LED_PARAM {
    unsigned int led;
    unsigned int state;
};

// I2C access record (the I2C members are not provided by this camera).
struct _I2C_PARAM {
    unsigned char bus;
    unsigned char address;
    unsigned short reg;
    unsigned int length;
    unsigned char data[48];
};

// ---------------------------------------------------------------------------
// The interface. Slot order is part of the ABI.
// ---------------------------------------------------------------------------
// clang-format off
class libTarvik {
public:
    virtual HRESULT zq_ReadVersion(_VERSION_PARAM* param) = 0;                     // 0
    virtual HRESULT zq_ReadManualAE(_MAE_PARAM* param) = 0;                        // 1
    virtual HRESULT zq_WriteManualAE(const _MAE_PARAM& param) = 0;                 // 2
    virtual HRESULT zq_ReadMJpegQp(_MJPEG_QP_PARAM* param) = 0;                    // 3
    virtual HRESULT zq_WriteMJpegQp(const _MJPEG_QP_PARAM& param) = 0;             // 4
    virtual HRESULT zq_ReadGyro(_GYRO_PARAM* param) = 0;                           // 5
    virtual HRESULT zq_ReadRoiStatus(unsigned int* status) = 0;                    // 6
    virtual HRESULT zq_ReadROI(_ROI_PARAM* param) = 0;                             // 7
    virtual HRESULT zq_WriteROI(const _ROI_PARAM& param) = 0;                      // 8
    virtual HRESULT zq_ReadDeviceId(_DEVICE_ID_PARAM* param) = 0;                  // 9
    virtual HRESULT zq_WriteDeviceId(const _DEVICE_ID_PARAM& param) = 0;           // 10
    virtual HRESULT zq_ReadDeviceSn(_DEVICE_SN_PARAM* param) = 0;                  // 11
    virtual HRESULT zq_WriteDeviceSn(const _DEVICE_SN_PARAM& param) = 0;           // 12
    virtual HRESULT zq_ReadETRange(_DUAL_ET_RANGE* param) = 0;                     // 13
    virtual HRESULT zq_ReadETMode(_DUAL_ET_MODE* param) = 0;                       // 14
    virtual HRESULT zq_WriteETMode(const _DUAL_ET_MODE& param) = 0;                // 15
    virtual HRESULT zq_WriteGpio(const _GPIO_PARAM& param) = 0;                    // 16
    virtual HRESULT zq_WriteVCM(const _VCM_PARAM& param) = 0;                      // 17
    virtual HRESULT zq_ReadVCM(_VCM_MODE_E mode, unsigned short* value) = 0;       // 18
    virtual HRESULT zq_ReadProductType(int* productType) = 0;                      // 19
    virtual HRESULT zq_ReadAutoFocusState(unsigned char* state) = 0;               // 20
    virtual ~libTarvik() {}                                                        // 21
};
// clang-format on

extern "C" {
// Opens the camera (outerHandle null; bus/deviceAddress select it, -1 in
// either means the first camera found) or adopts the application's handle,
// which stays the application's. Returns null when the camera can't be opened.
// TARVIK_TRANSPORT=kernel in the environment opens it through the kernel's
// video driver instead of libusb, and =auto does so when that driver holds it.
TARVIK_API libTarvik* zq_CreateTarvik(libusb_device_handle* outerHandle, int bus,
                                      int deviceAddress);

// Destroys an object made by zq_CreateTarvik; null is ignored.
TARVIK_API void zq_ReleaseTarvik(libTarvik* plugin);

// Opens the camera through the kernel's video driver, on its capture node
// ("/dev/videoN"; null: the first camera's), so that video keeps streaming.
// Returns null when that node is not the camera's capture node or can't be
// opened. Give the object back with zq_ReleaseTarvik.
TARVIK_API libTarvik* zq_CreateTarvikOnVideo(const char* videoNode);
}

#endif
