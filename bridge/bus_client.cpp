#include "bus_client.h"

#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "bus_names.h"
#include "log.h"

namespace tarvik_bridge {

namespace {

// The service's names (bus_names.h).
constexpr const char* kService = tarvik::bus::kBusName;
constexpr const char* kManagerPath = tarvik::bus::kManagerPath;
constexpr const char* kCameraPrefix = tarvik::bus::kCameraPrefix;
constexpr const char* kManager = tarvik::bus::kManagerInterface;
constexpr const char* kCamera = tarvik::bus::kCameraInterface;
constexpr const char* kErrorPrefix = tarvik::bus::kErrorPrefix;
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

std::string CameraPath(const std::string& key) {
    char* path = nullptr;
    if (sd_bus_path_encode(kCameraPrefix, key.c_str(), &path) < 0) return {};
    std::string out = path;
    std::free(path);
    return out;
}

std::string CameraKey(const char* path) {
    char* key = nullptr;
    if (path == nullptr || sd_bus_path_decode(path, kCameraPrefix, &key) <= 0) return {};
    std::string out = key;
    std::free(key);
    return out;
}

// --- a{sv} and variants as JSON ---

int ReadBasic(sd_bus_message* m, char type, Json& out) {
    union {
        std::uint8_t y;
        std::int16_t n;
        std::uint16_t q;
        std::int32_t i;
        std::uint32_t u;
        std::int64_t x;
        std::uint64_t t;
        double d;
        int b;
        const char* s;
    } v{};
    const int r = sd_bus_message_read_basic(m, type, &v);
    if (r <= 0) return r < 0 ? r : -EBADMSG;
    switch (type) {
        case 'y':
            out = v.y;
            break;
        case 'n':
            out = v.n;
            break;
        case 'q':
            out = v.q;
            break;
        case 'i':
            out = v.i;
            break;
        case 'u':
            out = v.u;
            break;
        case 'x':
            out = v.x;
            break;
        case 't':
            out = v.t;
            break;
        case 'd':
            out = v.d;
            break;
        case 'b':
            out = v.b != 0;
            break;
        default:
            out = v.s;
            break;  // s, o, g
    }
    return 0;
}

bool Basic(char type) { return type != '\0' && std::strchr("ynqiuxtdbsog", type) != nullptr; }

// One variant's contents, entered: basic values, bytes (as base64) and lists
// of basic values; anything else is skipped and shows as null.
int ReadVariant(sd_bus_message* m, const char* contents, Json& out) {
    const std::string type = contents;
    if (type.size() == 1 && Basic(type[0])) return ReadBasic(m, type[0], out);
    if (type == "ay") {
        const void* data = nullptr;
        std::size_t size = 0;
        const int r = sd_bus_message_read_array(m, 'y', &data, &size);
        if (r < 0) return r;
        out = Base64(static_cast<const std::uint8_t*>(data), size);
        return 0;
    }
    if (type.size() == 2 && type[0] == 'a' && Basic(type[1])) {
        int r = sd_bus_message_enter_container(m, 'a', type.c_str() + 1);
        if (r < 0) return r;
        out = Json::array();
        while ((r = sd_bus_message_at_end(m, false)) == 0) {
            Json element;
            if ((r = ReadBasic(m, type[1], element)) < 0) return r;
            out.push_back(std::move(element));
        }
        if (r < 0) return r;
        return sd_bus_message_exit_container(m);
    }
    out = nullptr;
    return sd_bus_message_skip(m, contents);
}

int ReadDict(sd_bus_message* m, Json& out) {
    out = Json::object();
    int r = sd_bus_message_enter_container(m, 'a', "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        const char* contents = nullptr;
        Json value;
        if ((r = sd_bus_message_read_basic(m, 's', &key)) < 0) return r;
        if ((r = sd_bus_message_peek_type(m, nullptr, &contents)) < 0) return r;
        if ((r = sd_bus_message_enter_container(m, 'v', contents)) < 0) return r;
        if ((r = ReadVariant(m, contents, value)) < 0) return r;
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
        out[key] = std::move(value);
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int AppendValues(sd_bus_message* m, const BusValues& values) {
    int r = sd_bus_message_open_container(m, 'a', "{sv}");
    for (const auto& [key, v] : values) {
        if (r >= 0) r = sd_bus_message_open_container(m, 'e', "sv");
        if (r >= 0) r = sd_bus_message_append_basic(m, 's', key.c_str());
        switch (v.kind) {
            case BusValue::kNumber:
                if (r >= 0) r = sd_bus_message_append(m, "v", "x", v.number);
                break;
            case BusValue::kBool:
                if (r >= 0) r = sd_bus_message_append(m, "v", "b", static_cast<int>(v.number));
                break;
            case BusValue::kText:
                if (r >= 0) r = sd_bus_message_append(m, "v", "s", v.text.c_str());
                break;
            case BusValue::kBytes:
            case BusValue::kNumbers: {
                const bool bytes = v.kind == BusValue::kBytes;
                if (r >= 0) r = sd_bus_message_open_container(m, 'v', bytes ? "ay" : "ax");
                if (r >= 0 && bytes)
                    r = sd_bus_message_append_array(m, 'y', v.bytes.data(), v.bytes.size());
                if (r >= 0 && !bytes) {
                    r = sd_bus_message_append_array(m, 'x', v.numbers.data(),
                                                    v.numbers.size() * sizeof(std::int64_t));
                }
                if (r >= 0) r = sd_bus_message_close_container(m);
                break;
            }
        }
        if (r >= 0) r = sd_bus_message_close_container(m);
    }
    if (r >= 0) r = sd_bus_message_close_container(m);
    return r;
}

void WipeStrings(Json& j) {
    if (j.is_string()) {
        std::string& s = j.get_ref<std::string&>();
        explicit_bzero(s.data(), s.size());
    } else if (j.is_structured()) {
        for (Json& element : j) WipeStrings(element);
    }
}

// all[key] when it has the type of `fallback`, else `fallback`.
Json Field(const Json& all, const char* key, Json fallback) {
    const auto it = all.find(key);
    return it != all.end() && it->type() == fallback.type() ? *it : fallback;
}

const char* MethodName(Method m) {
    switch (m) {
        case Method::kGetCameras:
            return "getCameras";
        case Method::kReadItem:
            return "readItem";
        case Method::kWriteItem:
            return "writeItem";
        case Method::kReadCard:
            return "readCard";
        case Method::kStatus:
            return "status";
    }
    return "?";
}

using ReplyHandler = std::function<void(sd_bus_message* reply, const sd_bus_error* error)>;
using Fill = std::function<int(sd_bus_message*)>;

}  // namespace

Outgoing::~Outgoing() {
    if (secret) explicit_bzero(text.data(), text.size());
}

struct BusClient::State {
    bool session = false;
    BusEvents events;

    // Crossing threads: the queue and its eventfd.
    std::mutex queueLock;
    std::deque<std::function<void()>> queue;
    int wake = -1;
    std::thread thread;
    bool started = false;

    // The bus's thread only.
    sd_event* event = nullptr;
    sd_bus* bus = nullptr;
    bool stopping = false;
    std::string owner;  // the service's unique name; "" while it is not there
    struct Camera {
        bool watching = false;  // the bridge holds a watch
        bool busy = false;      // a Watch or Unwatch is on its way
        bool refused = false;   // Watch failed: not asked again until no page is left
        std::uint64_t lastPlaced = 0;
    };
    std::map<std::string, Camera> cameras;
    std::uint64_t generation = 0;  // the service's: a new one each time it comes back
    std::map<PageId, std::set<std::string>> pages;  // the cameras each page was told hold a card

    ~State() {
        sd_bus_flush_close_unref(bus);
        sd_event_unref(event);
        if (wake >= 0) close(wake);
    }

    void Post(std::function<void()> work) {
        {
            std::lock_guard<std::mutex> lock(queueLock);
            queue.push_back(std::move(work));
        }
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = write(wake, &one, sizeof one);
    }

    static int OnWake(sd_event_source*, int fd, std::uint32_t, void* userdata) {
        auto& s = *static_cast<State*>(userdata);
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t n = read(fd, &count, sizeof count);
        std::deque<std::function<void()>> work;
        {
            std::lock_guard<std::mutex> lock(s.queueLock);
            work.swap(s.queue);
        }
        for (auto& w : work) w();
        return 0;
    }

    void Send(std::vector<PageId> to, std::string text, bool reply = false, bool secret = false) {
        auto out = std::make_shared<Outgoing>();
        out->text = std::move(text);
        out->reply = reply;
        out->secret = secret;
        events.deliver(std::move(to), std::move(out));
    }

    void Broadcast(const char* method, const Json& params) {
        std::vector<PageId> to;
        for (const auto& [page, told] : pages) to.push_back(page);
        if (!to.empty()) Send(std::move(to), NotificationText(method, params));
    }

    // --- calls ---

    struct PendingCall {
        State* state;
        ReplyHandler handler;
    };

    static int OnReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto& p = *static_cast<PendingCall*>(userdata);
        const sd_bus_error* error = sd_bus_message_is_method_error(reply, nullptr)
                                        ? sd_bus_message_get_error(reply)
                                        : nullptr;
        p.handler(reply, error);
        return 0;
    }

    static void DeletePending(void* userdata) { delete static_cast<PendingCall*>(userdata); }

    // Calls `member` on the service; `handler` hears the reply or the error
    // (also a local one: it is always called, unless the bridge stops first).
    void CallAsync(const std::string& path, const char* interface, const char* member,
                   const Fill& fill, ReplyHandler handler) {
        sd_bus_message* m = nullptr;
        sd_bus_slot* slot = nullptr;
        int r = sd_bus_message_new_method_call(bus, &m, kService, path.c_str(), interface, member);
        if (r >= 0 && fill) r = fill(m);
        auto* pending = new PendingCall{this, std::move(handler)};
        if (r >= 0) r = sd_bus_call_async(bus, &slot, m, OnReply, pending, 0);
        sd_bus_message_unref(m);
        if (r < 0) {
            sd_bus_error error{};  // SD_BUS_ERROR_NULL, without C's compound literal
            sd_bus_error_set_errno(&error, r);
            pending->handler(nullptr, &error);
            sd_bus_error_free(&error);
            delete pending;
            return;
        }
        sd_bus_slot_set_destroy_callback(slot, DeletePending);
        sd_bus_slot_set_floating(slot, 1);
        sd_bus_slot_unref(slot);
    }

    void Answer(PageId page, const Call& call, const sd_bus_error* error, Json result,
                bool secret = false) {
        if (pages.count(page) == 0) {  // the page left: its answer goes nowhere
            if (secret) WipeStrings(result);
            return;
        }
        if (error != nullptr) {
            const std::string name = error->name != nullptr ? error->name : "";
            const std::string shortName = name.rfind(kErrorPrefix, 0) == 0
                                              ? name.substr(sizeof tarvik::bus::kErrorPrefix - 1)
                                              : name;
            Log(kDebug, "page %llu: %s failed: %s", static_cast<unsigned long long>(page),
                MethodName(call.method), shortName.c_str());
            Send({page},
                 ErrorText(call.id, kServiceError,
                           error->message != nullptr ? error->message : shortName, shortName),
                 true);
            return;
        }
        std::string text = ResultText(call.id, result);
        if (secret) WipeStrings(result);
        Send({page}, std::move(text), true, secret);
    }

    void Run(PageId page, Call call) {
        if (call.method == Method::kGetCameras) return GetCameras(page, std::move(call));
        const auto shared = std::make_shared<const Call>(std::move(call));
        const Call& c = *shared;
        const char* member = "GetStatus";
        Fill fill;
        switch (c.method) {
            case Method::kReadItem:
                member = c.hasValues ? "ReadItemWith" : "ReadItem";
                fill = [&c](sd_bus_message* m) {
                    int r = sd_bus_message_append_basic(m, 's', c.item.c_str());
                    if (r >= 0 && c.hasValues) r = AppendValues(m, c.values);
                    return r;
                };
                break;
            case Method::kWriteItem:
                member = "WriteItem";
                fill = [&c](sd_bus_message* m) {
                    int r = sd_bus_message_append_basic(m, 's', c.item.c_str());
                    if (r >= 0) r = AppendValues(m, c.values);
                    return r;
                };
                break;
            case Method::kReadCard:
                member = "ReadCard";
                fill = [&c](sd_bus_message* m) {
                    if (!c.thirdBlock) return sd_bus_message_append(m, "a{sv}", 0);
                    return sd_bus_message_append(m, "a{sv}", 1, "third_block", "b", 1);
                };
                break;
            default:
                break;
        }
        const bool card = c.method == Method::kReadCard;
        const bool empty = c.method == Method::kWriteItem;
        CallAsync(
            CameraPath(c.camera), kCamera, member, fill,
            [this, page, shared, card, empty](sd_bus_message* reply, const sd_bus_error* error) {
                Json result;
                if (error == nullptr && !empty && ReadDict(reply, result) < 0) {
                    const sd_bus_error bad{SD_BUS_ERROR_INVALID_ARGS,
                                           "the service's answer could not be read", 0};
                    return Answer(page, *shared, &bad, nullptr);
                }
                Answer(page, *shared, error, std::move(result), card);
            });
    }

    // GetCameras, then each camera's properties: [{camera, serial, transport,
    // state, cardPresent}]. Every camera found is watched while pages are there.
    void GetCameras(PageId page, Call call) {
        auto shared = std::make_shared<const Call>(std::move(call));
        ListCameras([this, page, shared](const std::vector<std::string>* keys,
                                         const sd_bus_error* error) {
            if (error != nullptr) return Answer(page, *shared, error, nullptr);
            struct Gather {
                Json list = Json::array();
                std::size_t left = 0;
            };
            auto gather = std::make_shared<Gather>();
            gather->left = keys->size();
            for (const std::string& key : *keys) gather->list.push_back(Json{{"camera", key}});
            if (keys->empty()) return Answer(page, *shared, nullptr, gather->list);
            for (std::size_t i = 0; i < keys->size(); ++i) {
                CallAsync(
                    CameraPath((*keys)[i]), kProperties, "GetAll",
                    [](sd_bus_message* m) { return sd_bus_message_append_basic(m, 's', kCamera); },
                    [this, page, shared, gather, i](sd_bus_message* reply, const sd_bus_error* e) {
                        Json all;
                        Json& entry = gather->list[i];
                        if (e != nullptr || ReadDict(reply, all) < 0) all = Json::object();
                        entry["serial"] = Field(all, "Serial", Json(""));
                        entry["transport"] = Field(all, "Path", Json(""));
                        entry["state"] = Field(all, "State", Json("gone"));
                        entry["cardPresent"] = Field(all, "CardPresent", Json(false));
                        if (--gather->left == 0) Answer(page, *shared, nullptr, gather->list);
                    });
            }
        });
    }

    // The service's cameras; each is watched while pages are there.
    void ListCameras(
        std::function<void(const std::vector<std::string>*, const sd_bus_error*)> then) {
        CallAsync(kManagerPath, kManager, "GetCameras", nullptr,
                  [this, then = std::move(then)](sd_bus_message* reply, const sd_bus_error* error) {
                      if (error != nullptr) return then(nullptr, error);
                      std::vector<std::string> keys;
                      int r = sd_bus_message_enter_container(reply, 'a', "o");
                      const char* path = nullptr;
                      while (r >= 0 && (r = sd_bus_message_read_basic(reply, 'o', &path)) > 0) {
                          const std::string key = CameraKey(path);
                          if (!key.empty()) keys.push_back(key);
                      }
                      for (const std::string& key : keys) {
                          cameras[key];
                          Reconcile(key);
                      }
                      then(&keys, nullptr);
                  });
    }

    // --- watches and events ---

    // Brings the bridge's watch on `key` to what is wanted: one while any page
    // is connected, none otherwise.
    void Reconcile(const std::string& key) {
        const auto it = cameras.find(key);
        if (it == cameras.end() || it->second.busy) return;
        Camera& c = it->second;
        const bool want = !pages.empty() && !c.refused && !owner.empty();
        if (want == c.watching) return;
        c.busy = true;
        CallAsync(CameraPath(key), kCamera, want ? "Watch" : "Unwatch", nullptr,
                  [this, key, want, then = generation](sd_bus_message*, const sd_bus_error* error) {
                      const auto found = cameras.find(key);
                      if (found == cameras.end() || then != generation) return;
                      Camera& camera = found->second;
                      camera.busy = false;
                      if (want && error != nullptr) {
                          camera.refused = true;
                          Log(kWarning, "camera %s cannot be watched: %s", key.c_str(),
                              error->name != nullptr ? error->name : "?");
                      } else {
                          camera.watching = want;
                          Log(kDebug, "camera %s: %s", key.c_str(),
                              want ? "watched" : "no longer watched");
                      }
                      Reconcile(key);
                  });
    }

    void Joined(PageId page) {
        pages[page];
        // A card that lies there already is told at once; cards laid down
        // later come as events.
        ListCameras([this, page](const std::vector<std::string>* keys, const sd_bus_error*) {
            if (keys == nullptr) return;
            for (const std::string& key : *keys) {
                CallAsync(
                    CameraPath(key), kProperties, "Get",
                    [](sd_bus_message* m) {
                        return sd_bus_message_append(m, "ss", kCamera, "CardPresent");
                    },
                    [this, page, key](sd_bus_message* reply, const sd_bus_error* error) {
                        int present = 0;
                        if (error != nullptr ||
                            sd_bus_message_read(reply, "v", "b", &present) < 0 || present == 0) {
                            return;
                        }
                        const auto p = pages.find(page);
                        if (p == pages.end() || !p->second.insert(key).second) return;
                        const auto c = cameras.find(key);
                        Send(
                            {page},
                            NotificationText(
                                "cardPlaced",
                                Json{{"camera", key},
                                     {"sequence", c != cameras.end() ? c->second.lastPlaced : 0}}));
                    });
            }
        });
    }

    void Left(PageId page) {
        pages.erase(page);
        if (!pages.empty()) return;
        for (auto& [key, camera] : cameras) {
            camera.refused = false;
            Reconcile(key);
        }
    }

    static int OnCameraSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto& s = *static_cast<State*>(userdata);
        const char* sender = sd_bus_message_get_sender(m);
        const std::string key = CameraKey(sd_bus_message_get_path(m));
        if (sender == nullptr || s.owner != sender || key.empty()) return 0;
        std::uint64_t sequence = 0;
        if (sd_bus_message_is_signal(m, kCamera, "CardPlaced") ||
            sd_bus_message_is_signal(m, kCamera, "CardRemoved")) {
            if (sd_bus_message_read(m, "t", &sequence) < 0) return 0;
            const bool placed = sd_bus_message_is_signal(m, kCamera, "CardPlaced") > 0;
            if (placed) s.cameras[key].lastPlaced = sequence;
            for (auto& [page, told] : s.pages) {
                if (placed) {
                    told.insert(key);
                } else {
                    told.erase(key);
                }
            }
            s.Broadcast(placed ? "cardPlaced" : "cardRemoved",
                        Json{{"camera", key}, {"sequence", sequence}});
        } else if (sd_bus_message_is_signal(m, kCamera, "StateChanged")) {
            const char* state = nullptr;
            if (sd_bus_message_read(m, "st", &state, &sequence) < 0) return 0;
            for (auto& [page, told] : s.pages)
                told.erase(key);  // no card on a camera that comes or goes
            s.Broadcast("stateChanged",
                        Json{{"camera", key}, {"state", state}, {"sequence", sequence}});
        }
        return 0;
    }

