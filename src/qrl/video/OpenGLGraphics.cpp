#include "qrl/video/OpenGLGraphics.h"

#include <array>
#include <mutex>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/VideoPlatform.h"

namespace qrl {

namespace {

// The cache has its own lock so that callers on different threads are safe,
// though the framework only uses it from one thread at a time.
std::mutex gCacheMutex;
Dictionary& cache() {
    static Dictionary* c = new Dictionary();  // lives for the process
    return *c;
}

}  // namespace

std::string OpenGLGraphics::infoForScreen(const NSScreen* screen) {
    if (!screen) return "<screen is nil>";
    std::string out;
    for (const auto& [key, value] : screen->deviceDescription()) appendFormat(out, "  %@ = %@\r\n", key, value);
    return out;
}

std::unique_ptr<GLContext> OpenGLGraphics::setupOpenGLContext(CGDirectDisplayID display) {
    const auto displays = VideoPlatform::displayServer();
    const auto devices = VideoPlatform::graphicsDevices();
    // Full screen, display mask, the mask, end.
    std::array<int32_t, 4> attributes{kCGLPFAFullScreen, kCGLPFADisplayMask, 0, 0};
    const uint32_t mask = displays->displayIDToOpenGLDisplayMask(display);
    attributes[2] = static_cast<int32_t>(mask);
    std::unique_ptr<GLPixelFormat> format;
    const CGLError err = devices->choosePixelFormat(attributes, format);
    if (!format) {
        const CGDirectDisplayID mainDisplay = displays->mainDisplayID();
        QRLLogWarn("About to throw exception because we cannot get pixel format.");
        QRLLogWarn(" CGLChoosePixelFormat err = %ld", static_cast<long>(err));
        QRLLogWarn(" Requesting display: %ld", static_cast<long>(display));
        QRLLogWarn(" Requesting display mask: %ld", static_cast<long>(mask));
        QRLLogWarn(" Main display: %ld", static_cast<long>(mainDisplay));
        const auto wanted = DisplaysProvider::screenForDisplayID(display);
        const auto mainScreen = DisplaysProvider::screenForDisplayID(mainDisplay);
        const std::string debugInfo = qrl::format("\r\nWanted display:\r\n%@\r\n\r\nMain display:\r\n%@",
                                                  infoForScreen(wanted.get()), infoForScreen(mainScreen.get()));
        const Value details(DisplaysProvider::detailFor(display));
        QRLLogWarn("Details for display ID %ld, %@", static_cast<long>(display), details);
        QRLLogWarn("Debug info: %@", debugInfo);
        Exception::raise("NoAcceleratedRenderer",
                         qrl::format("Failed to get a pixel format for display %ld. Details: %@, Debug info: %@",
                                     static_cast<long>(display), details, debugInfo));
    }
    return devices->createContext(*format, nullptr);
}

std::string OpenGLGraphics::cardDescription(CGDirectDisplayID display) {
    std::unique_ptr<GLContext> context = setupOpenGLContext(display);
    if (!context) return "None";
    context->lock();
    std::optional<std::string> renderer = context->getString(GL_RENDERER);
    context->unlock();
    context.reset();
    // A context that names no renderer answers empty text, not a failure.
    return renderer.value_or(std::string());
}

std::string OpenGLGraphics::cardDescription() {
    {
        std::lock_guard lock(gCacheMutex);
        if (const Value* v = cache().find(kGCardDescription)) return v->stringValue();
    }
    const std::string card = cardDescription(VideoPlatform::displayServer()->mainDisplayID());
    std::lock_guard lock(gCacheMutex);
    cache().set(std::string(kGCardDescription), Value(card));
    return card;
}

void OpenGLGraphics::setCacheValue(const Value& value, std::string_view key) {
    if (value.isNull()) {
        Exception::raise("NSInvalidArgumentException",
                         qrl::format("*** setObjectForKey: object cannot be nil (key: %@)", key));
    }
    std::lock_guard lock(gCacheMutex);
    cache().set(std::string(key), value);
}

Value OpenGLGraphics::cacheValueForKey(std::string_view key) {
    std::lock_guard lock(gCacheMutex);
    return cache().get(key);
}

void OpenGLGraphics::reset() {
    std::lock_guard lock(gCacheMutex);
    cache().clear();
}

void OpenGLGraphics::raiseForGlErrorGlError(std::string_view format, uint32_t glError) {
    if (glError != GL_NO_ERROR) Exception::raise("OpenGLPop", qrl::format(format, glError));
}

void OpenGLGraphics::raiseForGlErrorContext(std::string_view format, GLContext* context) {
    if (!context) return;
    context->lock();
    uint32_t error = GL_NO_ERROR;
    try {
        error = context->getError();
    } catch (...) {
        context->unlock();
        throw;
    }
    context->unlock();
    raiseForGlErrorGlError(format, error);
}

void OpenGLGraphics::raiseForGlError(std::string_view format) { raiseForGlErrorContext(format, GLContext::current()); }

}  // namespace qrl
