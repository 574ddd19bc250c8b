#include "daemon.h"

#include <libudev.h>
#include <signal.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "item_values.h"
#include "service_log.h"

namespace tarvikd {

namespace {

constexpr unsigned kMaxWatchesPerClient = 16;
constexpr std::size_t kMaxItemName = 64;
constexpr std::uint64_t kRescanEveryUs = 30'000'000;
constexpr std::uint64_t kSettleUs = 200'000;  // after udev's add, before opening
constexpr std::uint64_t kMetricsDelayUs = 1'000'000;

double UnixNow() {
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

std::string ErrorName(int result) { return std::string(kErrorPrefix) + tarvik_result_name(result); }

int ReplyResult(sd_bus_message* m, int result, const std::string& why) {
    return sd_bus_reply_method_errorf(m, ErrorName(result).c_str(), "%s",
                                      why.empty() ? tarvik_strerror(result) : why.c_str());
}

const char* TransportName(tarvik_transport t) {
    return t == TARVIK_TRANSPORT_KERNEL ? "kernel" : "usb";
}

std::string CameraKey(const tarvik_camera_info& info) {
    if (info.serial[0] != '\0') return info.serial;
    return "usb-" + std::to_string(info.bus) + "-" + std::to_string(info.address);
}

}  // namespace

struct Daemon::Camera {
    Daemon* daemon;
    std::string key;
    std::string path;
    std::string serial;
    std::string transport;
    std::string state = "ready";
    bool cardPresent = false;
    std::chrono::steady_clock::time_point goneSince{};
    std::map<std::string, unsigned> watchers;  // client -> watches
    std::unique_ptr<CameraWorker> worker;
    sd_event_source* done = nullptr;
    sd_bus_slot* object = nullptr;

