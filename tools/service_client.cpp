#include "service_client.h"

#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <optional>

#include "bus_names.h"
#include "open_failure.h"

namespace tarvikctl {

namespace {

using namespace tarvik::bus;  // NOLINT: the service's names

// Every result the library has: libusb's codes and its own.
bool IsResult(int code) {
    return (code <= -1 && code >= -12) || code == -99 || (code <= -1001 && code >= -1016);
}

struct Message {
    sd_bus_message* m = nullptr;
    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() { sd_bus_message_unref(m); }
};

struct BusError {
    sd_bus_error e = SD_BUS_ERROR_NULL;
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&e); }
};

[[noreturn]] void Broken(const std::string& what, int r) {
    throw ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_OTHER,
                    "tarvikd: " + what + ": " + std::strerror(r < 0 ? -r : r));
}

void Must(int r, const std::string& what) {
    if (r < 0) Broken(what, r);
}

// One value of an a{sv} answer.
struct Variant {
    enum Kind { kNone, kNumber, kText, kBytes, kNumbers } kind = kNone;
    int64_t number = 0;
    std::string text;
    std::vector<uint8_t> bytes;
    std::vector<int64_t> numbers;
};
using Dict = std::map<std::string, Variant>;

bool IntegerType(char type) { return type != '\0' && std::strchr("ynqiuxtb", type) != nullptr; }

int64_t ReadInteger(sd_bus_message* m, char type) {
    union {
        uint8_t y;
        int16_t n;
        uint16_t q;
        int32_t i;
        uint32_t u;
        int64_t x;
        uint64_t t;
        int b;
    } v{};
    Must(sd_bus_message_read_basic(m, type, &v), "a number of the answer");
    switch (type) {
        case 'y':
            return v.y;
        case 'n':
            return v.n;
        case 'q':
            return v.q;
        case 'i':
            return v.i;
        case 'u':
            return v.u;
        case 'b':
            return v.b != 0;
        case 't':
            return static_cast<int64_t>(std::min<uint64_t>(v.t, INT64_MAX));
        default:
            return v.x;
    }
}

// A variant's contents, entered: numbers, text, bytes, lists of numbers; the
// rest is skipped.
Variant ReadVariant(sd_bus_message* m, const std::string& type) {
    Variant v;
    if (type.size() == 1 && IntegerType(type[0])) {
        v.kind = Variant::kNumber;
        v.number = ReadInteger(m, type[0]);
    } else if (type == "s" || type == "o") {
        const char* text = nullptr;
        Must(sd_bus_message_read_basic(m, type[0], &text), "a text of the answer");
        v.kind = Variant::kText;
        v.text = text;
    } else if (type == "ay") {
        const void* data = nullptr;
        size_t size = 0;
        Must(sd_bus_message_read_array(m, 'y', &data, &size), "bytes of the answer");
        v.kind = Variant::kBytes;
        v.bytes.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
    } else if (type.size() == 2 && type[0] == 'a' && IntegerType(type[1])) {
        Must(sd_bus_message_enter_container(m, 'a', type.c_str() + 1), "a list of the answer");
        v.kind = Variant::kNumbers;
        int r = 0;
        while ((r = sd_bus_message_at_end(m, false)) == 0)
            v.numbers.push_back(ReadInteger(m, type[1]));
        Must(r, "a list of the answer");
        Must(sd_bus_message_exit_container(m), "a list of the answer");
    } else {
        Must(sd_bus_message_skip(m, type.c_str()), "a value of the answer");
    }
    return v;
}

// Walks an a{sv} at the message's position: `each` gets every key with the
// variant entered and must read or skip its contents (given by their type).
void ForEachEntry(sd_bus_message* m,
                  const std::function<void(const char* key, const std::string& type)>& each) {
    Must(sd_bus_message_enter_container(m, 'a', "{sv}"), "the answer");
    int r = 0;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        const char* contents = nullptr;
        Must(sd_bus_message_read_basic(m, 's', &key), "a key of the answer");
        Must(sd_bus_message_peek_type(m, nullptr, &contents), "a value of the answer");
        Must(sd_bus_message_enter_container(m, 'v', contents), "a value of the answer");
        each(key, contents);
        Must(sd_bus_message_exit_container(m), "a value of the answer");
        Must(sd_bus_message_exit_container(m), "the answer");
    }
    Must(r, "the answer");
    Must(sd_bus_message_exit_container(m), "the answer");
}