    static int OnManagerSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto& s = *static_cast<State*>(userdata);
        const char* sender = sd_bus_message_get_sender(m);
        const char* path = nullptr;
        if (sender == nullptr || s.owner != sender || sd_bus_message_read(m, "o", &path) < 0)
            return 0;
        const std::string key = CameraKey(path);
        if (key.empty()) return 0;
        if (sd_bus_message_is_signal(m, kManager, "CameraAdded")) {
            s.cameras[key];
            s.Reconcile(key);
        } else if (sd_bus_message_is_signal(m, kManager, "CameraRemoved")) {
            s.cameras.erase(key);  // its watches went with it
        }
        return 0;
    }

    static int OnOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto& s = *static_cast<State*>(userdata);
        const char* name = nullptr;
        const char* before = nullptr;
        const char* after = nullptr;
        if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0 || s.owner == after) return 0;
        // The service left or came back: the watches it held are gone.
        s.owner = after;
        ++s.generation;
        Log(kNotice, "the service is %s", s.owner.empty() ? "gone" : "there");
        s.cameras.clear();
        for (auto& [page, told] : s.pages) told.clear();
        if (!s.owner.empty() && !s.pages.empty()) {
            s.ListCameras([](const std::vector<std::string>*, const sd_bus_error*) {});
        }
        return 0;
    }

    // --- the thread ---

    int Connect(std::string& why) {
        int r = sd_event_new(&event);
        if (r >= 0) r = session ? sd_bus_open_user(&bus) : sd_bus_open_system(&bus);
        if (r < 0) {
            why = std::string("cannot connect to the ") + (session ? "session" : "system") +
                  " bus: " + strerror(-r);
            return r;
        }
        r = sd_bus_match_signal(bus, nullptr, kService, nullptr, kCamera, nullptr, OnCameraSignal,
                                this);
        if (r >= 0) {
            r = sd_bus_match_signal(bus, nullptr, kService, kManagerPath, kManager, nullptr,
                                    OnManagerSignal, this);
        }
        if (r >= 0) {
            r = sd_bus_add_match(bus, nullptr,
                                 "type='signal',sender='org.freedesktop.DBus',"
                                 "path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
                                 "member='NameOwnerChanged',arg0='org.tarvik.Tarvik1'",
                                 OnOwnerChanged, this);
        }
        if (r < 0) {
            why = std::string("cannot follow the service's signals: ") + strerror(-r);
            return r;
        }
        sd_bus_message* reply = nullptr;
        const char* name = nullptr;
        if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetNameOwner", nullptr, &reply, "s",
                               kService) >= 0 &&
            sd_bus_message_read(reply, "s", &name) >= 0) {
            owner = name;
        } else {
            Log(kWarning, "the service %s is not on the bus (yet)", kService);
        }
        sd_bus_message_unref(reply);
        wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake < 0) {
            why = std::string("eventfd: ") + strerror(errno);
            return -errno;
        }
        r = sd_event_add_io(event, nullptr, wake, EPOLLIN, OnWake, this);
        if (r >= 0) r = sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL);
        if (r >= 0) r = sd_bus_set_exit_on_disconnect(bus, 1);
        if (r < 0) why = std::string("cannot run the bus: ") + strerror(-r);
        return r;
    }

    void Loop(std::promise<std::string>& ready) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);  // signals are the WebSocket side's
        std::string why;
        if (Connect(why) < 0) {
            ready.set_value(why.empty() ? "cannot connect to the bus" : why);
            return;
        }
        ready.set_value("");
        const int r = sd_event_loop(event);
        if (!stopping) {
            Log(kError, "the bus connection is lost (%s)", r < 0 ? strerror(-r) : "closed");
            events.lost();
        }
    }
};

