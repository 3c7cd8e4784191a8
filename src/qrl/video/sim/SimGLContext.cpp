// The simulated context object: binding and locking as the GL context base
// class drives them, and the inspection interface tests read (state queries,
// the journal, injected errors). The entry points live in SimGLEntryPoints.cpp.
#include "qrl/video/sim/SimGLContext.h"

#include <thread>

#include "qrl/foundation/Format.h"
#include "qrl/video/sim/detail/SimGLState.h"

namespace qrl {

namespace {

// Runs `access` on a context's state or share group under its mutex.
template <class Shared, class Access>
auto locked(Shared& shared, Access&& access) {
    std::lock_guard lock(shared.mutex);
    return access(shared);
}

// The entry for `key`, or null.
template <class Map, class Key>
const typename Map::mapped_type* lookup(const Map& map, const Key& key) {
    const auto it = map.find(key);
    return it == map.end() ? nullptr : &it->second;
}

}  // namespace

SimGLContext::SimGLContext(SimRenderer renderer, std::shared_ptr<std::atomic<int>> alive,
                           std::shared_ptr<SimGLShareGroup> shareGroup)
    : renderer_(std::move(renderer)),
      alive_(std::move(alive)),
      group_(shareGroup ? std::move(shareGroup) : std::make_shared<SimGLShareGroup>()),
      state_(std::make_unique<SimGLState>()) {
    if (alive_) ++*alive_;
    setFunctions(simGLFunctions());
}

SimGLContext::~SimGLContext() {
    detachFromCallingThread();
    if (alive_) --*alive_;
}

const void* SimGLContext::shareGroup() const { return group_.get(); }

bool SimGLContext::bindToCallingThread() {
    return locked(*state_, [](SimGLState& s) {
        const auto me = std::this_thread::get_id();
        if (s.boundThread != std::thread::id() && s.boundThread != me) {
            // As EGL answers EGL_BAD_ACCESS for a context current on another thread.
            s.journal.push_back("bind refused");
            return false;
        }
        s.boundThread = me;
        return true;
    });
}

void SimGLContext::releaseFromCallingThread() {
    locked(*state_, [](SimGLState& s) {
        if (s.boundThread == std::this_thread::get_id()) s.boundThread = std::thread::id();
    });
}

void SimGLContext::bindingReplaced() { releaseFromCallingThread(); }

void SimGLContext::lockEvent(bool locking, int depthAfter) {
    if (locking && depthAfter == 1) ++locks_;
    locked(*state_, [&](SimGLState& s) {
        if (depthAfter < 0) s.journal.emplace_back("unlock refused");
        else s.journal.push_back(qrl::format(locking ? "lock %d" : "unlock %d", depthAfter));
    });
}

// --- Errors ---

void SimGLContext::pushError(uint32_t error) {
    locked(*state_, [&](SimGLState& s) {
        if (s.error == GL_NO_ERROR) s.error = error;
        else s.queued.push_back(error);
    });
}

void SimGLContext::failNextCall(const std::string& function, uint32_t error) {
    locked(*state_, [&](SimGLState& s) { s.failNext[function] = error; });
}

void SimGLContext::forceFramebufferStatus(GLenum status) {
    locked(*state_, [&](SimGLState& s) { s.forcedStatus = status; });
}

// --- Inspection ---

std::vector<std::string> SimGLContext::journal() const {
    return locked(*state_, [](const SimGLState& s) { return s.journal; });
}

void SimGLContext::clearJournal() {
    locked(*state_, [](SimGLState& s) { s.journal.clear(); });
}

uint64_t SimGLContext::callsWithoutContext() { return simGLCallsWithoutContext(); }

GLenum SimGLContext::pendingError() const {
    return locked(*state_, [](const SimGLState& s) { return s.error; });
}

GLuint SimGLContext::textureBinding(GLenum target) const {
    return locked(*state_, [&](const SimGLState& s) {
        const GLuint* bound = lookup(s.textureBindings, target);
        return bound ? *bound : 0;
    });
}

std::optional<SimTexture> SimGLContext::texture(GLuint name) const {
    return locked(*group_, [&](const SimGLShareGroup& g) -> std::optional<SimTexture> {
        const SimTexture* t = lookup(g.textures, name);
        if (!t) return std::nullopt;
        return *t;
    });
}

size_t SimGLContext::textureCount() const {
    return locked(*group_, [](const SimGLShareGroup& g) { return g.textures.size(); });
}

bool SimGLContext::isEnabled(GLenum cap) const {
    return locked(*state_, [&](const SimGLState& s) { return s.enabled.count(cap) != 0; });
}

std::vector<GLint> SimGLContext::viewport() const {
    return locked(*state_, [](const SimGLState& s) { return s.viewport; });
}

GLint SimGLContext::pixelStore(GLenum pname) const {
    return locked(*state_, [&](const SimGLState& s) {
        const GLint* value = lookup(s.pixelStore, pname);
        return value ? *value : 0;
    });
}

GLuint SimGLContext::drawFramebuffer() const {
    return locked(*state_, [](const SimGLState& s) { return s.drawFbo; });
}

GLuint SimGLContext::readFramebuffer() const {
    return locked(*state_, [](const SimGLState& s) { return s.readFbo; });
}

GLuint SimGLContext::framebufferAttachment(GLuint framebuffer, GLenum attachment) const {
    return locked(*state_, [&](const SimGLState& s) {
        const auto* attachments = lookup(s.fbos, framebuffer);
        const GLuint* texture = attachments ? lookup(*attachments, attachment) : nullptr;
        return texture ? *texture : 0;
    });
}

size_t SimGLContext::framebufferCount() const {
    return locked(*state_, [](const SimGLState& s) { return s.fbos.size(); });
}

GLenum SimGLContext::drawBuffer() const {
    return locked(*state_, [](const SimGLState& s) { return s.drawBuffer; });
}

int SimGLContext::matrixDepth(GLenum mode) const {
    return locked(*state_, [&](const SimGLState& s) {
        const auto* stack = lookup(s.matrices, mode);
        return stack ? static_cast<int>(stack->size()) : 0;
    });
}

std::string SimGLContext::matrixTop(GLenum mode) const {
    return locked(*state_, [&](const SimGLState& s) {
        const auto* stack = lookup(s.matrices, mode);
        return stack ? stack->back() : std::string();
    });
}

GLenum SimGLContext::matrixMode() const {
    return locked(*state_, [](const SimGLState& s) { return s.matrixMode; });
}

int SimGLContext::attribDepth() const {
    return locked(*state_, [](const SimGLState& s) { return static_cast<int>(s.attribs.size()); });
}

GLhandleARB SimGLContext::programInUse() const {
    return locked(*state_, [](const SimGLState& s) { return s.program; });
}

size_t SimGLContext::objectCount() const {
    return locked(*group_, [](const SimGLShareGroup& g) { return g.objects.size(); });
}

bool SimGLContext::objectExists(GLhandleARB object) const {
    return locked(*group_, [&](const SimGLShareGroup& g) { return g.objects.count(object) != 0; });
}

std::optional<std::string> SimGLContext::uniformValue(GLhandleARB program, const std::string& name) const {
    return locked(*group_, [&](const SimGLShareGroup& g) -> std::optional<std::string> {
        const SimShaderObject* p = lookup(g.objects, program);
        const GLint* location = p ? lookup(p->uniforms, name) : nullptr;
        const std::string* value = location ? lookup(p->values, *location) : nullptr;
        if (!value) return std::nullopt;
        return *value;
    });
}

std::vector<GLfloat> SimGLContext::blendAndColour() const {
    return locked(*state_, [](const SimGLState& s) {
        return std::vector<GLfloat>{static_cast<GLfloat>(s.blendSrc), static_cast<GLfloat>(s.blendDst), s.colour[0],
                                    s.colour[1], s.colour[2], s.colour[3]};
    });
}

}  // namespace qrl