Dict ReadDict(sd_bus_message* m) {
    Dict dict;
    ForEachEntry(
        m, [&](const char* key, const std::string& type) { dict[key] = ReadVariant(m, type); });
    return dict;
}

int64_t Number(const Dict& dict, const std::string& key) {
    const auto it = dict.find(key);
    if (it == dict.end() || it->second.kind != Variant::kNumber) {
        throw ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_OTHER,
                        "tarvikd's answer has no number " + key);
    }
    return it->second.number;
}

std::string Keys(const Dict& dict) {
    std::string out;
    for (const auto& entry : dict) out += (out.empty() ? "" : ", ") + entry.first;
    return out.empty() ? "nothing" : out;
}

// What a call appends after its header.
using Append = std::function<int(sd_bus_message*)>;

// {"key": number} entries of a dictionary, each of the given D-Bus type.
Append Entries(const std::vector<std::pair<const char*, int64_t>>& entries, char type) {
    return [entries, type](sd_bus_message* m) {
        int r = sd_bus_message_open_container(m, 'a', "{sv}");
        const char signature[2] = {type, '\0'};
        for (const auto& [key, n] : entries) {
            if (r < 0) break;
            r = sd_bus_message_open_container(m, 'e', "sv");
            if (r >= 0) r = sd_bus_message_append_basic(m, 's', key);
            if (r >= 0) r = sd_bus_message_open_container(m, 'v', signature);
            if (r >= 0 && type == 'u') {
                const auto u = static_cast<uint32_t>(n);
                r = sd_bus_message_append_basic(m, 'u', &u);
            } else if (r >= 0 && type == 'b') {
                const int b = n != 0;
                r = sd_bus_message_append_basic(m, 'b', &b);
            } else if (r >= 0) {
                const auto i = static_cast<int32_t>(n);
                r = sd_bus_message_append_basic(m, 'i', &i);
            }
            if (r >= 0) r = sd_bus_message_close_container(m);
            if (r >= 0) r = sd_bus_message_close_container(m);
        }
        if (r >= 0) r = sd_bus_message_close_container(m);
        return r;
    };
}

uint64_t MonotonicNs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

}  // namespace

int ResultOfErrorName(const std::string& name) {
    const size_t prefix = sizeof kErrorPrefix - 1;
    if (name.compare(0, prefix, kErrorPrefix) != 0) return 0;
    const std::string result = name.substr(prefix);
    for (int code = -1; code >= -1016; --code) {
        if (IsResult(code) && result == tarvik_result_name(code)) return code;
    }
    return 0;
}

// The bus, and the calls on it with tarvikd's errors sorted out.
class ServiceConnection {
public:
    explicit ServiceConnection(bool sessionBus) : m_sessionBus(sessionBus) {
        const int r = sessionBus ? sd_bus_open_user(&m_bus) : sd_bus_open_system(&m_bus);
        if (r < 0) {
            throw ToolError(kExitNoCamera, TARVIK_E_NO_CAMERA,
                            std::string("tarvikd can't be reached: no ") + BusName() + " bus (" +
                                std::strerror(-r) + ")");
        }
    }
    ~ServiceConnection() { sd_bus_flush_close_unref(m_bus); }
    ServiceConnection(const ServiceConnection&) = delete;
    ServiceConnection& operator=(const ServiceConnection&) = delete;

    sd_bus* Bus() const { return m_bus; }

    // Calls `member`: 0 and the reply, or the library's result tarvikd answered
    // (its message in `why`). Throws ToolError for what is no library result.
    int Call(const std::string& object, const char* interface, const char* member,
             const Append& append, Message& reply, std::string* why = nullptr) {
        Message call;
        Must(sd_bus_message_new_method_call(m_bus, &call.m, kBusName, object.c_str(), interface,
                                            member),
             std::string("the call ") + member);
        if (append) Must(append(call.m), std::string("the call ") + member);
        BusError error;
        const int r = sd_bus_call(m_bus, call.m, 0, &error.e, &reply.m);
        if (r >= 0) return 0;
        return Refused(member, r, error.e, why);
    }