BusClient::BusClient(bool session, BusEvents events) : m_state(std::make_unique<State>()) {
    m_state->session = session;
    m_state->events = std::move(events);
}

BusClient::~BusClient() { Stop(); }

bool BusClient::Start(std::string& why) {
    State& s = *m_state;
    std::promise<std::string> ready;
    auto outcome = ready.get_future();
    s.thread = std::thread([&s, &ready] { s.Loop(ready); });
    why = outcome.get();
    s.started = true;
    if (!why.empty()) {
        s.thread.join();
        s.started = false;
    }
    return why.empty();
}

void BusClient::Stop() {
    State& s = *m_state;
    if (!s.started) return;
    s.started = false;
    s.Post([&s] {
        s.stopping = true;
        sd_event_exit(s.event, 0);
    });
    s.thread.join();
}

void BusClient::PageJoined(PageId page) {
    State& s = *m_state;
    s.Post([&s, page] { s.Joined(page); });
}

void BusClient::PageLeft(PageId page) {
    State& s = *m_state;
    s.Post([&s, page] { s.Left(page); });
}

void BusClient::Submit(PageId page, Call call) {
    State& s = *m_state;
    s.Post([&s, page, call = std::move(call)]() mutable { s.Run(page, std::move(call)); });
}

}  // namespace tarvik_bridge
