// OpenGLGraphics: class-level GL facts: whether a display can have an
// accelerated context (a test context), the card name behind a display, a
// small cache of such facts, the read-back pixel type, and GL errors turned
// into exceptions.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "qrl/foundation/Value.h"
#include "qrl/video/GLContext.h"
#include "qrl/video/NSScreen.h"

namespace qrl {

inline constexpr std::string_view kGCardDescription = "kGCardDescription";

class OpenGLGraphics {
public:
    OpenGLGraphics() = delete;

    // One "  %@ = %@\r\n" line per entry of the screen's device description;
    // "<screen is nil>" for null.
    static std::string infoForScreen(const NSScreen* screen);

    // A test context on the renderer that drives the display: a full-screen
    // pixel format for the display's mask, then a context without sharing.
    // When no format can be had, logs the request at warning and raises
    // "NoAcceleratedRenderer" with "Failed to get a pixel format for display
    // %ld. Details: %@, Debug info: %@" (the display's details and both the
    // wanted and the main screen's descriptions). The context is not checked:
    // null reaches the caller. The caller owns the result.
    static std::unique_ptr<GLContext> setupOpenGLContext(CGDirectDisplayID display);

    // GL_RENDERER of a test context on the display; "None" when the context
    // could not be made; empty when the context names no renderer. Raises as
    // setupOpenGLContext does.
    static std::string cardDescription(CGDirectDisplayID display);
    // The card of the main display, asked once and then read from the cache
    // under kGCardDescription until reset().
    static std::string cardDescription();

    // The cache of facts. A null value raises "NSInvalidArgumentException".
    static void setCacheValue(const Value& value, std::string_view key);
    // A null Value when absent.
    static Value cacheValueForKey(std::string_view key);
    // Forgets everything in the cache.
    static void reset();

    // GL_UNSIGNED_INT_8_8_8_8: the type in which pixels are read back.
    static uint64_t pixelFormatType() { return GL_UNSIGNED_INT_8_8_8_8; }
    static bool requiresColorCorrection() { return false; }

    // Raise "OpenGLPop" with `format` (one numeric conversion, such as "%ld")
    // formatted with the error code, when the code is not GL_NO_ERROR:
    // - for a code in hand;
    static void raiseForGlErrorGlError(std::string_view format, uint32_t glError);
    // - for glGetError of `context`, read under the context's lock; a null
    //   context does nothing;
    static void raiseForGlErrorContext(std::string_view format, GLContext* context);
    // - for the calling thread's current context.
    static void raiseForGlError(std::string_view format);
};

}  // namespace qrl