    // The same where a library result is a failure of the call itself.
    void CallOrThrow(const std::string& object, const char* interface, const char* member,
                     const Append& append, Message& reply) {
        const int result = Call(object, interface, member, append, reply);
        if (result == TARVIK_LIBUSB_ERROR_TIMEOUT) {
            throw ToolError(kExitFailed, result,
                            std::string("tarvikd did not answer ") + member + " in time");
        }
        if (result != 0) {
            throw ToolError(
                kExitFailed, result,
                std::string("tarvikd: ") + member + " failed: " + DescribeResult(result));
        }
    }

private:
    const char* BusName() const { return m_sessionBus ? "session" : "system"; }

    int Refused(const char* member, int r, const sd_bus_error& error, std::string* why) {
        const std::string name = error.name != nullptr ? error.name : "";
        const std::string message = error.message != nullptr ? error.message : "";
        if (const int result = ResultOfErrorName(name); result != 0) {
            if (why != nullptr) *why = message;
            return result;
        }
        static const std::string kSpawn = "org.freedesktop.DBus.Error.Spawn.";  // activation
        if (name == SD_BUS_ERROR_SERVICE_UNKNOWN || name == SD_BUS_ERROR_NAME_HAS_NO_OWNER ||
            name.compare(0, kSpawn.size(), kSpawn) == 0) {
            throw ToolError(
                kExitNoCamera, TARVIK_E_NO_CAMERA,
                std::string("tarvikd is not running: ") + kBusName + " is not on the " + BusName() +
                    " bus (" +
                    (m_sessionBus ? "start 'tarvikd --session'" : "systemctl start tarvikd") + ")");
        }
        if (name == SD_BUS_ERROR_ACCESS_DENIED) {
            throw ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_ACCESS,
                            std::string("tarvikd refused ") + member +
                                ": polkit does not allow it to this user (join the group "
                                "tarvik, then log in again): " +
                                message);
        }
        if (name == SD_BUS_ERROR_LIMITS_EXCEEDED) {
            throw ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_BUSY,
                            std::string("tarvikd refused ") + member + ": " + message);
        }
        if (r == -ETIMEDOUT || name == SD_BUS_ERROR_NO_REPLY || name == SD_BUS_ERROR_TIMEOUT) {
            return TARVIK_LIBUSB_ERROR_TIMEOUT;
        }
        if (name == SD_BUS_ERROR_UNKNOWN_OBJECT) return TARVIK_LIBUSB_ERROR_NO_DEVICE;
        throw ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_OTHER,
                        std::string("tarvikd: ") + member + " failed: " +
                            (name.empty() ? std::strerror(-r) : name + ": " + message));
    }

    sd_bus* m_bus = nullptr;
    bool m_sessionBus;
};

