// Reads the camera's firmware version and an identity card.
//
//   read_card [bus address]
//
// Build against an installed libTarvik:
//   c++ -std=c++17 read_card.cpp $(pkg-config --cflags --libs libtarvik) -o read_card
// or with CMake: find_package(Tarvik) and link Tarvik::Tarvik.
#include <TarvikImpl.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

// Card fields are wide strings of UCS-2 characters; print them as UTF-8.
std::string ToUtf8(const wchar_t* text) {
    std::string out;
    for (; *text != 0; ++text) {
        const auto c = static_cast<unsigned>(*text) & 0xFFFFu;
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    const int bus = argc > 2 ? std::atoi(argv[1]) : -1;
    const int address = argc > 2 ? std::atoi(argv[2]) : -1;

    // The library logs to standard output; keep this program's results apart.
    std::unique_ptr<libTarvik, void (*)(libTarvik*)> camera(zq_CreateTarvik(nullptr, bus, address),
                                                            zq_ReleaseTarvik);
    if (!camera) {
        std::fprintf(stderr, "\nno camera found\n");
        return 1;
    }

    _VERSION_PARAM version{};
    HRESULT hr = camera->zq_ReadVersion(&version);
    if (hr != 0) {
        std::fprintf(stderr, "\nreading the version failed: 0x%x\n", static_cast<unsigned>(hr));
        return 1;
    }
    std::string text;
    for (unsigned char c : version.version) {
        if (c == 0) break;
        text += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
    }

    // Identity cards are read through the SAM item, with the read retry routine
    // as a fallback, as the library's own operations do.
    auto* impl = static_cast<TarvikImpl*>(camera.get());
    _SAM_IN_PARAM in{SAM_CMD_READ_CARD};
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    hr = impl->ReadByExtItem(EXT_ITEM_SAM, &in, out.get());
    if (hr != 0) hr = impl->RetryReadByExtCmd(EXT_ITEM_SAM, &in, out.get());
    std::fflush(stdout);
    if (hr != 0 || (out->result != 0 && out->result != 1)) {
        std::fprintf(stderr, "\nreading the card failed: hr=0x%x result=%d\n",
                     static_cast<unsigned>(hr), out->result);
        return 1;
    }
    std::fprintf(stderr, "\nversion: %s\nname: %s\nsex: %s\nnation: %s\nid: %s\n", text.c_str(),
                 ToUtf8(out->name).c_str(), ToUtf8(out->sex).c_str(), ToUtf8(out->nation).c_str(),
                 ToUtf8(out->id_number).c_str());
    return 0;
}
