// Construction, destruction, the factory, the product type and the members
// this camera does not provide.
#include <new>

#include "TarvikImpl.h"
#include "camera_opener.h"
#include "tarvik_log.h"
#include "tarvik_private.h"

namespace {
constexpr unsigned short kProductTypeUnknown = 0xFFFF;
constexpr HRESULT kNotProvided = -2;
}  // namespace

// Without a handle the object starts with no device; the factory then opens one.
TarvikImpl::TarvikImpl() : TarvikImpl(nullptr) {}

TarvikImpl::TarvikImpl(libusb_device_handle* handle)
    : m_pContext(nullptr),
      m_pDevHandle(nullptr),
      m_bKernelDetached(false),
      m_mutex(),
      m_bInnerOpened(false),
      m_bMarkerSet(false),
      m_nLastId(0),
      m_vecValidDevices(),
      m_nProductType(kProductTypeUnknown),
      m_pPrivate(new tarvik::TarvikPrivate) {
    InitializeValidPIdVId();
    if (handle != nullptr) {
        m_pDevHandle = handle;
        tarvik::adopt_handle(*this, handle);
        TLOG_DEBUG("libTarvik: use outer handle [%p] directly.\n", static_cast<void*>(handle));
    }
    TLOG_DEBUG("libTarvik build time: %s %s", __DATE__, __TIME__);
}

TarvikImpl::~TarvikImpl() {
    CloseCamera();
    m_nProductType = kProductTypeUnknown;
    m_vecValidDevices.clear();
    m_vecValidDevices.shrink_to_fit();
    delete m_pPrivate;
}

HRESULT TarvikImpl::zq_ReadProductType(int* productType) {
    if (productType == nullptr) {
        return 1;
    }
    if (m_nProductType == kProductTypeUnknown) {
        return -1;
    }
    *productType = static_cast<int>(static_cast<unsigned int>(m_nProductType));
    return 0;
}

HRESULT TarvikImpl::zq_WriteBeep(unsigned int) { return kNotProvided; }
HRESULT TarvikImpl::zq_WriteLed(const _LED_CONTROL_PARAM&) { return kNotProvided; }
HRESULT TarvikImpl::zq_WriteStatusLed(const _STATUS_LED_PARAM&) { return kNotProvided; }
HRESULT TarvikImpl::zq_ReadI2C(_I2C_PARAM*) { return kNotProvided; }
HRESULT TarvikImpl::zq_WriteI2C(const _I2C_PARAM&) { return kNotProvided; }
HRESULT TarvikImpl::zq_ReadSAM(const _SAM_IN_PARAM*, _SAM_OUT_PARAM*) { return kNotProvided; }
HRESULT TarvikImpl::zq_WriteUVCMode(int) { return kNotProvided; }
HRESULT TarvikImpl::zq_ReadET(_DUAL_ET_PARAM*) { return kNotProvided; }
HRESULT TarvikImpl::zq_WriteET(const _DUAL_ET_PARAM&) { return kNotProvided; }
int TarvikImpl::open_v4l2_device(const char*) { return -1; }
void TarvikImpl::close_v4l2_device(int) {}

extern "C" TARVIK_API libTarvik* zq_CreateTarvik(libusb_device_handle* outerHandle, int bus,
                                                 int deviceAddress) {
    if (outerHandle != nullptr) {
        return new TarvikImpl(outerHandle);
    }
    auto* impl = new TarvikImpl();
    if (impl->CreateUsbHandle(bus, deviceAddress) != 0) {
        delete impl;
        return nullptr;
    }
    return impl;
}

// Always the kernel path: the capture node given, or the first camera's.
extern "C" TARVIK_API libTarvik* zq_CreateTarvikOnVideo(const char* videoNode) {
    auto* impl = new TarvikImpl();
    tarvik::CameraTarget target;
    target.videoNode = videoNode != nullptr ? videoNode : "";
    target.choice = tarvik::Choice::kKernel;
    const int r = tarvik::open_camera(*impl, target, tarvik::InUse::kKeep);
    tarvik::say_opened(r);
    if (r != 0) {
        delete impl;
        return nullptr;
    }
    return impl;
}

extern "C" TARVIK_API void zq_ReleaseTarvik(libTarvik* plugin) { delete plugin; }