namespace {

// The SAM's code in tarvikd's message of a TARVIK_E_SAM: "the SAM answered 17 (...)".
int SamCode(const std::string& message) {
    static const std::string kSaid = "the SAM answered ";
    const size_t at = message.find(kSaid);
    if (at == std::string::npos) return TARVIK_SAM_FAILED;
    const char* start = message.c_str() + at + kSaid.size();
    char* end = nullptr;
    const long code = std::strtol(start, &end, 10);
    return end == start ? TARVIK_SAM_FAILED : static_cast<int>(code);
}

// The card's text fields as tarvikd names them.
struct CardText {
    const char* key;
    char* (*field)(tarvik_card&);
    size_t size;
};

#define TARVIKCTL_CARD_TEXT(name)                                                         \
    {                                                                                     \
#name, [](tarvik_card & c) -> char* { return c.name; }, sizeof(tarvik_card::name) \
    }
const CardText kCardTexts[] = {
    TARVIKCTL_CARD_TEXT(name),        TARVIKCTL_CARD_TEXT(sex),
    TARVIKCTL_CARD_TEXT(sex_code),    TARVIKCTL_CARD_TEXT(nation),
    TARVIKCTL_CARD_TEXT(nation_code), TARVIKCTL_CARD_TEXT(birth),
    TARVIKCTL_CARD_TEXT(address),     TARVIKCTL_CARD_TEXT(id_number),
    TARVIKCTL_CARD_TEXT(authority),   TARVIKCTL_CARD_TEXT(valid_from),
    TARVIKCTL_CARD_TEXT(valid_to),    TARVIKCTL_CARD_TEXT(reserved),
};
#undef TARVIKCTL_CARD_TEXT

// The card straight from the answer into the record: no copy of it elsewhere.
void FillCard(sd_bus_message* m, tarvik_card& card) {
    ForEachEntry(m, [&](const char* key, const std::string& type) {
        const auto text =
            std::find_if(std::begin(kCardTexts), std::end(kCardTexts),
                         [&](const CardText& t) { return std::strcmp(t.key, key) == 0; });
        const bool photo = std::strcmp(key, "photo") == 0;
        const bool third = std::strcmp(key, "third_block") == 0;
        if (text != std::end(kCardTexts) && type == "s") {
            const char* value = nullptr;
            Must(sd_bus_message_read_basic(m, 's', &value), "the card");
            char* field = text->field(card);
            std::strncpy(field, value, text->size - 1);
            field[text->size - 1] = '\0';
        } else if ((photo || third) && type == "ay") {
            const void* data = nullptr;
            size_t size = 0;
            Must(sd_bus_message_read_array(m, 'y', &data, &size), "the card");
            uint8_t* into = photo ? card.photo : card.third_block;
            std::memcpy(into, data, std::min(size, sizeof card.photo));
            if (third) card.has_third_block = 1;
        } else if (std::strcmp(key, "sam_result") == 0 && type.size() == 1 &&
                   IntegerType(type[0])) {
            card.sam_result = static_cast<int>(ReadInteger(m, type[0]));
        } else {
            Must(sd_bus_message_skip(m, type.c_str()), "the card");
        }
    });
}

class ServiceDevice : public Device {
public:
    ServiceDevice(std::shared_ptr<ServiceConnection> bus, std::string object)
        : m_bus(std::move(bus)), m_object(std::move(object)) {
        if (::pipe2(m_wake, O_CLOEXEC | O_NONBLOCK) != 0) Broken("a pipe", errno);
    }
    ~ServiceDevice() override {
        sd_bus_slot_unref(m_signals);
        sd_bus_slot_unref(m_owner);
        sd_bus_slot_unref(m_removed);
        ::close(m_wake[0]);
        ::close(m_wake[1]);
    }
    ServiceDevice(const ServiceDevice&) = delete;
    ServiceDevice& operator=(const ServiceDevice&) = delete;

    int ReadItem(int item, const void* input, void* record, size_t size) override {
        tarvik_item_info info{};
        // The checks tarvik_read_item makes before anything is sent.
        if (tarvik_item(item, &info) != 0 || record == nullptr) return TARVIK_E_INVALID_ARGUMENT;
        if (info.read_size < 0) {
            return item == kSamItem ? TARVIK_E_INVALID_ARGUMENT : TARVIK_E_NOT_HANDLED;
        }
        if (size < static_cast<size_t>(info.read_size)) return TARVIK_E_INVALID_ARGUMENT;
        Append with;
        if (item == kDataBlockItem) {
            const auto* block = static_cast<const tarvik_data_block*>(record);
            with = Entries({{"target", block->target},
                            {"offset", block->offset},
                            {"length", std::min<int64_t>(block->length, kDataBlockMax)}},
                           'i');
        } else if (item == kVcmItem) {
            if (input == nullptr) return TARVIK_E_INVALID_ARGUMENT;
            with = Entries({{"mode", *static_cast<const int*>(input) & 0xFF}}, 'i');
        }
        Dict answer;
        const int result = Read(info.name, with, answer);
        if (result != 0) return result;
        const auto it = answer.find("record");
        if (it == answer.end() || it->second.kind != Variant::kBytes) {
            throw ToolError(kExitFailed, TARVIK_E_NOT_HANDLED,
                            std::string("tarvikd answers no record of item ") + info.name +
                                " (it answers: " + Keys(answer) + ")");
        }
        const std::vector<uint8_t>& bytes = it->second.bytes;
        std::memcpy(record, bytes.data(), std::min(bytes.size(), size));
        return 0;
    }

    int WriteItem(int item, const void* record, size_t size) override {
        tarvik_item_info info{};
        if (tarvik_item(item, &info) != 0 || record == nullptr) return TARVIK_E_INVALID_ARGUMENT;
        if (info.write_size < 0) return TARVIK_E_NOT_HANDLED;
        if (size != static_cast<size_t>(info.write_size)) return TARVIK_E_INVALID_ARGUMENT;
        const Append values = [record, size](sd_bus_message* m) {
            int r = sd_bus_message_open_container(m, 'a', "{sv}");
            if (r >= 0) r = sd_bus_message_open_container(m, 'e', "sv");
            if (r >= 0) r = sd_bus_message_append_basic(m, 's', "record");
            if (r >= 0) r = sd_bus_message_open_container(m, 'v', "ay");
            if (r >= 0) r = sd_bus_message_append_array(m, 'y', record, size);
            for (int i = 0; i < 3 && r >= 0; ++i) r = sd_bus_message_close_container(m);
            return r;
        };
        return Write(info.name, values);
    }

