// Opening the chosen camera, and telling why it could not be opened: no such
// camera, no access, in use by another program, or gone.
#pragma once

#include <tarvik.h>

#include <vector>

#include "reply.h"
#include "session.h"

namespace tarvikctl {

constexpr const char* kCameraIds = "0ac8:010c";

// tarvik_open's options for a selection; they point into it, so it must outlive them.
struct OpenRequest {
    explicit OpenRequest(const Selection& selection);
    tarvik_open_options options;
};

// Every camera tarvik_list finds. Throws ToolError when it fails.
std::vector<tarvik_camera_info> ListCameras();

// tarvik_open's result for the selection as an error (no camera, exit 3) that says
// what to do about it.
ToolError OpenError(int result, const Selection& selection);

}  // namespace tarvikctl
