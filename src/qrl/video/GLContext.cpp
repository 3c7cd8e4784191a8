#include "qrl/video/GLContext.h"

#include <algorithm>
#include <vector>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"

namespace qrl {

namespace {

thread_local GLContext* tCurrent = nullptr;
// The context bound on this thread (through the backend), if any.
thread_local GLContext* tBound = nullptr;
// The contexts this thread holds locked, in the order it took them.
thread_local std::vector<GLContext*> tHeld;

bool heldHere(const GLContext* c) { return std::find(tHeld.begin(), tHeld.end(), c) != tHeld.end(); }

void forgetHeld(const GLContext* c) {
    const auto it = std::find(tHeld.begin(), tHeld.end(), c);
    if (it != tHeld.end()) tHeld.erase(it);
}

}  // namespace

GLContext::~GLContext() {
    if (tCurrent == this) tCurrent = nullptr;
    if (tBound == this) tBound = nullptr;
    forgetHeld(this);
}

std::string GLContext::description() const { return qrl::format("<%@ GL context %p>", backendName(), this); }

void GLContext::detachFromCallingThread() {
    if (tCurrent == this) tCurrent = nullptr;
    forgetHeld(this);
    if (tBound == this) unbindHere();
}

void GLContext::bindHere() {
    GLContext* previous = tBound;
    if (!bindToCallingThread()) return;
    tBound = this;
    if (previous && previous != this) previous->bindingReplaced();
}

void GLContext::unbindHere() {
    releaseFromCallingThread();
    tBound = nullptr;
}

void GLContext::lock() {
    const std::thread::id me = std::this_thread::get_id();
    int depth = 0;
    {
        std::unique_lock l(stateMutex_);
        if (owner_ == me && depth_ > 0) {
            depth = ++depth_;
        } else {
            released_.wait(l, [&] { return depth_ == 0; });
            owner_ = me;
            depth = depth_ = 1;
        }
    }
    if (depth == 1) {
        tHeld.push_back(this);
        if (tBound != this) bindHere();
    }
    lockEvent(true, depth);
}

bool GLContext::unlock() {
    const std::thread::id me = std::this_thread::get_id();
    bool refused = false;
    bool last = false;
    int depthAfter = 0;
    {
        std::lock_guard l(stateMutex_);
        if (owner_ != me || depth_ == 0) {
            refused = true;
            ++refused_;
        } else if (depth_ == 1) {
            last = true;  // released below, after the thread lets go of the binding
        } else {
            depthAfter = --depth_;
        }
    }
    if (refused) {
        lockEvent(false, -1);
        if (tBound == this && !heldHere(this)) {
            // The thread went on with GL work after its lock ran out (the
            // frame-buffer bracket does): the binding made outside the lock
            // ends here, and the refusal is only counted.
            unbindHere();
        } else if (!reportedRefusal_.exchange(true)) {
            platformLogFormat("GL context %p: unlock by a thread that does not hold it was refused", this);
        }
        return false;
    }
    if (!last) {
        lockEvent(false, depthAfter);
        return true;
    }
    lockEvent(false, 0);
    forgetHeld(this);
    if (tBound == this) {
        if (!tHeld.empty()) tHeld.back()->bindHere();
        else unbindHere();
    }
    {
        std::lock_guard l(stateMutex_);
        depth_ = 0;
        owner_ = std::thread::id();
    }
    released_.notify_all();
    return true;
}

int GLContext::lockDepth() const {
    std::lock_guard l(stateMutex_);
    return depth_;
}

bool GLContext::heldByCallingThread() const {
    std::lock_guard l(stateMutex_);
    return depth_ > 0 && owner_ == std::this_thread::get_id();
}

uint64_t GLContext::refusedUnlocks() const {
    std::lock_guard l(stateMutex_);
    return refused_;
}

const GLFunctions& GLContext::gl() {
    if (tBound != this) bindHere();
    return functions_;
}

bool GLContext::hasExtension(std::string_view name) {
    std::call_once(extensionsOnce_, [this] {
        lock();
        if (const auto get = gl().glGetString) {
            if (const GLubyte* s = get(GL_EXTENSIONS)) extensions_ = reinterpret_cast<const char*>(s);
        }
        unlock();
    });
    return glExtensionListHas(extensions_.c_str(), std::string(name).c_str());
}

std::optional<std::string> GLContext::getString(uint32_t name) {
    std::optional<std::string> out;
    lock();
    if (const auto get = gl().glGetString) {
        if (const GLubyte* s = get(name)) out = std::string(reinterpret_cast<const char*>(s));
    }
    unlock();
    return out;
}

uint32_t GLContext::getError() {
    uint32_t e = GL_NO_ERROR;
    lock();
    if (const auto get = gl().glGetError) e = get();
    unlock();
    return e;
}

bool GLContext::makeCurrent() {
    tCurrent = this;
    return true;
}

GLContext* GLContext::current() { return tCurrent; }

void GLContext::setCurrent(GLContext* context) { tCurrent = context; }

void GLContext::clearCurrent() { tCurrent = nullptr; }

GLContext* GLContext::boundOnCallingThread() { return tBound; }

}  // namespace qrl