    ~Camera() {
        sd_bus_slot_unref(object);
        sd_event_source_disable_unref(done);
    }
};

struct Daemon::Pending {
    Daemon* daemon;
    std::uint64_t id;
    sd_bus_message* call;
    std::string client;
    std::string camera;
    sd_event_source* timer = nullptr;
    ~Pending() {
        sd_event_source_disable_unref(timer);
        sd_bus_message_unref(call);
    }
};

Daemon::Daemon(const Options& options) : m_options(options) {}

Daemon::~Daemon() {
    m_pending.clear();
    m_cameras.clear();  // each camera's thread ends and the camera closes
    m_authority.reset();
    sd_event_source_disable_unref(m_rescan);
    sd_event_source_disable_unref(m_metricsDue);
    if (m_monitor != nullptr) udev_monitor_unref(static_cast<udev_monitor*>(m_monitor));
    if (m_udev != nullptr) udev_unref(static_cast<udev*>(m_udev));
    sd_bus_flush_close_unref(m_bus);
    sd_event_unref(m_event);
}

// --- the vtables ---

const sd_bus_vtable* Daemon::ManagerVtable() {
    static const sd_bus_vtable kTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES("GetCameras", "", , "ao", SD_BUS_PARAM(cameras), OnGetCameras,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetMetrics", "", , "s", SD_BUS_PARAM(text), OnGetMetrics,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL_WITH_NAMES("CameraAdded", "o", SD_BUS_PARAM(camera), 0),
        SD_BUS_SIGNAL_WITH_NAMES("CameraRemoved", "o", SD_BUS_PARAM(camera), 0),
        SD_BUS_VTABLE_END};
    return kTable;
}

const sd_bus_vtable* Daemon::CameraVtable() {
    static const sd_bus_vtable kTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Serial", "s", OnProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Path", "s", OnProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("State", "s", OnProperty, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_PROPERTY("CardPresent", "b", OnProperty, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_METHOD_WITH_NAMES("ReadItem", "s", SD_BUS_PARAM(item), "a{sv}", SD_BUS_PARAM(values),
                                 OnReadItem, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("ReadItemWith", "sa{sv}", SD_BUS_PARAM(item) SD_BUS_PARAM(input),
                                 "a{sv}", SD_BUS_PARAM(values), OnReadItem,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("WriteItem", "sa{sv}", SD_BUS_PARAM(item) SD_BUS_PARAM(values), "",
                                 , OnWriteItem, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("ReadCard", "a{sv}", SD_BUS_PARAM(options), "a{sv}",
                                 SD_BUS_PARAM(card), OnReadCard, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("SamCommand", "y", SD_BUS_PARAM(command), "i",
                                 SD_BUS_PARAM(sam_result), OnSamCommand,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Watch", "", "", OnWatch, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Unwatch", "", "", OnUnwatch, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetStatus", "", , "a{sv}", SD_BUS_PARAM(status), OnGetStatus,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL_WITH_NAMES("CardPlaced", "t", SD_BUS_PARAM(sequence), 0),
        SD_BUS_SIGNAL_WITH_NAMES("CardRemoved", "t", SD_BUS_PARAM(sequence), 0),
        SD_BUS_SIGNAL_WITH_NAMES("StateChanged", "st", SD_BUS_PARAM(state) SD_BUS_PARAM(sequence),
                                 0),
        SD_BUS_VTABLE_END};
    return kTable;
}

int Daemon::OnProperty(sd_bus*, const char*, const char*, const char* property,
                       sd_bus_message* reply, void* userdata, sd_bus_error*) {
    const Camera& c = *static_cast<Camera*>(userdata);
    if (std::strcmp(property, "CardPresent") == 0) {
        return sd_bus_message_append(reply, "b", static_cast<int>(c.cardPresent));
    }
    const std::string& text = std::strcmp(property, "Serial") == 0 ? c.serial
                              : std::strcmp(property, "Path") == 0 ? c.transport
                                                                   : c.state;
    return sd_bus_message_append(reply, "s", text.c_str());
}

// --- the manager's calls ---

int Daemon::OnGetCameras(sd_bus_message* m, void* userdata, sd_bus_error*) {
    Daemon& d = *static_cast<Daemon*>(userdata);
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_return(m, &reply);
    if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "o");
    for (const auto& [key, camera] : d.m_cameras) {
        if (r >= 0) r = sd_bus_message_append_basic(reply, 'o', camera->path.c_str());
    }
    if (r >= 0) r = sd_bus_message_close_container(reply);
    if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r;
}

int Daemon::OnGetMetrics(sd_bus_message* m, void* userdata, sd_bus_error*) {
    Daemon& d = *static_cast<Daemon*>(userdata);
    sd_bus_message_ref(m);
    d.m_authority->Check(m, kActionStatus, [&d, m] {
        sd_bus_reply_method_return(m, "s", RenderMetrics(d.m_counters).c_str());
    });
    sd_bus_message_unref(m);
    return 1;
}

// --- the cameras' calls ---

// Once polkit allows `action` for the caller of `m`, `then` runs with the
// camera (looked up again: it may have gone meanwhile, which the caller hears
// as LIBUSB_ERROR_NO_DEVICE) and the caller's bus name.
void Daemon::WhenAllowed(const Camera& asked, sd_bus_message* m, const char* action,
                         std::function<void(Camera&, const std::string&)> then) {
    sd_bus_message_ref(m);
    m_authority->Check(m, action, [this, key = asked.key, m, then = std::move(then)] {
        const auto found = m_cameras.find(key);
        if (found == m_cameras.end()) {
            ReplyResult(m, TARVIK_LIBUSB_ERROR_NO_DEVICE, "");
            return;
        }
        const char* sender = sd_bus_message_get_sender(m);
        then(*found->second, sender != nullptr ? sender : "");
    });
    sd_bus_message_unref(m);
}

void Daemon::Submit(Camera& asked, sd_bus_message* m, const char* action, Task task) {
    auto shared = std::make_shared<Task>(std::move(task));
    WhenAllowed(asked, m, action, [this, m, shared](Camera& camera, const std::string& client) {
        const auto mine = m_pendingByClient.find(client);
        if (camera.worker->Pending() >= m_options.maxPendingPerCamera ||
            (mine != m_pendingByClient.end() && mine->second >= m_options.maxPendingPerClient)) {
            sd_bus_reply_method_errorf(m, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                       "too many calls wait for this camera; try again");
            return;
        }
        auto pending = std::make_unique<Pending>();
        pending->daemon = this;
        pending->id = ++m_nextId;
        pending->call = sd_bus_message_ref(m);
        pending->client = client;
        pending->camera = camera.key;
        const auto deadline = Clock::now() + std::chrono::milliseconds(m_options.callTimeoutMs);
        sd_event_add_time_relative(m_event, &pending->timer, CLOCK_MONOTONIC,
                                   std::uint64_t{m_options.callTimeoutMs} * 1000u, 0, OnDeadline,
                                   pending.get());
        ++m_pendingByClient[client];
        camera.worker->Post(pending->id, deadline, std::move(*shared));
        m_pending.emplace(pending->id, std::move(pending));
    });
}

// The deadline came first: the caller hears LIBUSB_ERROR_TIMEOUT now, and the
// outcome, when the camera's thread gets to it, goes nowhere.
int Daemon::OnDeadline(sd_event_source*, std::uint64_t, void* userdata) {
    auto* pending = static_cast<Pending*>(userdata);
    Daemon& d = *pending->daemon;
    const std::uint64_t id = pending->id;
    ReplyResult(pending->call, TARVIK_LIBUSB_ERROR_TIMEOUT,
                "no answer within " + std::to_string(d.m_options.callTimeoutMs) + " ms");
    d.m_counters[pending->camera].Count(TARVIK_LIBUSB_ERROR_TIMEOUT, UnixNow());
    d.MetricsChanged();
    if (--d.m_pendingByClient[pending->client] == 0) d.m_pendingByClient.erase(pending->client);
    d.m_pending.erase(id);  // frees `pending` and its timer
    return 0;
}

namespace {

// A task that runs an item call and hands back its values.
Task ItemTask(ItemCall call) {
    return [call = std::move(call)](tarvik_camera* c) {
        auto values = std::make_shared<Values>();
        Outcome o;
        o.result = call(c, *values);
        o.fill = [values](void* reply) {
            return AppendValues(static_cast<sd_bus_message*>(reply), *values);
        };
        return o;
    };
}

// The card's record goes when the last reference does, wiped.
std::shared_ptr<tarvik_card> NewCard() {
    return std::shared_ptr<tarvik_card>(new tarvik_card{}, [](tarvik_card* card) {
        tarvik_card_clear(card);
        delete card;
    });
}

int AppendCard(sd_bus_message* m, const tarvik_card& card, bool third) {
    struct Field {
        const char* key;
        const char* text;
    };
    const Field fields[] = {
        {"name", card.name},
        {"sex", card.sex},
        {"sex_code", card.sex_code},
        {"nation", card.nation},
        {"nation_code", card.nation_code},
        {"birth", card.birth},
        {"address", card.address},
        {"id_number", card.id_number},
        {"authority", card.authority},
        {"valid_from", card.valid_from},
        {"valid_to", card.valid_to},
        {"reserved", card.reserved},
    };
    int r = sd_bus_message_open_container(m, 'a', "{sv}");
    for (const Field& f : fields) {
        if (r >= 0) r = sd_bus_message_append(m, "{sv}", f.key, "s", f.text);
    }
    if (r >= 0) r = sd_bus_message_append(m, "{sv}", "sam_result", "i", card.sam_result);
    const auto bytes = [&](const char* key, const std::uint8_t* data, std::size_t size) {
        if (r >= 0) r = sd_bus_message_open_container(m, 'e', "sv");
        if (r >= 0) r = sd_bus_message_append_basic(m, 's', key);
        if (r >= 0) r = sd_bus_message_open_container(m, 'v', "ay");
        if (r >= 0) r = sd_bus_message_append_array(m, 'y', data, size);
        if (r >= 0) r = sd_bus_message_close_container(m);
        if (r >= 0) r = sd_bus_message_close_container(m);
    };
    bytes("photo", card.photo, sizeof card.photo);
    if (third && card.has_third_block != 0) {
        bytes("third_block", card.third_block, sizeof card.third_block);
    }
    if (r >= 0) r = sd_bus_message_close_container(m);
    return r;
}

}  // namespace

int Daemon::OnReadItem(sd_bus_message* m, void* userdata, sd_bus_error*) {
    Camera& camera = *static_cast<Camera*>(userdata);
    const char* item = nullptr;
    int r = sd_bus_message_read_basic(m, 's', &item);
    if (r < 0) return r;
    Values input;
    std::string why;
    if (std::strcmp(sd_bus_message_get_member(m), "ReadItemWith") == 0 &&
        ReadValues(m, input, why) < 0) {
        return ReplyResult(m, TARVIK_E_INVALID_ARGUMENT, why.empty() ? "bad input values" : why);
    }
    if (std::strlen(item) > kMaxItemName) {
        return ReplyResult(m, TARVIK_E_INVALID_ARGUMENT, "no such item (name too long)");
    }
    ItemCall call;
    const int made = MakeRead(item, input, call, why);
    if (made != 0) return ReplyResult(m, made, why);
    camera.daemon->Submit(camera, m, kActionStatus, ItemTask(std::move(call)));
    return 1;
}

int Daemon::OnWriteItem(sd_bus_message* m, void* userdata, sd_bus_error*) {
    Camera& camera = *static_cast<Camera*>(userdata);
    const char* item = nullptr;
    int r = sd_bus_message_read_basic(m, 's', &item);
    if (r < 0) return r;
    Values values;
    std::string why;
    if (ReadValues(m, values, why) < 0) {
        return ReplyResult(m, TARVIK_E_INVALID_ARGUMENT, why.empty() ? "bad values" : why);
    }
    if (std::strlen(item) > kMaxItemName) {
        return ReplyResult(m, TARVIK_E_INVALID_ARGUMENT, "no such item (name too long)");
    }
    ItemCall call;
    const int made = MakeWrite(item, values, call, why);
    if (made != 0) return ReplyResult(m, made, why);
    Task task = [call = std::move(call)](tarvik_camera* c) {
        Values ignored;
        Outcome o;
        o.result = call(c, ignored);
        return o;
    };
    camera.daemon->Submit(camera, m, kActionConfigure, std::move(task));
    return 1;
}

int Daemon::OnReadCard(sd_bus_message* m, void* userdata, sd_bus_error*) {
    Camera& camera = *static_cast<Camera*>(userdata);
    Values options;
    std::string why;
    if (ReadValues(m, options, why) < 0) {
        return ReplyResult(m, TARVIK_E_INVALID_ARGUMENT, why.empty() ? "bad options" : why);
    }
    bool third = false;
    for (const auto& [key, value] : options) {
        if (key != "third_block" || value.kind != Value::kNumber || value.number < 0 ||
            value.number > 1) {
            return ReplyResult(m, TARVIK_E_INVALID_ARGUMENT,
                               "ReadCard takes one option: third_block (a boolean)");
        }
        third = value.number != 0;
    }
    Task task = [third](tarvik_camera* c) {
        std::shared_ptr<tarvik_card> card = NewCard();
        Outcome o;
        o.result = tarvik_read_card(c, card.get(), third ? TARVIK_CARD_THIRD_BLOCK : 0u);
        if (o.result == TARVIK_E_SAM) {
            o.message = std::string("the SAM answered ") + std::to_string(card->sam_result) + " (" +
                        tarvik_sam_strerror(card->sam_result) + ")";
        }
        o.keep = card;
        o.sensitive = true;
        o.fill = [card, third](void* reply) {
            return AppendCard(static_cast<sd_bus_message*>(reply), *card, third);
        };
        return o;
    };
    camera.daemon->Submit(camera, m, kActionReadCard, std::move(task));
    return 1;
}

int Daemon::OnSamCommand(sd_bus_message* m, void* userdata, sd_bus_error*) {
    Camera& camera = *static_cast<Camera*>(userdata);
    std::uint8_t command = 0;
    const int r = sd_bus_message_read_basic(m, 'y', &command);
    if (r < 0) return r;
    const bool known = command <= TARVIK_SAM_CMD_READ_CARD_THIRD || command == TARVIK_SAM_CMD_6 ||
                       command == TARVIK_SAM_CMD_7;
    if (!known) {
        return ReplyResult(m, TARVIK_E_INVALID_ARGUMENT,
                           "no SAM command " + std::to_string(command) + " (0-4, 6, 7)");
    }
    Task task = [command](tarvik_camera* c) {
        Outcome o;
        int code = 0;
        std::uint8_t number[16] = {};
        o.result = tarvik_sam_command(c, command, &code, number);
        if (o.result == TARVIK_E_SAM) {
            o.message = std::string("the SAM answered ") + std::to_string(code) + " (" +
                        tarvik_sam_strerror(code) + ")";
        }
        o.fill = [code](void* reply) {
            return sd_bus_message_append(static_cast<sd_bus_message*>(reply), "i", code);
        };
        return o;
    };
    camera.daemon->Submit(camera, m, kActionReadCard, std::move(task));
    return 1;
}

// Delivers one call's outcome to its caller, unless its deadline answered first.
void Daemon::Finish(Camera& camera, Completion& done) {
    const auto it = m_pending.find(done.id);
    if (it == m_pending.end()) return;  // answered at the deadline
    Pending& p = *it->second;
    Outcome& o = done.outcome;
    if (o.result == 0) {
        sd_bus_message* reply = nullptr;
        int r = sd_bus_message_new_method_return(p.call, &reply);
        if (r >= 0 && o.sensitive) r = sd_bus_message_sensitive(reply);
        if (r >= 0 && o.fill) r = o.fill(reply);
        if (r < 0) {
            // Text the bus does not carry (not UTF-8, say): the caller hears why.
            o.result = TARVIK_LIBUSB_ERROR_OTHER;
            ReplyResult(p.call, o.result, "the camera's answer cannot be sent on the bus");
        } else if ((r = sd_bus_send(nullptr, reply, nullptr)) < 0) {
            Log(kDebug, "a reply could not be sent (the caller left?): %s", std::strerror(-r));
        }
        sd_bus_message_unref(reply);
    } else {
        ReplyResult(p.call, o.result, o.message);
    }
    CameraCounters& counts = m_counters[camera.key];
    counts.Count(o.result, UnixNow());
    if (o.result == 0 && std::strcmp(sd_bus_message_get_member(p.call), "ReadCard") == 0) {
        ++counts.cardsRead;
    }
    MetricsChanged();
    if (--m_pendingByClient[p.client] == 0) m_pendingByClient.erase(p.client);
    m_pending.erase(it);
}

void Daemon::Event(Camera& camera, const tarvik_event& e) {
    const char* path = camera.path.c_str();
    switch (e.type) {
        case TARVIK_EVENT_CARD_PLACED:
        case TARVIK_EVENT_CARD_REMOVED: {
            const bool placed = e.type == TARVIK_EVENT_CARD_PLACED;
            if (camera.watchers.empty()) return;  // a poll that ran as the last watch went
            camera.cardPresent = placed;
            if (placed) ++m_counters[camera.key].cardsPlaced;
            sd_bus_emit_signal(m_bus, path, kCameraInterface, placed ? "CardPlaced" : "CardRemoved",
                               "t", e.sequence);
            sd_bus_emit_properties_changed(m_bus, path, kCameraInterface, "CardPresent", nullptr);
            MetricsChanged();
            return;
        }
        case TARVIK_EVENT_CAMERA_GONE:
        case TARVIK_EVENT_CAMERA_BACK: {
            const bool back = e.type == TARVIK_EVENT_CAMERA_BACK;
            camera.state = back ? "ready" : "gone";
            camera.cardPresent = false;
            if (back) {
                ++m_counters[camera.key].reopens;
                MetricsChanged();
            } else {
                camera.goneSince = std::chrono::steady_clock::now();
            }
            if (back && e.result != 0) {
                Log(kWarning, "camera %s is back; writing its settings again failed: %s",
                    camera.key.c_str(), tarvik_result_name(e.result));
            } else {
                Log(kNotice, "camera %s is %s", camera.key.c_str(), back ? "back" : "gone");
            }
            sd_bus_emit_signal(m_bus, path, kCameraInterface, "StateChanged", "st",
                               camera.state.c_str(), e.sequence);
            sd_bus_emit_properties_changed(m_bus, path, kCameraInterface, "State", "CardPresent",
                                           nullptr);
            return;
        }
        case TARVIK_EVENT_OVERFLOW:
            Log(kWarning, "camera %s: events were lost", camera.key.c_str());
            return;
        default:
            return;
    }
}

int Daemon::OnWorkerDone(sd_event_source*, int, std::uint32_t, void* userdata) {
    Camera& camera = *static_cast<Camera*>(userdata);
    std::vector<Completion> done;
    std::vector<tarvik_event> events;
    camera.worker->Take(done, events);
    Daemon& d = *camera.daemon;
    for (Completion& c : done) d.Finish(camera, c);
    for (const tarvik_event& e : events) d.Event(camera, e);
    return 0;
}

// --- watches ---

void Daemon::SetWatched(Camera& camera) {
    const bool watched = !camera.watchers.empty();
    camera.worker->SetPollInterval(watched ? m_options.pollMs : 0);
    if (!watched && camera.cardPresent) {
        camera.cardPresent = false;
        sd_bus_emit_properties_changed(m_bus, camera.path.c_str(), kCameraInterface, "CardPresent",
                                       nullptr);
    }
}

int Daemon::OnWatch(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const Camera& asked = *static_cast<Camera*>(userdata);
    Daemon& d = *asked.daemon;
    d.WhenAllowed(asked, m, kActionStatus, [&d, m](Camera& camera, const std::string& client) {
        unsigned& watches = camera.watchers[client];
        if (watches == kMaxWatchesPerClient) {
            sd_bus_reply_method_errorf(m, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                       "a client holds at most %u watches", kMaxWatchesPerClient);
            return;
        }
        if (++watches == 1 && camera.watchers.size() == 1) {
            Log(kInfo, "camera %s: watched; card polls start", camera.key.c_str());
        }
        d.SetWatched(camera);
        sd_bus_reply_method_return(m, "");
    });
    return 1;
}

int Daemon::OnUnwatch(sd_bus_message* m, void* userdata, sd_bus_error*) {
    Camera& camera = *static_cast<Camera*>(userdata);
    const std::string client = sd_bus_message_get_sender(m) ? sd_bus_message_get_sender(m) : "";
    const auto it = camera.watchers.find(client);
    if (it == camera.watchers.end()) {
        return ReplyResult(m, TARVIK_E_INVALID_ARGUMENT, "this client does not watch the camera");
    }
    if (--it->second == 0) camera.watchers.erase(it);
    if (camera.watchers.empty())
        Log(kInfo, "camera %s: no one watches; card polls stop", camera.key.c_str());
    camera.daemon->SetWatched(camera);
    return sd_bus_reply_method_return(m, "");
}

void Daemon::DropClient(const std::string& name) {
    m_authority->Forget(name);
    for (auto& [key, camera] : m_cameras) {
        if (camera->watchers.erase(name) == 0) continue;
        Log(kDebug, "camera %s: a watching client left the bus", key.c_str());
        SetWatched(*camera);
    }
}

int Daemon::OnNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0) return 0;
    if (name[0] == ':' && after[0] == '\0') static_cast<Daemon*>(userdata)->DropClient(name);
    return 0;
}

int Daemon::OnGetStatus(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const Camera& asked = *static_cast<Camera*>(userdata);
    Daemon& d = *asked.daemon;
    d.WhenAllowed(asked, m, kActionStatus, [&d, m](const Camera& camera, const std::string&) {
        const CameraCounters& c = d.m_counters[camera.key];
        unsigned watches = 0;
        for (const auto& [client, n] : camera.watchers) watches += n;
        std::uint64_t failures = 0;
        for (const auto& [name, n] : c.failures) failures += n;
        Values v;
        const auto number = [](std::int64_t n) {
            Value value;
            value.number = n;
            return value;
        };
        const auto text = [](const std::string& t) {
            Value value;
            value.kind = Value::kText;
            value.text = t;
            return value;
        };
        v["serial"] = text(camera.serial);
        v["path"] = text(camera.transport);
        v["state"] = text(camera.state);
        v["card_present"] = number(camera.cardPresent ? 1 : 0);
        v["watchers"] = number(static_cast<std::int64_t>(camera.watchers.size()));
        v["watches"] = number(watches);
        v["pending"] = number(static_cast<std::int64_t>(camera.worker->Pending()));
        v["calls"] = number(static_cast<std::int64_t>(c.calls));
        v["failures"] = number(static_cast<std::int64_t>(failures));
        v["reopens"] = number(static_cast<std::int64_t>(c.reopens));
        v["cards_read"] = number(static_cast<std::int64_t>(c.cardsRead));
        v["cards_placed"] = number(static_cast<std::int64_t>(c.cardsPlaced));
        v["last_success"] = number(static_cast<std::int64_t>(c.lastSuccess));
        v["last_failure"] = number(static_cast<std::int64_t>(c.lastFailure));
        sd_bus_message* reply = nullptr;
        int r = sd_bus_message_new_method_return(m, &reply);
        if (r >= 0) r = AppendValues(reply, v);
        if (r >= 0) sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
    });
    return 1;
}

// --- cameras coming and going ---

bool Daemon::AddCamera(const tarvik_camera_info& info) {
    const std::string key = CameraKey(info);
    if (m_cameras.count(key) != 0) return true;
    tarvik_open_options o = tarvik_default_options();
    o.bus = info.bus;
    o.address = info.address;
    o.transport = m_options.transport;
    o.flags = TARVIK_OPEN_REAPPLY;
    tarvik_camera* handle = nullptr;
    const int r = tarvik_open(&o, &handle);
    if (r != 0) {
        // Said once per cause: the rescans try again every few seconds.
        int& said = m_openFailures[key];
        if (said != r) {
            Log(kWarning, "camera %s at %d:%d does not open: %s (%s); trying again", key.c_str(),
                info.bus, info.address, tarvik_result_name(r), tarvik_strerror(r));
        }
        said = r;
        return false;
    }
    m_openFailures.erase(key);
    tarvik_camera_info described{};
    tarvik_transport transport = TARVIK_TRANSPORT_USB;
    tarvik_describe(handle, &described, &transport);

    auto camera = std::make_unique<Camera>();
    camera->daemon = this;
    camera->key = key;
    camera->serial = info.serial;
    camera->transport = TransportName(transport);
    char* path = nullptr;
    if (sd_bus_path_encode(kCameraPrefix, key.c_str(), &path) < 0) {
        tarvik_close(handle);
        return false;
    }
    camera->path = path;
    std::free(path);
    camera->worker = std::make_unique<CameraWorker>(handle);
    int s = sd_event_add_io(m_event, &camera->done, camera->worker->Fd(), EPOLLIN, OnWorkerDone,
                            camera.get());
    if (s >= 0) {
        s = sd_bus_add_object_vtable(m_bus, &camera->object, camera->path.c_str(), kCameraInterface,
                                     CameraVtable(), camera.get());
    }
    if (s < 0) {
        Log(kError, "camera %s cannot be offered: %s", key.c_str(), std::strerror(-s));
        return false;
    }
    m_counters[key];  // its counts start at zero, or go on from before
    Log(kNotice, "camera %s offered at %s (%s path)", key.c_str(), camera->path.c_str(),
        camera->transport.c_str());
    const std::string objectPath = camera->path;
    m_cameras.emplace(key, std::move(camera));
    sd_bus_emit_signal(m_bus, kManagerPath, kManagerInterface, "CameraAdded", "o",
                       objectPath.c_str());
    MetricsChanged();
    return true;
}

void Daemon::RemoveCamera(const std::string& key) {
    const auto it = m_cameras.find(key);
    if (it == m_cameras.end()) return;
    const std::string path = it->second->path;
    // Calls still waiting for it are answered as a gone camera's are.
    for (auto p = m_pending.begin(); p != m_pending.end();) {
        if (p->second->camera != key) {
            ++p;
            continue;
        }
        ReplyResult(p->second->call, TARVIK_LIBUSB_ERROR_NO_DEVICE, "");
        if (--m_pendingByClient[p->second->client] == 0) m_pendingByClient.erase(p->second->client);
        p = m_pending.erase(p);
    }
    m_cameras.erase(it);
    Log(kNotice, "camera %s stayed away; it is no longer offered", key.c_str());
    sd_bus_emit_signal(m_bus, kManagerPath, kManagerInterface, "CameraRemoved", "o", path.c_str());
}

void Daemon::ForgetLongGone() {
    if (m_options.forgetAfterS == 0) return;
    const auto limit =
        std::chrono::steady_clock::now() - std::chrono::seconds(m_options.forgetAfterS);
    std::vector<std::string> keys;
    for (const auto& [key, camera] : m_cameras) {
        if (camera->state == "gone" && camera->goneSince <= limit) keys.push_back(key);
    }
    for (const std::string& key : keys) RemoveCamera(key);
}

void Daemon::Scan() {
    tarvik_camera_info found[16];
    const int n = tarvik_list(found, 16);
    if (n < 0) {
        Log(kWarning, "the cameras cannot be listed: %s", tarvik_result_name(n));
        return;
    }
    bool failed = false;
    for (int i = 0; i < n && i < 16; ++i) {
        if (!AddCamera(found[i])) failed = true;
    }
    ForgetLongGone();
    ScheduleRescan(failed ? 2'000'000 : kRescanEveryUs);
}

void Daemon::ScheduleRescan(std::uint64_t delayUs) {
    sd_event_source_disable_unref(m_rescan);
    m_rescan = nullptr;
    sd_event_add_time_relative(m_event, &m_rescan, CLOCK_MONOTONIC, delayUs, 0, OnRescan, this);
}

int Daemon::OnRescan(sd_event_source*, std::uint64_t, void* userdata) {
    static_cast<Daemon*>(userdata)->Scan();
    return 0;
}

int Daemon::OnUdev(sd_event_source*, int, std::uint32_t, void* userdata) {
    Daemon& d = *static_cast<Daemon*>(userdata);
    auto* monitor = static_cast<udev_monitor*>(d.m_monitor);
    bool added = false;
    while (udev_device* dev = udev_monitor_receive_device(monitor)) {
        const char* action = udev_device_get_action(dev);
        added = added || (action != nullptr && std::strcmp(action, "add") == 0);
        udev_device_unref(dev);
    }
    if (added) d.ScheduleRescan(kSettleUs);
    return 0;
}

// --- metrics ---

void Daemon::MetricsChanged() {
    if (m_options.metricsFile.empty() || m_metricsDue != nullptr) return;
    sd_event_add_time_relative(m_event, &m_metricsDue, CLOCK_MONOTONIC, kMetricsDelayUs, 0,
                               OnMetricsDue, this);
}

int Daemon::OnMetricsDue(sd_event_source*, std::uint64_t, void* userdata) {
    Daemon& d = *static_cast<Daemon*>(userdata);
    sd_event_source_disable_unref(d.m_metricsDue);
    d.m_metricsDue = nullptr;
    std::string error;
    if (!WriteMetricsFile(d.m_options.metricsFile, RenderMetrics(d.m_counters), error)) {
        Log(kWarning, "the metrics file %s cannot be written: %s", d.m_options.metricsFile.c_str(),
            error.c_str());
    }
    return 0;
}

// --- start and run ---

int Daemon::Connect() {
    int r = sd_event_default(&m_event);
    if (r < 0) return r;
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    sd_event_add_signal(m_event, nullptr, SIGTERM, nullptr, nullptr);
    sd_event_add_signal(m_event, nullptr, SIGINT, nullptr, nullptr);

    r = m_options.session ? sd_bus_open_user(&m_bus) : sd_bus_open_system(&m_bus);
    if (r < 0) {
        Log(kError, "cannot connect to the %s bus: %s", m_options.session ? "session" : "system",
            std::strerror(-r));
        return r;
    }
    m_authority = std::make_unique<Authority>(m_bus, !m_options.session);
    r = sd_bus_add_object_vtable(m_bus, nullptr, kManagerPath, kManagerInterface, ManagerVtable(),
                                 this);
    if (r < 0) return r;
    r = sd_bus_match_signal(m_bus, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus", "NameOwnerChanged", OnNameOwnerChanged, this);
    if (r < 0) return r;
    r = sd_bus_attach_event(m_bus, m_event, SD_EVENT_PRIORITY_NORMAL);
    if (r < 0) return r;

    // New cameras from udev's events; a machine without udev finds them by rescans.
    auto* u = udev_new();
    m_udev = u;
    auto* monitor = u != nullptr ? udev_monitor_new_from_netlink(u, "udev") : nullptr;
    m_monitor = monitor;
    if (monitor != nullptr &&
        udev_monitor_filter_add_match_subsystem_devtype(monitor, "usb", "usb_device") >= 0 &&
        udev_monitor_enable_receiving(monitor) >= 0) {
        sd_event_add_io(m_event, nullptr, udev_monitor_get_fd(monitor), EPOLLIN, OnUdev, this);
    }
    Scan();  // the cameras there are, before the name is taken

    r = sd_bus_request_name(m_bus, kBusName, 0);
    if (r < 0) {
        Log(kError, "cannot own %s on the bus: %s", kBusName, std::strerror(-r));
        return r;
    }
    return 0;
}

int Daemon::Run() {
    if (Connect() < 0) return 1;
    Log(kNotice, "serving %s on the %s bus with %zu camera(s)", kBusName,
        m_options.session ? "session" : "system", m_cameras.size());
    const int r = sd_event_loop(m_event);
    if (m_metricsDue != nullptr) OnMetricsDue(nullptr, 0, this);
    Log(kNotice, "stopping");
    return r < 0 ? 1 : 0;
}

}  // namespace tarvikd
