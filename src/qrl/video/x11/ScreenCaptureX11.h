// ScreenCaptureX11: copies the pixels of one XRandR monitor of an X server
// from the root window, through a shared memory segment (MIT-SHM) where the
// server offers it. A remote server, or one without MIT-SHM, sends each
// frame over the connection instead (XGetImage), which is slower but the
// same picture. The monitor is looked up by its name atom (the display ID of
// DisplayServerX11) before each frame, which is how a change of size or a
// removal is noticed. Only 24- and 32-bit TrueColor screens with 8-bit
// channels in 32-bit pixels are taken (every X server of this decade); others
// are refused when opened.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "qrl/video/ScreenCapture.h"
#include "qrl/video/x11/X11Handles.h"

struct _XImage;

namespace qrl {

class ScreenCaptureX11 final : public ScreenCapture {
public:
    // Connects to `displayName` (null: $DISPLAY) and prepares the capture
    // of the monitor whose name atom is `display`; null, with the reason at
    // *whyNot when given, on failure.
    static std::unique_ptr<ScreenCaptureX11> open(const char* displayName, CGDirectDisplayID display,
                                                  std::string* whyNot = nullptr);
    ~ScreenCaptureX11() override;

    std::string_view backendName() const override { return "x11"; }
    Result capture() override;
    const uint8_t* pixels() const override;
    size_t stride() const override;
    int width() const override { return width_; }
    int height() const override { return height_; }
    bool sharedMemory() const override { return shmAttached_; }
    std::string failure() const override { return failure_; }

private:
    ScreenCaptureX11() = default;
    bool locate(int& x, int& y, int& w, int& h, bool& found);
    void releaseImage();

    std::atomic<bool> dead_{false};
    x11::XDisplayHandle display_;
    unsigned long root_ = 0;
    CGDirectDisplayID monitor_ = 0;
    int width_ = 0;
    int height_ = 0;
    int depth_ = 0;
    void* visual_ = nullptr;
    _XImage* image_ = nullptr;      // the shared-memory image, when attached
    _XImage* copied_ = nullptr;     // the last image sent over the connection
    struct Shm;
    std::unique_ptr<Shm> shm_;      // the segment behind image_
    bool shmAttached_ = false;
    std::string failure_;
};

}  // namespace qrl