    int ReadSetting(int item, int mode, RecordBuffer& record) override {
        return ReadItem(item, &mode, record.bytes, sizeof record.bytes);
    }

    int WriteSetting(int item, const RecordBuffer& record) override {
        tarvik_item_info info{};
        if (tarvik_item(item, &info) != 0 || info.write_size < 0) return TARVIK_E_NOT_HANDLED;
        return WriteItem(item, record.bytes, static_cast<size_t>(info.write_size));
    }

    int WriteExposureTimes(uint32_t left, uint32_t right) override {
        return Write("et", Entries({{"left_time", left}, {"right_time", right}}, 'u'));
    }

    int WriteExposureMode(int32_t left, int32_t right) override {
        return Write("et", Entries({{"left_mode", left}, {"right_mode", right}}, 'i'));
    }

    int ReadGyro(int32_t& pitch, int32_t& roll) override {
        Dict answer;
        const int result = Read("gyro", nullptr, answer);
        if (result != 0) return result;
        pitch = static_cast<int32_t>(Number(answer, "pitch"));
        roll = static_cast<int32_t>(Number(answer, "roll"));
        return 0;
    }

    int SamCommand(int command, int& samResult, uint8_t*) override {
        if (command == TARVIK_SAM_CMD_NUMBER) {
            // Nothing is sent: the answer would lack what the command is for.
            throw ToolError(kExitFailed, TARVIK_E_NOT_PROVIDED,
                            "SAM command 2: tarvikd answers a SAM command with the SAM's code "
                            "alone, not the SAM's number; run it without --service");
        }
        Message reply;
        std::string why;
        const auto cmd = static_cast<uint8_t>(command);
        const int result = m_bus->Call(
            m_object, kCameraInterface, "SamCommand",
            [cmd](sd_bus_message* m) { return sd_bus_message_append_basic(m, 'y', &cmd); }, reply,
            &why);
        if (result == TARVIK_E_SAM) samResult = SamCode(why);
        if (result != 0) return result;
        int32_t code = 0;
        Must(sd_bus_message_read_basic(reply.m, 'i', &code), "the SAM's code");
        samResult = code;
        return 0;
    }

    int ReadCard(tarvik_card& card, bool third) override {
        Message reply;
        std::string why;
        const std::vector<std::pair<const char*, int64_t>> options =
            third ? std::vector<std::pair<const char*, int64_t>>{{"third_block", 1}}
                  : std::vector<std::pair<const char*, int64_t>>{};
        const int result =
            m_bus->Call(m_object, kCameraInterface, "ReadCard", Entries(options, 'b'), reply, &why);
        if (result == TARVIK_E_SAM) card.sam_result = SamCode(why);
        if (result != 0) return result;
        // The answer holds the card: its memory is wiped when it is freed.
        sd_bus_message_sensitive(reply.m);
        FillCard(reply.m, card);
        return 0;
    }

