// ContextManager: the interface through which capture and compositing code
// reaches GL contexts and everything that lives in them (texture manager,
// frame buffers, fragment shaders): selection and locking by index, saving
// and restoring the calling thread's context, error checks, teardown and the
// leak report. ContextManagerCleanupCallback hears of a manager's end.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "qrl/foundation/Value.h"
#include "qrl/video/GLContext.h"
#include "qrl/foundation/Geometry.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/NSScreen.h"

namespace qrl {

struct Bundle;
class ContextManager;
class FragmentShader;
class FrameBuffer;
class TextureManager;

class ContextManagerCleanupCallback {
public:
    virtual ~ContextManagerCleanupCallback() = default;
    // Called from the manager's destructor, after its teardown; the manager
    // is valid only for the duration of the call.
    virtual void contextManagerHasCleanedUp(ContextManager* manager) = 0;
};

// A GLContext* stands for the platform's context handle; a
// std::shared_ptr<GLContext> for the context object that owns it.
class ContextManager {
public:
    virtual ~ContextManager() = default;

    virtual void beginReportingLeakedResources() = 0;
    // Index of the context in the list; -1 when absent.
    virtual int32_t getIndexOfContext(const GLContext* context) = 0;
    virtual std::shared_ptr<GLContext> currentNSOpenGLContext() = 0;
    virtual std::shared_ptr<GLContext> nsOpenGLContextAtIndex(int32_t index) = 0;
    // Selects the context and makes it the calling thread's current one.
    // 10006 when the manager is not valid; raises "InvalidContext" for an
    // index out of range.
    virtual CGLError setCurrentContext(int32_t index) = 0;
    virtual CGDirectDisplayID displayIDForContextIndex(int32_t index) = 0;
    virtual CGDirectDisplayID displayIDForCurrentContext() = 0;
    virtual bool hasSignificantChangeInRenderer(const Value& rendererID) = 0;
    // Locks the selected context (recursively) and answers it; null when
    // none is selected.
    virtual GLContext* lockCurrentContext() = 0;
    virtual GLContext* lockContext(int32_t index) = 0;
    // As setCurrentContext, but a bad index clears the selection and answers 10006.
    virtual CGLError makeContextCurrent(int32_t index) = 0;
    virtual void unlockContextAtIndex(int32_t index) = 0;
    // Null is ignored.
    virtual void unlockCGLContext(GLContext* context) = 0;
    virtual void flushFirstNSOpenGLContext() = 0;
    virtual void makeCurrentContextCurrent() = 0;
    virtual void setCurrentContextFullScreen() = 0;
    // One slot: a pair must be closed before the next opens, on one thread.
    virtual GLContext* saveCurrentContextAndLock(int32_t index) = 0;
    virtual void restoreSavedContextAndUnlock(GLContext* context) = 0;
    virtual std::shared_ptr<FrameBuffer> allocateFrameBuffer() = 0;
    virtual void releaseFrameBuffer(FrameBuffer* frameBuffer) = 0;
    virtual std::shared_ptr<FragmentShader> createNewFragmentShaderFromSource(std::string_view source) = 0;
    virtual std::shared_ptr<FragmentShader> createNewFragmentShaderUsingResource(std::string_view name) = 0;
    virtual std::shared_ptr<FragmentShader> createNewFragmentShaderUsingResource(
        std::string_view name, std::shared_ptr<const Bundle> bundle) = 0;
    virtual void releaseFragmentShader(FragmentShader* shader) = 0;
    // `text` is a format whose one numeric conversion (if any) receives the
    // GL error code; a text filled in beforehand must have its '%' doubled.
    // Raises "OpenGLError" with "%@, OpenGL Error: %d".
    virtual void checkOpenGLError(std::string_view text) = 0;
    virtual void checkOpenGLError(std::string_view text, GLContext* context) = 0;
    virtual std::shared_ptr<TextureManager> textureManager() = 0;
    virtual std::shared_ptr<ContextManagerCleanupCallback> cleanupCallback() = 0;
    virtual void setCleanupCallback(std::shared_ptr<ContextManagerCleanupCallback> callback) = 0;
    virtual int32_t numberOfContexts() = 0;
    virtual Value rendererID() = 0;
    virtual CGSize maximumTextureSize() = 0;
    virtual bool valid() = 0;
    // Teardown: shaders, frame buffers, texture manager, then the contexts
    // from last to first. Safe to call twice.
    virtual void cleanUp() = 0;
    virtual std::string description() = 0;
};

// Doubles every '%' so that a text filled in beforehand passes through a
// format unchanged.
std::string escapeFormatText(std::string_view text);

// Runs work(GLContext&) on the manager's selected context under its lock,
// released on every exit, exceptions included; does nothing without a
// manager or a selected context.
template <class F>
void withCurrentContextLocked(ContextManager* manager, F&& work) {
    if (!manager) return;
    GLContext* context = manager->lockCurrentContext();
    if (!context) return;
    try {
        work(*context);
    } catch (...) {
        manager->unlockCGLContext(context);
        throw;
    }
    manager->unlockCGLContext(context);
}

}  // namespace qrl
