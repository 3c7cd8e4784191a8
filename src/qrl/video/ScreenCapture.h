// ScreenCapture: the port through which a recorder copies the pixels of one
// display, frame by frame, as 8-bit BGRA (the fourth byte undefined), and
// learns that the display changed size or went away. Backends: x11/
// (MIT-SHM). openScreenCapture picks the one of the installed display server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "qrl/foundation/Geometry.h"
#include "qrl/video/NSScreen.h"

namespace qrl {

class DisplayServer;

// One thread at a time.
class ScreenCapture {
public:
    enum class Result {
        Captured,  // pixels() holds the display's current picture
        Changed,   // the display's size changed: the capture ends
        Gone,      // the display is no longer there: the capture ends
        Failed,    // the server refused or was lost; failure() says why
    };

    virtual ~ScreenCapture() = default;
    virtual std::string_view backendName() const = 0;
    virtual Result capture() = 0;
    // The picture of the last Captured: height() rows of stride() bytes.
    virtual const uint8_t* pixels() const = 0;
    virtual size_t stride() const = 0;
    // The size the capture was opened with, in pixels.
    virtual int width() const = 0;
    virtual int height() const = 0;
    // Whether pixels arrive through shared memory rather than the connection.
    virtual bool sharedMemory() const = 0;
    // Why the last capture was not Captured.
    virtual std::string failure() const = 0;
};

// A capture of `display` on the installed display server's backend; null,
// with the reason at *whyNot when given, where the backend has none.
std::unique_ptr<ScreenCapture> openScreenCapture(DisplayServer& server, CGDirectDisplayID display,
                                                 std::string* whyNot = nullptr);

}  // namespace qrl