    // tarvikd polls at its own interval.
    int StartWatch(unsigned) override {
        sd_bus* bus = m_bus->Bus();
        const std::string owner =
            std::string(
                "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
            kBusName + "'";
        // The matches come first, so that no event falls between Watch and them.
        Must(sd_bus_match_signal(bus, &m_signals, kBusName, m_object.c_str(), kCameraInterface,
                                 nullptr, OnSignal, this),
             "watching the camera's signals");
        Must(sd_bus_add_match(bus, &m_owner, owner.c_str(), OnOwnerChanged, this),
             "watching tarvikd");
        Must(sd_bus_match_signal(bus, &m_removed, kBusName, kManagerPath, kManagerInterface,
                                 "CameraRemoved", OnCameraRemoved, this),
             "watching tarvikd's cameras");
        Message reply;
        return m_bus->Call(m_object, kCameraInterface, "Watch", nullptr, reply);
    }

    int WaitEvent(DeviceEvent& event) override {
        sd_bus* bus = m_bus->Bus();
        for (;;) {
            if (!m_events.empty()) {
                event = m_events.front();
                m_events.pop_front();
                return 0;
            }
            if (m_ended) throw *m_ended;
            const int r = sd_bus_process(bus, nullptr);
            if (r < 0) Broken("the bus", r);
            if (r > 0) continue;
            pollfd fds[2] = {
                {sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0},
                {m_wake[0], POLLIN, 0},
            };
            uint64_t until = UINT64_MAX;
            sd_bus_get_timeout(bus, &until);
            int timeoutMs = -1;
            if (until != UINT64_MAX) {
                const uint64_t now = MonotonicNs() / 1000u;
                timeoutMs = until <= now ? 0
                                         : static_cast<int>(std::min<uint64_t>(
                                               (until - now + 999) / 1000, INT32_MAX));
            }
            if (::poll(fds, 2, timeoutMs) < 0 && errno != EINTR) Broken("waiting", errno);
            if ((fds[1].revents & POLLIN) != 0) {
                char drained[16];
                while (::read(m_wake[0], drained, sizeof drained) > 0) {
                }
                return TARVIK_E_CANCELLED;
            }
        }
    }

    void Cancel() override {
        const char byte = 1;
        [[maybe_unused]] const ssize_t n = ::write(m_wake[1], &byte, 1);
    }

private:
    int Read(const char* item, const Append& input, Dict& answer) {
        Message reply;
        const Append call = [item, &input](sd_bus_message* m) {
            int r = sd_bus_message_append_basic(m, 's', item);
            if (r >= 0 && input) r = input(m);
            return r;
        };
        const int result = m_bus->Call(m_object, kCameraInterface,
                                       input ? "ReadItemWith" : "ReadItem", call, reply);
        if (result == 0) answer = ReadDict(reply.m);
        return result;
    }

    int Write(const char* item, const Append& values) {
        Message reply;
        return m_bus->Call(
            m_object, kCameraInterface, "WriteItem",
            [item, &values](sd_bus_message* m) {
                const int r = sd_bus_message_append_basic(m, 's', item);
                return r < 0 ? r : values(m);
            },
            reply);
    }

    void Push(int type, uint64_t sequence, bool settingsKnown = true) {
        DeviceEvent e;
        e.event.type = type;
        e.event.sequence = sequence;
        e.event.time_ns = MonotonicNs();  // when the signal came
        e.settingsKnown = settingsKnown;
        m_events.push_back(e);
    }

    static int OnSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto& self = *static_cast<ServiceDevice*>(userdata);
        const char* member = sd_bus_message_get_member(m);
        uint64_t sequence = 0;
        const char* state = nullptr;
        const bool placed = std::strcmp(member, "CardPlaced") == 0;
        if (placed || std::strcmp(member, "CardRemoved") == 0) {
            if (sd_bus_message_read(m, "t", &sequence) < 0) return 0;
            self.Push(placed ? TARVIK_EVENT_CARD_PLACED : TARVIK_EVENT_CARD_REMOVED, sequence);
        } else if (std::strcmp(member, "StateChanged") == 0) {
            if (sd_bus_message_read(m, "st", &state, &sequence) < 0) return 0;
            const bool back = std::strcmp(state, "ready") == 0;
            // tarvikd does not tell whether writing the settings again worked.
            self.Push(back ? TARVIK_EVENT_CAMERA_BACK : TARVIK_EVENT_CAMERA_GONE, sequence, !back);
        }
        return 0;
    }

    static int OnOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
        const char* name = nullptr;
        const char* before = nullptr;
        const char* after = nullptr;
        if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0) return 0;
        auto& self = *static_cast<ServiceDevice*>(userdata);
        if (after[0] == '\0' && !self.m_ended) {
            self.m_ended = ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_NO_DEVICE,
                                     "watch: tarvikd left the bus");
        }
        return 0;
    }

    static int OnCameraRemoved(sd_bus_message* m, void* userdata, sd_bus_error*) {
        const char* object = nullptr;
        if (sd_bus_message_read(m, "o", &object) < 0) return 0;
        auto& self = *static_cast<ServiceDevice*>(userdata);
        if (self.m_object == object && !self.m_ended) {
            self.m_ended = ToolError(kExitFailed, TARVIK_LIBUSB_ERROR_NO_DEVICE,
                                     "watch: tarvikd no longer offers the camera (it stayed "
                                     "unplugged longer than tarvikd --forget-after)");
        }
        return 0;
    }

    std::shared_ptr<ServiceConnection> m_bus;
    std::string m_object;
    int m_wake[2] = {-1, -1};
    sd_bus_slot* m_signals = nullptr;
    sd_bus_slot* m_owner = nullptr;
    sd_bus_slot* m_removed = nullptr;
    std::deque<DeviceEvent> m_events;
    std::optional<ToolError> m_ended;
};

}  // namespace

