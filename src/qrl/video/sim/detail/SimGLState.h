// The fake GL's state, shared by its entry points (SimGLEntryPoints.cpp) and
// the context object with its inspection interface (SimGLContext.cpp).
// Private to the simulated video backend.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qrl/video/sim/SimGLContext.h"

namespace qrl {

struct SimShaderObject {
    bool program = false;
    GLenum type = 0;
    std::string source;
    bool compiled = false;
    bool linked = false;
    bool validated = false;
    std::string infoLog;
    std::vector<GLhandleARB> attached;
    std::map<std::string, GLint> uniforms;  // active uniforms of a linked program
    std::map<GLint, std::string> values;    // by location
};

struct SimBuffer {
    std::vector<uint8_t> data;
    bool immutable = false;
    GLbitfield flags = 0;
    bool mapped = false;
};

struct SimGLShareGroup {
    std::mutex mutex;
    GLuint nextTexture = 1;
    std::map<GLuint, SimTexture> textures;
    GLhandleARB nextObject = 1;
    std::map<GLhandleARB, SimShaderObject> objects;
    GLuint nextBuffer = 1;
    std::map<GLuint, SimBuffer> buffers;
};

// What glPushAttrib saves.
struct SimGLAttribSnapshot {
    std::set<GLenum> enabled;
    std::vector<GLint> viewport;
    GLfloat clear[4];
    GLenum blendSrc, blendDst;
    GLfloat colour[4];
    GLenum matrixMode;
    GLenum drawBuffer;
    std::map<GLenum, GLuint> textureBindings;
};

struct SimGLState {
    mutable std::mutex mutex;
    std::thread::id boundThread;
    GLenum error = GL_NO_ERROR;
    std::deque<GLenum> queued;
    std::map<std::string, GLenum> failNext;
    GLenum forcedStatus = 0;
    std::vector<std::string> journal;
    std::map<GLenum, GLuint> textureBindings;
    std::set<GLenum> enabled;
    std::map<GLenum, GLint> pixelStore{{GL_PACK_ROW_LENGTH, 0},
                                       {GL_UNPACK_ROW_LENGTH, 0},
                                       {GL_PACK_ALIGNMENT, 4},
                                       {GL_UNPACK_ALIGNMENT, 4},
                                       {GL_UNPACK_CLIENT_STORAGE_APPLE, 0}};
    std::vector<GLint> viewport{0, 0, 0, 0};
    GLfloat clear[4]{0, 0, 0, 0};
    GLenum blendSrc = GL_ONE, blendDst = GL_ZERO;
    GLfloat colour[4]{1, 1, 1, 1};
    GLenum matrixMode = GL_MODELVIEW;
    std::map<GLenum, std::vector<std::string>> matrices{
        {GL_MODELVIEW, {"identity"}}, {GL_PROJECTION, {"identity"}}, {GL_TEXTURE, {"identity"}}};
    std::vector<SimGLAttribSnapshot> attribs;
    GLuint drawFbo = 0, readFbo = 0, nextFbo = 1;
    std::map<GLuint, std::map<GLenum, GLuint>> fbos;
    GLenum drawBuffer = GL_BACK;
    GLhandleARB program = 0;
    std::map<GLenum, GLuint> bufferBindings;
    bool inBegin = false;
    uint64_t nextSync = 1;
};

struct SimGLAccess {
    static SimGLState& state(SimGLContext& c) { return *c.state_; }
    static SimGLShareGroup& group(SimGLContext& c) { return *c.group_; }
    static const SimRenderer& renderer(SimGLContext& c) { return c.renderer_; }
};

// The fake's function table, one entry point per GL function.
GLFunctions simGLFunctions();
// Fake GL calls that found no fake context bound on their thread.
uint64_t simGLCallsWithoutContext();

}  // namespace qrl
