// The service's names on the bus: tarvikd and every client of it (tarvikctl,
// the browser bridge) spell them from here.
#pragma once

namespace tarvik::bus {

inline constexpr char kBusName[] = "org.tarvik.Tarvik1";
inline constexpr char kManagerPath[] = "/org/tarvik/Tarvik1";
inline constexpr char kCameraPrefix[] = "/org/tarvik/Tarvik1/camera";
inline constexpr char kManagerInterface[] = "org.tarvik.Tarvik1.Manager";
inline constexpr char kCameraInterface[] = "org.tarvik.Tarvik1.Camera";
// Followed by the library's name of the result ("LIBUSB_ERROR_TIMEOUT").
inline constexpr char kErrorPrefix[] = "org.tarvik.Tarvik1.Error.";

}  // namespace tarvik::bus