ServiceClient::ServiceClient(bool sessionBus)
    : m_bus(std::make_shared<ServiceConnection>(sessionBus)) {}

ServiceClient::~ServiceClient() = default;

namespace {

// GetCameras: the cameras' object paths.
std::vector<std::string> CameraObjects(ServiceConnection& bus) {
    Message reply;
    bus.CallOrThrow(kManagerPath, kManagerInterface, "GetCameras", nullptr, reply);
    std::vector<std::string> objects;
    Must(sd_bus_message_enter_container(reply.m, 'a', "o"), "the cameras");
    const char* object = nullptr;
    int r = 0;
    while ((r = sd_bus_message_read_basic(reply.m, 'o', &object)) > 0) objects.push_back(object);
    Must(r, "the cameras");
    return objects;
}

}  // namespace

std::vector<ServiceCamera> ServiceClient::Cameras() {
    std::vector<ServiceCamera> cameras;
    for (const std::string& o : CameraObjects(*m_bus)) {
        Message properties;
        const char* camera = kCameraInterface;
        const int result = m_bus->Call(
            o, "org.freedesktop.DBus.Properties", "GetAll",
            [camera](sd_bus_message* m) { return sd_bus_message_append_basic(m, 's', camera); },
            properties);
        if (result == TARVIK_LIBUSB_ERROR_NO_DEVICE) continue;  // gone since the list
        if (result != 0) {
            throw ToolError(kExitFailed, result,
                            "tarvikd: GetAll failed: " + DescribeResult(result));
        }
        const Dict values = ReadDict(properties.m);
        const auto text = [&values](const char* key) {
            const auto it = values.find(key);
            return it == values.end() ? std::string() : it->second.text;
        };
        cameras.push_back(ServiceCamera{o, text("Serial"), text("Path"), text("State")});
    }
    return cameras;
}

std::string ServiceClient::Choose(const std::string& serial) {
    const std::vector<std::string> objects = CameraObjects(*m_bus);
    if (serial.empty()) {
        if (objects.empty()) {
            throw ToolError(
                kExitNoCamera, TARVIK_E_NO_CAMERA,
                std::string("no camera (") + kCameraIds + ") found: tarvikd offers none");
        }
        return objects.front();
    }
    char* encoded = nullptr;
    Must(sd_bus_path_encode(kCameraPrefix, serial.c_str(), &encoded), "the camera's path");
    const std::string wanted = encoded;
    std::free(encoded);
    if (std::find(objects.begin(), objects.end(), wanted) != objects.end()) return wanted;
    std::string serials;
    for (const ServiceCamera& c : Cameras()) {
        if (!c.serial.empty()) serials += (serials.empty() ? "" : ", ") + c.serial;
    }
    throw ToolError(kExitNoCamera, TARVIK_E_NO_CAMERA,
                    "no camera with serial '" + serial +
                        "' at tarvikd (serials: " + (serials.empty() ? "none" : serials) + ")");
}

std::unique_ptr<Device> ServiceClient::OpenCamera(const std::string& serial) {
    return std::make_unique<ServiceDevice>(m_bus, Choose(serial));
}

Json ServiceClient::Status(const std::string& object) {
    Message reply;
    m_bus->CallOrThrow(object, kCameraInterface, "GetStatus", nullptr, reply);
    Json status = Json::object();
    for (const auto& [key, value] : ReadDict(reply.m)) {
        if (value.kind == Variant::kNumber) status[key] = value.number;
        if (value.kind == Variant::kText) status[key] = value.text;
    }
    return status;
}

std::string ServiceClient::Metrics() {
    Message reply;
    m_bus->CallOrThrow(kManagerPath, kManagerInterface, "GetMetrics", nullptr, reply);
    const char* text = nullptr;
    Must(sd_bus_message_read_basic(reply.m, 's', &text), "the metrics");
    return text;
}

}  // namespace tarvikctl
