// What a TarvikImpl holds beyond its described members: how the camera is
// reached. Internal to the library.
#ifndef TARVIK_PRIVATE_H
#define TARVIK_PRIVATE_H

#include <memory>

#include "transport.h"

namespace tarvik {

class TarvikPrivate {
public:
    // Null while no device is open.
    std::unique_ptr<Transport> transport;
};

}  // namespace tarvik

#endif
