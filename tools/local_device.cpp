// The camera opened in this process, through the library's C interface.
#include <array>
#include <cstring>

#include "device.h"
#include "open_failure.h"

namespace tarvikctl {

namespace {

// Copies between a setting's record and the value a library call takes.
template <typename T>
T From(const RecordBuffer& record) {
    T value;
    std::memcpy(&value, record.bytes, sizeof value);
    return value;
}

template <typename T>
void Into(RecordBuffer& record, const T& value) {
    std::memcpy(record.bytes, &value, sizeof value);
}

template <typename T>
int ReadInto(RecordBuffer& record, T& value, int result) {
    if (result == 0) Into(record, value);
    return result;
}

class LocalDevice : public Device {
public:
    explicit LocalDevice(tarvik_camera* camera) : m_camera(camera) {}
    ~LocalDevice() override { tarvik_close(m_camera); }
    LocalDevice(const LocalDevice&) = delete;
    LocalDevice& operator=(const LocalDevice&) = delete;

    tarvik_camera* Handle() const { return m_camera; }

    int ReadItem(int item, const void* input, void* record, size_t size) override {
        return tarvik_read_item(m_camera, item, input, record, size);
    }
    int WriteItem(int item, const void* record, size_t size) override {
        return tarvik_write_item(m_camera, item, record, size);
    }

    int ReadSetting(int item, int mode, RecordBuffer& record) override {
        int32_t fields[4] = {};
        uint8_t bytes[20] = {};
        switch (item) {
            case kExposureItem: {
                tarvik_exposure block{};
                return ReadInto(record, block, tarvik_read_exposure(m_camera, &block));
            }
            case kRoiItem:
                return ReadInto(record, fields, tarvik_read_roi(m_camera, fields));
            case kMjpegQpItem:
                return ReadInto(record, fields, tarvik_read_mjpeg_qp(m_camera, fields));
            case kDeviceIdItem:
                return ReadInto(record, bytes, tarvik_read_device_id(m_camera, bytes));
            case kDeviceSnItem:
                return ReadInto(record, bytes, tarvik_read_device_sn(m_camera, bytes));
            case kVcmItem: {
                uint16_t value = 0;
                return ReadInto(record, value, tarvik_read_vcm(m_camera, mode, &value));
            }
            default:
                return TARVIK_E_NOT_HANDLED;
        }
    }

    int WriteSetting(int item, const RecordBuffer& record) override {
        using Fields = std::array<int32_t, 4>;
        using Bytes = std::array<uint8_t, 20>;
        switch (item) {
            case kRoiItem:
                return tarvik_write_roi(m_camera, From<Fields>(record).data());
            case kMjpegQpItem:
                return tarvik_write_mjpeg_qp(m_camera, From<Fields>(record).data());
            case kDeviceIdItem:
                return tarvik_write_device_id(m_camera, From<Bytes>(record).data());
            case kDeviceSnItem:
                return tarvik_write_device_sn(m_camera, From<Bytes>(record).data());
            case kGpioItem: {
                const auto gpio = From<std::array<int32_t, 2>>(record);
                return tarvik_write_gpio(m_camera, gpio[0], gpio[1]);
            }
            case kVcmItem: {
                const auto v = From<VcmWrite>(record);
                return tarvik_write_vcm(m_camera, v.mode, v.value, v.ctrl0, v.ctrl1);
            }
            default:
                return TARVIK_E_NOT_HANDLED;
        }
    }

    int WriteExposureTimes(uint32_t left, uint32_t right) override {
        return tarvik_write_exposure_times(m_camera, left, right);
    }
    int WriteExposureMode(int32_t left, int32_t right) override {
        return tarvik_write_exposure_mode(m_camera, left, right);
    }
    int ReadGyro(int32_t& pitch, int32_t& roll) override {
        return tarvik_read_gyro(m_camera, &pitch, &roll);
    }
    int SamCommand(int command, int& samResult, uint8_t number[16]) override {
        return tarvik_sam_command(m_camera, command, &samResult, number);
    }
    int ReadCard(tarvik_card& card, bool third) override {
        return tarvik_read_card(m_camera, &card, third ? TARVIK_CARD_THIRD_BLOCK : 0u);
    }

    int StartWatch(unsigned intervalMs) override {
        return tarvik_set_poll_interval(m_camera, intervalMs);
    }
    int WaitEvent(DeviceEvent& event) override {
        event = DeviceEvent{};
        return tarvik_wait_event(m_camera, &event.event, -1);
    }
    void Cancel() override { tarvik_cancel(m_camera); }

private:
    tarvik_camera* m_camera;
};

}  // namespace

std::unique_ptr<Device> OpenLocalDevice(const Selection& selection) {
    const OpenRequest request(selection);
    tarvik_camera* camera = nullptr;
    const int result = tarvik_open(&request.options, &camera);
    if (result != 0) throw OpenError(result, selection);
    return std::make_unique<LocalDevice>(camera);
}

tarvik_camera* LibraryHandle(Device& device) {
    const auto* local = dynamic_cast<const LocalDevice*>(&device);
    return local != nullptr ? local->Handle() : nullptr;
}

}  // namespace tarvikctl
