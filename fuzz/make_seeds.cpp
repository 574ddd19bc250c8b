// Writes the seed corpora: what the simulated camera answers for every SAM
// command and every readable item, as scripts, and its card's text block.
//   make_seeds DIR    (creates DIR/<target>/ with one file per seed)
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "camera_model.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void Write(const std::string& dir, const std::string& name, const Bytes& bytes) {
    mkdir(dir.c_str(), 0755);
    FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
    if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
        std::perror(name.c_str());
        std::exit(1);
    }
    std::fclose(f);
}

// The script of one read: the marker and the request succeed, then each answer
// frame the camera gives (`frames`; 0: as many as its SAM packet needs).
Bytes Exchange(tarvik::sim::CameraModel& camera, const Bytes& request, size_t frames) {
    camera.Handle({0x21, 0x01, 14 << 8, 0x0500, 60}, request);
    Bytes script = {0x00, 0x00};
    for (size_t i = 0; i == 0 || i < frames; ++i) {
        const Bytes frame = camera.Handle({0xA1, 0x81, 14 << 8, 0x0500, 60}, {}).data;
        if (i == 0 && frames == 0) frames = 1 + ((frame[8] << 8 | frame[9]) + 2 + 51 - 52) / 52;
        script.push_back(0x00);
        script.insert(script.end(), frame.begin(), frame.end());
    }
    return script;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string root = argv[1];
    mkdir(root.c_str(), 0755);
    tarvik::sim::CameraModel camera;
    for (std::uint8_t cmd : {0, 1, 2, 3, 4, 6, 7}) {
        Bytes request(60, 0);
        request[1] = 0x10;
        request[4] = 12;
        request[8] = cmd;
        request[12] = 1;
        Bytes seed = {0, cmd};
        const Bytes script = Exchange(camera, request, cmd >= 6 ? 1 : 0);
        seed.insert(seed.end(), script.begin(), script.end());
        Write(root + "/fuzz_transactions", "sam" + std::to_string(cmd), seed);
        if (cmd == 3) {  // the text block: packet bytes 9-264, from frame byte 8 on
            const Bytes text(script.begin() + 3 + 8 + 9, script.begin() + 3 + 8 + 9 + 256);
            Bytes card = {3};
            card.insert(card.end(), text.begin(), text.end());
            Write(root + "/fuzz_text", "card", card);
        }
    }
    for (std::uint8_t item = 1; item <= 18; ++item) {
        Bytes request(60, 0);
        request[1] = 0x10;
        request[4] = item;
        Bytes seed = {1, item};
        const Bytes script = Exchange(camera, request, 1);
        seed.insert(seed.end(), script.begin(), script.end());
        Write(root + "/fuzz_transactions", "item" + std::to_string(item), seed);
    }
    Write(root + "/fuzz_text", "utf8",
          {1, 0x41, 0xC3, 0xA9, 0xE4, 0xB8, 0xAD, 0xF0, 0x9F, 0x98, 0x80});
    return 0;
}
