// The one implementation of libTarvik. Applications may call its public
// members beyond the interface (ReadByExtItem for identity cards,
// ReadStreamState, ...). Data members are part of the ABI: their order is
// fixed; the library's own state beyond them sits behind one pointer after
// the last.
#ifndef TARVIK_TARVIKIMPL_H
#define TARVIK_TARVIKIMPL_H

#include <libusb.h>

#include <atomic>
#include <vector>

#include "libTarvik.h"
#include "tarvik_export.h"
#include "tarvik_items.h"
#include "wNewMutex.h"

// One accepted USB device.
struct pm_usb_device_desc {
    unsigned short vid;
    unsigned short pid;
};

// Lists devices (vendor:product, bus, address) for diagnosis.
TARVIK_API void print_devs(libusb_device** list);

namespace tarvik {
class TarvikPrivate;
}

class TARVIK_API TarvikImpl : public libTarvik {
public:
    TarvikImpl();
    explicit TarvikImpl(libusb_device_handle* handle);
    ~TarvikImpl() override;

    TarvikImpl(const TarvikImpl&) = delete;
    TarvikImpl& operator=(const TarvikImpl&) = delete;

    // --- the interface ---
    HRESULT zq_ReadVersion(_VERSION_PARAM* param) override;
    HRESULT zq_ReadManualAE(_MAE_PARAM* param) override;
    HRESULT zq_WriteManualAE(const _MAE_PARAM& param) override;
    HRESULT zq_ReadMJpegQp(_MJPEG_QP_PARAM* param) override;
    HRESULT zq_WriteMJpegQp(const _MJPEG_QP_PARAM& param) override;
    HRESULT zq_ReadGyro(_GYRO_PARAM* param) override;
    HRESULT zq_ReadRoiStatus(unsigned int* status) override;
    HRESULT zq_ReadROI(_ROI_PARAM* param) override;
    HRESULT zq_WriteROI(const _ROI_PARAM& param) override;
    HRESULT zq_ReadDeviceId(_DEVICE_ID_PARAM* param) override;
    HRESULT zq_WriteDeviceId(const _DEVICE_ID_PARAM& param) override;
    HRESULT zq_ReadDeviceSn(_DEVICE_SN_PARAM* param) override;
    HRESULT zq_WriteDeviceSn(const _DEVICE_SN_PARAM& param) override;
    HRESULT zq_ReadETRange(_DUAL_ET_RANGE* param) override;
    HRESULT zq_ReadETMode(_DUAL_ET_MODE* param) override;
    HRESULT zq_WriteETMode(const _DUAL_ET_MODE& param) override;
    HRESULT zq_WriteGpio(const _GPIO_PARAM& param) override;
    HRESULT zq_WriteVCM(const _VCM_PARAM& param) override;
    HRESULT zq_ReadVCM(_VCM_MODE_E mode, unsigned short* value) override;
    HRESULT zq_ReadProductType(int* productType) override;
    HRESULT zq_ReadAutoFocusState(unsigned char* state) override;

    // --- members this camera does not provide: fixed result -2, nothing sent ---
    HRESULT zq_WriteBeep(unsigned int value);
    HRESULT zq_WriteLed(const _LED_CONTROL_PARAM& param);
    HRESULT zq_WriteStatusLed(const _STATUS_LED_PARAM& param);
    HRESULT zq_ReadI2C(_I2C_PARAM* param);
    HRESULT zq_WriteI2C(const _I2C_PARAM& param);
    HRESULT zq_ReadSAM(const _SAM_IN_PARAM* in, _SAM_OUT_PARAM* out);
    HRESULT zq_WriteUVCMode(int mode);
    HRESULT zq_ReadET(_DUAL_ET_PARAM* param);
    HRESULT zq_WriteET(const _DUAL_ET_PARAM& param);
    int open_v4l2_device(const char* path);  // -1
    void close_v4l2_device(int fd);          // nothing

    // --- further reads ---
    // 1 when the stream code is 0x0210, else 0.
    HRESULT ReadStreamState(unsigned int* state);
    // The transaction id the camera holds.
    HRESULT ReadLastId(short* lastId);

    // --- transactions on selector 14 ---
    HRESULT ReadByExtItem(UVC_EXT_ITEM_E item, void* input, void* output);
    HRESULT WriteByExtItem(UVC_EXT_ITEM_E item, void* input);
    HRESULT RetryReadByExtCmd(UVC_EXT_ITEM_E item, void* input, void* output);
    HRESULT RetryWriteByExtCmd(UVC_EXT_ITEM_E item, void* input);
    HRESULT SamCmdTransfer(_SAM_CMD_E cmd, uvc_extItem_SAM_E& wireCmd);

    // --- extension-unit transfers ---
    int read_from_uvc_extension(int selector, int length, unsigned char* data);
    int write_to_uvc_extension(int selector, int length, unsigned char* data);
    int check_dev_opened();
    HRESULT _GetBytes(int selector, unsigned char* data, unsigned int length);
    HRESULT _SetBytes(int selector, unsigned char* data, unsigned int length);
    HRESULT _GetLength(int selector, unsigned int* length);
    HRESULT _GetValue(int selector, unsigned int* value);
    HRESULT _SetValue(int selector, unsigned int value);
    HRESULT SpecialOperator(unsigned int value);
    HRESULT SetMarker();
    HRESULT RecoveryMarker();
    HRESULT CheckDataSize();

    // --- device connection ---
    void InitializeValidPIdVId();
    HRESULT CreateUsbHandle(int bus, int deviceAddress);
    int initialize_libusb(int bus, int deviceAddress);
    void release_libusb();

    // The library's own state (how the camera is reached, the lock shared with
    // other processes); for the library's use only.
    TARVIK_HIDDEN tarvik::TarvikPrivate& Private() { return *m_pPrivate; }
    // Gives back whatever the object opened; it may be opened again.
    TARVIK_HIDDEN void CloseCamera();

private:
    libusb_context* m_pContext;
    libusb_device_handle* m_pDevHandle;
    bool m_bKernelDetached;
    wNewMutex m_mutex;
    bool m_bInnerOpened;
    std::atomic<bool> m_bMarkerSet;
    unsigned short m_nLastId;
    std::vector<pm_usb_device_desc> m_vecValidDevices;
    unsigned short m_nProductType;
    tarvik::TarvikPrivate* m_pPrivate;
};

#endif
