// The fake GL's entry points, named as GL names them, and the function table
// that holds them. Each entry point finds the fake context bound on the
// calling thread, journals the call, applies an injected failure and then
// checks its arguments and updates the state as a driver would.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <regex>

#include "qrl/foundation/Format.h"
#include "qrl/video/sim/detail/SimGLState.h"

namespace qrl {

namespace {

std::atomic<uint64_t> gCallsWithoutContext{0};

SimGLContext* boundSim() {
    auto* c = dynamic_cast<SimGLContext*>(GLContext::boundOnCallingThread());
    if (!c) ++gCallsWithoutContext;
    return c;
}

void setError(SimGLState& s, GLenum e) {
    if (s.error == GL_NO_ERROR) s.error = e;
}

bool consumeFailure(SimGLState& s, const char* name) {
    const auto it = s.failNext.find(name);
    if (it == s.failNext.end()) return false;
    setError(s, it->second);
    s.failNext.erase(it);
    return true;
}

// Enters a fake entry point: finds the bound context, locks its state,
// writes the journal and applies an injected failure.
#define SIM_ENTER(ret, name, ...)                                                         \
    SimGLContext* ctx_ = boundSim();                                                      \
    if (!ctx_) return ret;                                                                \
    SimGLState& s = SimGLAccess::state(*ctx_);                                            \
    std::unique_lock stateLock_(s.mutex);                                                 \
    s.journal.push_back(std::string(name) + "(" + qrl::format(__VA_ARGS__) + ")");       \
    if (consumeFailure(s, name)) return ret;                                              \
    SimGLShareGroup& g = SimGLAccess::group(*ctx_);                                       \
    const SimRenderer& r = SimGLAccess::renderer(*ctx_);                                  \
    (void)g;                                                                              \
    (void)r

bool hasExt(const SimRenderer& r, const char* name) { return glExtensionListHas(r.extensions.c_str(), name); }

bool textureTarget(GLenum t) { return t == GL_TEXTURE_2D || t == GL_TEXTURE_3D || t == GL_TEXTURE_RECTANGLE_EXT; }

bool knownCap(GLenum cap) {
    return cap == GL_BLEND || cap == GL_TEXTURE_2D || cap == GL_TEXTURE_3D || cap == GL_TEXTURE_RECTANGLE_EXT;
}

int matrixLimit(GLenum mode) { return mode == GL_MODELVIEW ? 32 : 4; }

GLuint* fboSlot(SimGLState& s, GLenum target) {
    if (target == GL_FRAMEBUFFER_EXT || target == GL_DRAW_FRAMEBUFFER_EXT) return &s.drawFbo;
    if (target == GL_READ_FRAMEBUFFER_EXT) return &s.readFbo;
    return nullptr;
}

GLenum fboStatus(SimGLState& s, SimGLShareGroup& g, GLuint fbo) {
    if (s.forcedStatus) return s.forcedStatus;
    if (fbo == 0) return GL_FRAMEBUFFER_UNDEFINED;  // no window surface: surfaceless
    const auto& attachments = s.fbos[fbo];
    if (attachments.empty()) return GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT_EXT;
    std::lock_guard gl(g.mutex);
    for (const auto& [point, name] : attachments) {
        const auto t = g.textures.find(name);
        if (t == g.textures.end() || !t->second.storage || t->second.width == 0 || t->second.height == 0)
            return GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT_EXT;
    }
    return GL_FRAMEBUFFER_COMPLETE_EXT;
}

size_t bytesPerPixel(GLenum format, GLenum type) {
    if (type == GL_UNSIGNED_INT_8_8_8_8 || type == GL_UNSIGNED_INT_8_8_8_8_REV) return 4;
    if (type == GL_UNSIGNED_SHORT_8_8_MESA || type == GL_UNSIGNED_SHORT_8_8_REV_MESA) return 2;
    const size_t channels = format == GL_RGB ? 3 : 4;
    return channels * (type == GL_UNSIGNED_SHORT ? 2 : 1);
}

// The bytes an upload reads under the unpack state.
size_t imageBytes(const SimGLState& s, GLsizei w, GLsizei h, GLsizei d, GLenum format, GLenum type, bool pack) {
    const size_t bpp = bytesPerPixel(format, type);
    const GLint rowLength = s.pixelStore.at(pack ? GL_PACK_ROW_LENGTH : GL_UNPACK_ROW_LENGTH);
    const size_t align = static_cast<size_t>(s.pixelStore.at(pack ? GL_PACK_ALIGNMENT : GL_UNPACK_ALIGNMENT));
    const size_t rowPixels = static_cast<size_t>(rowLength > 0 ? rowLength : w);
    const size_t stride = (rowPixels * bpp + align - 1) / align * align;
    if (w == 0 || h == 0 || d == 0) return 0;
    return stride * (static_cast<size_t>(h) * static_cast<size_t>(d) - 1) + static_cast<size_t>(w) * bpp;
}

bool validUpload(const SimRenderer& r, GLint internal, GLenum format, GLenum type, GLenum& error) {
    const bool ycbcrMesa = hasExt(r, "GL_MESA_ycbcr_texture");
    const bool ycbcrApple = hasExt(r, "GL_APPLE_ycbcr_422");
    error = GL_INVALID_ENUM;
    switch (format) {
    case GL_BGRA:
    case GL_RGBA:
    case GL_RGB:
        if (type != GL_UNSIGNED_BYTE && type != GL_UNSIGNED_SHORT && type != GL_UNSIGNED_INT_8_8_8_8 &&
            type != GL_UNSIGNED_INT_8_8_8_8_REV)
            return false;
        if (internal == static_cast<GLint>(GL_YCBCR_MESA)) {
            error = GL_INVALID_OPERATION;
            return false;
        }
        break;
    case GL_YCBCR_MESA:
        if (!ycbcrMesa) return false;
        if (type != GL_UNSIGNED_SHORT_8_8_MESA && type != GL_UNSIGNED_SHORT_8_8_REV_MESA) return false;
        if (internal != static_cast<GLint>(GL_YCBCR_MESA)) {
            error = GL_INVALID_OPERATION;
            return false;
        }
        break;
    case GL_YCBCR_422_APPLE:
        if (!ycbcrApple) return false;
        break;
    default: return false;
    }
    switch (internal) {
    case static_cast<GLint>(GL_RGBA):
    case static_cast<GLint>(GL_RGBA8):
    case static_cast<GLint>(GL_RGB):
    case static_cast<GLint>(GL_RGB16):
    case 4:
    case 3: return true;
    case static_cast<GLint>(GL_YCBCR_MESA): return ycbcrMesa;
    default: error = GL_INVALID_VALUE; return false;
    }
}

// Checks an upload's source: a client pointer, or an offset into the bound unpack buffer.
bool uploadSource(SimGLState& s, SimGLShareGroup& g, size_t bytes, const void* pixels, bool& fromBuffer) {
    fromBuffer = false;
    const auto b = s.bufferBindings.find(GL_PIXEL_UNPACK_BUFFER);
    if (b == s.bufferBindings.end() || b->second == 0) return true;
    fromBuffer = true;
    std::lock_guard gl(g.mutex);
    const auto it = g.buffers.find(b->second);
    const auto offset = reinterpret_cast<uintptr_t>(pixels);
    if (it == g.buffers.end() || offset + bytes > it->second.data.size()) return false;
    if (it->second.mapped && !(it->second.flags & GL_MAP_PERSISTENT_BIT)) return false;
    return true;
}

// glPushAttrib saves and glPopAttrib restores these fields, named alike in
// SimGLState and SimGLAttribSnapshot.
template <class From, class To>
void copyAttribs(const From& from, To& to) {
    to.enabled = from.enabled;
    to.viewport = from.viewport;
    std::copy(std::begin(from.clear), std::end(from.clear), to.clear);
    to.blendSrc = from.blendSrc;
    to.blendDst = from.blendDst;
    std::copy(std::begin(from.colour), std::end(from.colour), to.colour);
    to.matrixMode = from.matrixMode;
    to.drawBuffer = from.drawBuffer;
    to.textureBindings = from.textureBindings;
}

void setRGBA(GLfloat (&out)[4], GLfloat red, GLfloat green, GLfloat blue, GLfloat alpha) {
    out[0] = red;
    out[1] = green;
    out[2] = blue;
    out[3] = alpha;
}

// A texture image upload that (re)defines the texture's storage.
void defineImage(SimTexture& t, GLsizei width, GLsizei height, GLsizei depth, GLint internalFormat, GLenum format,
                 GLenum type, bool fromUnpackBuffer) {
    t.width = width;
    t.height = height;
    t.depth = depth;
    t.internalFormat = internalFormat;
    t.format = format;
    t.type = type;
    t.storage = true;
    t.fromUnpackBuffer = fromUnpackBuffer;
    ++t.uploads;
}

std::string matrixProduct(const std::string& top, const std::string& with) {
    return top == "identity" ? with : "unknown";
}

// Compile rules of the fake (see the header).
bool compileSource(const std::string& source, std::string& log) {
    if (const size_t at = source.find("#error"); at != std::string::npos) {
        const size_t end = source.find('\n', at);
        std::string message = source.substr(at + 6, end == std::string::npos ? std::string::npos : end - at - 6);
        while (!message.empty() && message.front() == ' ') message.erase(message.begin());
        const long line = 1 + std::count(source.begin(), source.begin() + static_cast<long>(at), '\n');
        log = qrl::format("0:%ld(1): preprocessor error: %@\n", line, message);
        return false;
    }
    int braces = 0, parens = 0;
    for (const char c : source) {
        braces += c == '{' ? 1 : c == '}' ? -1 : 0;
        parens += c == '(' ? 1 : c == ')' ? -1 : 0;
        if (braces < 0 || parens < 0) break;
    }
    if (braces != 0 || parens != 0) {
        log = "0:1(1): error: syntax error, unexpected end of file\n";
        return false;
    }
    log.clear();
    return true;
}

std::map<std::string, GLint> activeUniforms(const std::string& source) {
    std::map<std::string, GLint> out;
    static const std::regex declaration(R"(uniform\s+\w+\s+(\w+)\s*(\[\s*\d+\s*\])?\s*;)");
    for (auto it = std::sregex_iterator(source.begin(), source.end(), declaration); it != std::sregex_iterator();
         ++it) {
        const std::string name = (*it)[1].str();
        const std::regex word("\\b" + name + "\\b");
        const auto uses = std::distance(std::sregex_iterator(source.begin(), source.end(), word), std::sregex_iterator());
        if (uses >= 2 && !out.count(name)) {
            const GLint location = static_cast<GLint>(out.size());
            out[name] = location;
        }
    }
    return out;
}

}  // namespace

// --- The fake entry points, named as GL names them ---
namespace fake {
namespace {

const GLubyte* glGetString(GLenum name) {
    SIM_ENTER(nullptr, "glGetString", "0x%X", name);
    const char* out = nullptr;
    switch (name) {
    case GL_RENDERER: out = r.cardName ? r.cardName->c_str() : nullptr; break;
    case GL_VENDOR: out = "QRLShared simulation"; break;
    case GL_VERSION: out = "2.1 simulated"; break;
    case GL_EXTENSIONS: out = r.extensions.c_str(); break;
    default: setError(s, GL_INVALID_ENUM);
    }
    return reinterpret_cast<const GLubyte*>(out);
}

GLenum glGetError() {
    SIM_ENTER(GL_NO_ERROR, "glGetError", "");
    const GLenum e = s.error;
    s.error = GL_NO_ERROR;
    if (!s.queued.empty()) {
        s.error = s.queued.front();
        s.queued.pop_front();
    }
    return e;
}

void glGetIntegerv(GLenum pname, GLint* data) {
    SIM_ENTER(, "glGetIntegerv", "0x%X", pname);
    if (!data) return;
    switch (pname) {
    case GL_MAX_RECTANGLE_TEXTURE_SIZE_EXT:
    case GL_MAX_TEXTURE_SIZE: *data = r.maxRectangleTextureSize; break;
    case GL_TEXTURE_BINDING_RECTANGLE_EXT: *data = static_cast<GLint>(s.textureBindings[GL_TEXTURE_RECTANGLE_EXT]); break;
    case GL_TEXTURE_BINDING_2D: *data = static_cast<GLint>(s.textureBindings[GL_TEXTURE_2D]); break;
    case GL_TEXTURE_BINDING_3D: *data = static_cast<GLint>(s.textureBindings[GL_TEXTURE_3D]); break;
    case GL_PACK_ROW_LENGTH:
    case GL_UNPACK_ROW_LENGTH:
    case GL_PACK_ALIGNMENT:
    case GL_UNPACK_ALIGNMENT: *data = s.pixelStore[pname]; break;
    case GL_FRAMEBUFFER_BINDING_EXT: *data = static_cast<GLint>(s.drawFbo); break;
    case GL_READ_FRAMEBUFFER_BINDING_EXT: *data = static_cast<GLint>(s.readFbo); break;
    case GL_VIEWPORT: std::copy(s.viewport.begin(), s.viewport.end(), data); break;
    case GL_MATRIX_MODE: *data = static_cast<GLint>(s.matrixMode); break;
    case GL_DRAW_BUFFER: *data = static_cast<GLint>(s.drawBuffer); break;
    case GL_BLEND_SRC: *data = static_cast<GLint>(s.blendSrc); break;
    case GL_BLEND_DST: *data = static_cast<GLint>(s.blendDst); break;
    default: setError(s, GL_INVALID_ENUM);
    }
}

void glEnable(GLenum cap) {
    SIM_ENTER(, "glEnable", "0x%X", cap);
    if (!knownCap(cap)) return setError(s, GL_INVALID_ENUM);
    s.enabled.insert(cap);
}

void glDisable(GLenum cap) {
    SIM_ENTER(, "glDisable", "0x%X", cap);
    if (!knownCap(cap)) return setError(s, GL_INVALID_ENUM);
    s.enabled.erase(cap);
}

GLboolean glIsEnabled(GLenum cap) {
    SIM_ENTER(0, "glIsEnabled", "0x%X", cap);
    return s.enabled.count(cap) ? 1 : 0;
}

void glGenTextures(GLsizei n, GLuint* textures) {
    SIM_ENTER(, "glGenTextures", "%d", n);
    if (n < 0) return setError(s, GL_INVALID_VALUE);
    std::lock_guard gl(g.mutex);
    for (GLsizei i = 0; i < n; ++i) {
        const GLuint name = g.nextTexture++;
        g.textures[name] = SimTexture{};
        textures[i] = name;
    }
}

void glDeleteTextures(GLsizei n, const GLuint* textures) {
    SIM_ENTER(, "glDeleteTextures", "%d, %u", n, n > 0 ? textures[0] : 0u);
    if (n < 0) return setError(s, GL_INVALID_VALUE);
    std::lock_guard gl(g.mutex);
    for (GLsizei i = 0; i < n; ++i) {
        const GLuint name = textures[i];
        if (name == 0 || !g.textures.erase(name)) continue;  // names that are not textures are ignored
        for (auto& [target, bound] : s.textureBindings)
            if (bound == name) bound = 0;
        if (s.drawFbo)
            for (auto it = s.fbos[s.drawFbo].begin(); it != s.fbos[s.drawFbo].end();)
                it = it->second == name ? s.fbos[s.drawFbo].erase(it) : std::next(it);
    }
}

void glBindTexture(GLenum target, GLuint texture) {
    SIM_ENTER(, "glBindTexture", "0x%X, %u", target, texture);
    if (!textureTarget(target)) return setError(s, GL_INVALID_ENUM);
    if (texture != 0) {
        std::lock_guard gl(g.mutex);
        SimTexture& t = g.textures[texture];  // binding an unused name makes it
        if (t.target != 0 && t.target != target) return setError(s, GL_INVALID_OPERATION);
        t.target = target;
    }
    s.textureBindings[target] = texture;
}

// One texture unit's worth of bindings: the unit is checked and noted only.
void glActiveTexture(GLenum texture) {
    SIM_ENTER(, "glActiveTexture", "0x%X", texture);
    if (texture < GL_TEXTURE0 || texture >= GL_TEXTURE0 + 32) return setError(s, GL_INVALID_ENUM);
}

void glTexParameteri(GLenum target, GLenum pname, GLint param) {
    SIM_ENTER(, "glTexParameteri", "0x%X, 0x%X, 0x%X", target, pname, param);
    if (!textureTarget(target)) return setError(s, GL_INVALID_ENUM);
    switch (pname) {
    case GL_TEXTURE_MIN_FILTER:
    case GL_TEXTURE_MAG_FILTER:
        if (param != GL_LINEAR && param != GL_NEAREST) return setError(s, GL_INVALID_ENUM);
        break;
    case GL_TEXTURE_WRAP_S:
    case GL_TEXTURE_WRAP_T:
    case GL_TEXTURE_WRAP_R:
        if (param != GL_CLAMP && param != GL_CLAMP_TO_EDGE && param != 0x2901) return setError(s, GL_INVALID_ENUM);
        if (param == 0x2901 && target == GL_TEXTURE_RECTANGLE_EXT) return setError(s, GL_INVALID_ENUM);
        break;
    case GL_TEXTURE_STORAGE_HINT_APPLE:
        if (!hasExt(r, "GL_APPLE_texture_range")) return setError(s, GL_INVALID_ENUM);
        break;
    default: return setError(s, GL_INVALID_ENUM);
    }
    const GLuint bound = s.textureBindings[target];
    if (bound == 0) return;
    std::lock_guard gl(g.mutex);
    g.textures[bound].parameters[pname] = param;
}

void glTexImage2D(GLenum target, GLint level, GLint internalformat, GLsizei width, GLsizei height, GLint border,
                  GLenum format, GLenum type, const void* pixels) {
    SIM_ENTER(, "glTexImage2D", "0x%X, %d, 0x%X, %d, %d, %d, 0x%X, 0x%X, %@", target, level, internalformat, width,
              height, border, format, type, pixels ? "data" : "null");
    if (target != GL_TEXTURE_RECTANGLE_EXT && target != GL_TEXTURE_2D) return setError(s, GL_INVALID_ENUM);
    GLenum error = GL_NO_ERROR;
    if (!validUpload(r, internalformat, format, type, error)) return setError(s, error);
    if (width < 0 || height < 0 || border != 0 || width > r.maxRectangleTextureSize ||
        height > r.maxRectangleTextureSize || (target == GL_TEXTURE_RECTANGLE_EXT && level != 0))
        return setError(s, GL_INVALID_VALUE);
    bool fromBuffer = false;
    if (!uploadSource(s, g, imageBytes(s, width, height, 1, format, type, false), pixels, fromBuffer))
        return setError(s, GL_INVALID_OPERATION);
    const GLuint bound = s.textureBindings[target];
    if (bound == 0) return;
    std::lock_guard gl(g.mutex);
    defineImage(g.textures[bound], width, height, 1, internalformat, format, type, fromBuffer);
}

void glTexSubImage2D(GLenum target, GLint level, GLint xoffset, GLint yoffset, GLsizei width, GLsizei height,
                     GLenum format, GLenum type, const void* pixels) {
    SIM_ENTER(, "glTexSubImage2D", "0x%X, %d, %d, %d, %d, %d, 0x%X, 0x%X", target, level, xoffset, yoffset, width,
              height, format, type);
    if (target != GL_TEXTURE_RECTANGLE_EXT && target != GL_TEXTURE_2D) return setError(s, GL_INVALID_ENUM);
    bool fromBuffer = false;
    if (!uploadSource(s, g, imageBytes(s, width, height, 1, format, type, false), pixels, fromBuffer))
        return setError(s, GL_INVALID_OPERATION);
    const GLuint bound = s.textureBindings[target];
    std::lock_guard gl(g.mutex);
    SimTexture& t = g.textures[bound];
    if (!t.storage) return setError(s, GL_INVALID_OPERATION);
    if (xoffset < 0 || yoffset < 0 || width < 0 || height < 0 || xoffset + width > t.width ||
        yoffset + height > t.height || level != 0)
        return setError(s, GL_INVALID_VALUE);
    t.fromUnpackBuffer = fromBuffer;
    ++t.uploads;
}

void glTexImage3D(GLenum target, GLint level, GLint internalformat, GLsizei width, GLsizei height, GLsizei depth,
                  GLint border, GLenum format, GLenum type, const void* pixels) {
    SIM_ENTER(, "glTexImage3D", "0x%X, %d, 0x%X, %d, %d, %d, %d, 0x%X, 0x%X, %@", target, level, internalformat,
              width, height, depth, border, format, type, pixels ? "data" : "null");
    if (target != GL_TEXTURE_3D) return setError(s, GL_INVALID_ENUM);
    GLenum error = GL_NO_ERROR;
    if (!validUpload(r, internalformat, format, type, error)) return setError(s, error);
    if (width < 0 || height < 0 || depth < 0 || border != 0 || level != 0 || width > 2048 || height > 2048 ||
        depth > 2048)
        return setError(s, GL_INVALID_VALUE);
    const GLuint bound = s.textureBindings[target];
    if (bound == 0) return;
    std::lock_guard gl(g.mutex);
    SimTexture& t = g.textures[bound];
    defineImage(t, width, height, depth, internalformat, format, type, t.fromUnpackBuffer);
}

void glGetTexLevelParameteriv(GLenum target, GLint level, GLenum pname, GLint* params) {
    SIM_ENTER(, "glGetTexLevelParameteriv", "0x%X, %d, 0x%X", target, level, pname);
    if (!textureTarget(target)) return setError(s, GL_INVALID_ENUM);
    std::lock_guard gl(g.mutex);
    const SimTexture& t = g.textures[s.textureBindings[target]];
    switch (pname) {
    case GL_TEXTURE_WIDTH: *params = t.width; break;
    case GL_TEXTURE_HEIGHT: *params = t.height; break;
    case GL_TEXTURE_INTERNAL_FORMAT: *params = t.internalFormat; break;
    default: setError(s, GL_INVALID_ENUM);
    }
}

void glPixelStorei(GLenum pname, GLint param) {
    SIM_ENTER(, "glPixelStorei", "0x%X, %d", pname, param);
    switch (pname) {
    case GL_PACK_ROW_LENGTH:
    case GL_UNPACK_ROW_LENGTH:
        if (param < 0) return setError(s, GL_INVALID_VALUE);
        break;
    case GL_PACK_ALIGNMENT:
    case GL_UNPACK_ALIGNMENT:
        if (param != 1 && param != 2 && param != 4 && param != 8) return setError(s, GL_INVALID_VALUE);
        break;
    case GL_UNPACK_CLIENT_STORAGE_APPLE:
        if (!hasExt(r, "GL_APPLE_client_storage")) return setError(s, GL_INVALID_ENUM);
        break;
    default: return setError(s, GL_INVALID_ENUM);
    }
    s.pixelStore[pname] = param;
}

void glViewport(GLint x, GLint y, GLsizei width, GLsizei height) {
    SIM_ENTER(, "glViewport", "%d, %d, %d, %d", x, y, width, height);
    if (width < 0 || height < 0) return setError(s, GL_INVALID_VALUE);
    s.viewport = {x, y, width, height};
}

void glMatrixMode(GLenum mode) {
    SIM_ENTER(, "glMatrixMode", "0x%X", mode);
    if (!s.matrices.count(mode)) return setError(s, GL_INVALID_ENUM);
    s.matrixMode = mode;
}

void glPushMatrix() {
    SIM_ENTER(, "glPushMatrix", "");
    auto& stack = s.matrices[s.matrixMode];
    if (static_cast<int>(stack.size()) >= matrixLimit(s.matrixMode)) return setError(s, GL_STACK_OVERFLOW);
    stack.push_back(stack.back());
}

void glPopMatrix() {
    SIM_ENTER(, "glPopMatrix", "");
    auto& stack = s.matrices[s.matrixMode];
    if (stack.size() <= 1) return setError(s, GL_STACK_UNDERFLOW);
    stack.pop_back();
}

void glLoadIdentity() {
    SIM_ENTER(, "glLoadIdentity", "");
    s.matrices[s.matrixMode].back() = "identity";
}

void glOrtho(GLdouble left, GLdouble right, GLdouble bottom, GLdouble top, GLdouble zNear, GLdouble zFar) {
    SIM_ENTER(, "glOrtho", "%g, %g, %g, %g, %g, %g", left, right, bottom, top, zNear, zFar);
    if (left == right || bottom == top || zNear == zFar) return setError(s, GL_INVALID_VALUE);
    auto& m = s.matrices[s.matrixMode].back();
    m = matrixProduct(m, qrl::format("ortho(%g, %g, %g, %g, %g, %g)", left, right, bottom, top, zNear, zFar));
}

void glPushAttrib(GLbitfield mask) {
    SIM_ENTER(, "glPushAttrib", "0x%X", mask);
    if (s.attribs.size() >= 16) return setError(s, GL_STACK_OVERFLOW);
    copyAttribs(s, s.attribs.emplace_back());
}

void glPopAttrib() {
    SIM_ENTER(, "glPopAttrib", "");
    if (s.attribs.empty()) return setError(s, GL_STACK_UNDERFLOW);
    copyAttribs(s.attribs.back(), s);
    s.attribs.pop_back();
}

void glClearColor(GLfloat red, GLfloat green, GLfloat blue, GLfloat alpha) {
    SIM_ENTER(, "glClearColor", "%g, %g, %g, %g", red, green, blue, alpha);
    setRGBA(s.clear, red, green, blue, alpha);
}

void glClear(GLbitfield mask) {
    SIM_ENTER(, "glClear", "0x%X", mask);
    if (mask & ~0x4700u) return setError(s, GL_INVALID_VALUE);
    if (fboStatus(s, g, s.drawFbo) != GL_FRAMEBUFFER_COMPLETE_EXT) return setError(s, GL_INVALID_FRAMEBUFFER_OPERATION_EXT);
}

void glBlendFunc(GLenum sfactor, GLenum dfactor) {
    SIM_ENTER(, "glBlendFunc", "0x%X, 0x%X", sfactor, dfactor);
    s.blendSrc = sfactor;
    s.blendDst = dfactor;
}

void glColor4f(GLfloat red, GLfloat green, GLfloat blue, GLfloat alpha) {
    SIM_ENTER(, "glColor4f", "%g, %g, %g, %g", red, green, blue, alpha);
    setRGBA(s.colour, red, green, blue, alpha);
}

void glBegin(GLenum mode) {
    SIM_ENTER(, "glBegin", "0x%X", mode);
    if (s.inBegin) return setError(s, GL_INVALID_OPERATION);
    s.inBegin = true;
}

void glEnd() {
    SIM_ENTER(, "glEnd", "");
    if (!s.inBegin) return setError(s, GL_INVALID_OPERATION);
    s.inBegin = false;
}

void glTexCoord2f(GLfloat u, GLfloat v) { SIM_ENTER(, "glTexCoord2f", "%g, %g", u, v); }

void glVertex2i(GLint x, GLint y) { SIM_ENTER(, "glVertex2i", "%d, %d", x, y); }

void glDrawBuffer(GLenum buf) {
    SIM_ENTER(, "glDrawBuffer", "0x%X", buf);
    const bool attachment = buf >= GL_COLOR_ATTACHMENT0_EXT && buf < GL_COLOR_ATTACHMENT0_EXT + 16;
    if (s.drawFbo != 0 ? !(attachment || buf == GL_NONE) : attachment) return setError(s, GL_INVALID_OPERATION);
    s.drawBuffer = buf;
}

void glReadBuffer(GLenum src) { SIM_ENTER(, "glReadBuffer", "0x%X", src); }

void glReadPixels(GLint x, GLint y, GLsizei width, GLsizei height, GLenum format, GLenum type, void* pixels) {
    SIM_ENTER(, "glReadPixels", "%d, %d, %d, %d, 0x%X, 0x%X", x, y, width, height, format, type);
    if (width < 0 || height < 0) return setError(s, GL_INVALID_VALUE);
    if (fboStatus(s, g, s.readFbo) != GL_FRAMEBUFFER_COMPLETE_EXT)
        return setError(s, GL_INVALID_FRAMEBUFFER_OPERATION_EXT);
    const size_t bytes = imageBytes(s, width, height, 1, format, type, true);
    const auto b = s.bufferBindings.find(GL_PIXEL_PACK_BUFFER);
    if (b != s.bufferBindings.end() && b->second != 0) {
        std::lock_guard gl(g.mutex);
        SimBuffer& buffer = g.buffers[b->second];
        const auto offset = reinterpret_cast<uintptr_t>(pixels);
        if (offset + bytes > buffer.data.size()) return setError(s, GL_INVALID_OPERATION);
        std::memset(buffer.data.data() + offset, 0, bytes);
        return;
    }
    if (pixels) std::memset(pixels, 0, bytes);  // nothing is drawn: reads answer zeros
}

void glFlush() { SIM_ENTER(, "glFlush", ""); }

void glFinish() { SIM_ENTER(, "glFinish", ""); }

void glGenFramebuffersEXT(GLsizei n, GLuint* framebuffers) {
    SIM_ENTER(, "glGenFramebuffersEXT", "%d", n);
    if (n < 0) return setError(s, GL_INVALID_VALUE);
    for (GLsizei i = 0; i < n; ++i) {
        framebuffers[i] = s.nextFbo++;
        s.fbos[framebuffers[i]];
    }
}

void glDeleteFramebuffersEXT(GLsizei n, const GLuint* framebuffers) {
    SIM_ENTER(, "glDeleteFramebuffersEXT", "%d, %u", n, n > 0 ? framebuffers[0] : 0u);
    for (GLsizei i = 0; i < n; ++i) {
        const GLuint f = framebuffers[i];
        if (f == 0 || !s.fbos.erase(f)) continue;
        if (s.drawFbo == f) s.drawFbo = 0;
        if (s.readFbo == f) s.readFbo = 0;
    }
}

void glBindFramebufferEXT(GLenum target, GLuint framebuffer) {
    SIM_ENTER(, "glBindFramebufferEXT", "0x%X, %u", target, framebuffer);
    if (!fboSlot(s, target)) return setError(s, GL_INVALID_ENUM);
    if (framebuffer) s.fbos[framebuffer];  // binding an unused name makes it
    if (target == GL_FRAMEBUFFER_EXT) s.readFbo = framebuffer;
    *fboSlot(s, target) = framebuffer;
}

void glFramebufferTexture2DEXT(GLenum target, GLenum attachment, GLenum textarget, GLuint texture, GLint level) {
    SIM_ENTER(, "glFramebufferTexture2DEXT", "0x%X, 0x%X, 0x%X, %u, %d", target, attachment, textarget, texture, level);
    GLuint* slot = fboSlot(s, target);
    if (!slot) return setError(s, GL_INVALID_ENUM);
    if (*slot == 0) return setError(s, GL_INVALID_OPERATION);
    if (attachment < GL_COLOR_ATTACHMENT0_EXT || attachment >= GL_COLOR_ATTACHMENT0_EXT + 16)
        return setError(s, GL_INVALID_ENUM);
    auto& attachments = s.fbos[*slot];
    if (texture == 0) {
        attachments.erase(attachment);
        return;
    }
    {
        std::lock_guard gl(g.mutex);
        const auto t = g.textures.find(texture);
        if (t == g.textures.end()) return setError(s, GL_INVALID_OPERATION);
        if (t->second.target != textarget) return setError(s, GL_INVALID_OPERATION);
    }
    if (level != 0) return setError(s, GL_INVALID_VALUE);
    attachments[attachment] = texture;
}

GLenum glCheckFramebufferStatusEXT(GLenum target) {
    SIM_ENTER(0, "glCheckFramebufferStatusEXT", "0x%X", target);
    GLuint* slot = fboSlot(s, target);
    if (!slot) {
        setError(s, GL_INVALID_ENUM);
        return 0;
    }
    return fboStatus(s, g, *slot);
}

GLhandleARB glCreateShaderObjectARB(GLenum shaderType) {
    SIM_ENTER(0, "glCreateShaderObjectARB", "0x%X", shaderType);
    if (shaderType != GL_FRAGMENT_SHADER_ARB && shaderType != 0x8B31) {
        setError(s, GL_INVALID_ENUM);
        return 0;
    }
    std::lock_guard gl(g.mutex);
    const GLhandleARB h = g.nextObject++;
    g.objects[h].type = shaderType;
    return h;
}

void glShaderSourceARB(GLhandleARB shader, GLsizei count, const GLchar** string, const GLint* length) {
    SIM_ENTER(, "glShaderSourceARB", "%u, %d, %@", shader, count, length ? "lengths" : "null");
    std::lock_guard gl(g.mutex);
    const auto it = g.objects.find(shader);
    if (it == g.objects.end()) return setError(s, GL_INVALID_VALUE);
    if (it->second.program) return setError(s, GL_INVALID_OPERATION);
    if (count < 0) return setError(s, GL_INVALID_VALUE);
    std::string text;
    for (GLsizei i = 0; i < count; ++i) {
        if (length && length[i] >= 0) text.append(string[i], static_cast<size_t>(length[i]));
        else text.append(string[i]);
    }
    it->second.source = std::move(text);
}

void glCompileShaderARB(GLhandleARB shader) {
    SIM_ENTER(, "glCompileShaderARB", "%u", shader);
    std::lock_guard gl(g.mutex);
    const auto it = g.objects.find(shader);
    if (it == g.objects.end()) return setError(s, GL_INVALID_VALUE);
    if (it->second.program) return setError(s, GL_INVALID_OPERATION);
    it->second.compiled = compileSource(it->second.source, it->second.infoLog);
}

void glGetObjectParameterivARB(GLhandleARB obj, GLenum pname, GLint* params) {
    SIM_ENTER(, "glGetObjectParameterivARB", "%u, 0x%X", obj, pname);
    std::lock_guard gl(g.mutex);
    const auto it = g.objects.find(obj);
    if (it == g.objects.end()) return setError(s, GL_INVALID_VALUE);
    const SimShaderObject& o = it->second;
    switch (pname) {
    case GL_OBJECT_COMPILE_STATUS_ARB:
        if (o.program) return setError(s, GL_INVALID_OPERATION);
        *params = o.compiled;
        break;
    case GL_OBJECT_LINK_STATUS_ARB:
        if (!o.program) return setError(s, GL_INVALID_OPERATION);
        *params = o.linked;
        break;
    case GL_OBJECT_VALIDATE_STATUS_ARB:
        if (!o.program) return setError(s, GL_INVALID_OPERATION);
        *params = o.validated;
        break;
    case GL_OBJECT_INFO_LOG_LENGTH_ARB: *params = o.infoLog.empty() ? 0 : static_cast<GLint>(o.infoLog.size() + 1); break;
    default: setError(s, GL_INVALID_ENUM);
    }
}

void glGetInfoLogARB(GLhandleARB obj, GLsizei maxLength, GLsizei* length, GLchar* infoLog) {
    SIM_ENTER(, "glGetInfoLogARB", "%u, %d", obj, maxLength);
    std::lock_guard gl(g.mutex);
    const auto it = g.objects.find(obj);
    if (it == g.objects.end()) return setError(s, GL_INVALID_VALUE);
    if (maxLength < 0) return setError(s, GL_INVALID_VALUE);
    const std::string& log = it->second.infoLog;
    GLsizei n = 0;
    if (maxLength > 0 && infoLog) {
        n = static_cast<GLsizei>(std::min(log.size(), static_cast<size_t>(maxLength - 1)));
        std::memcpy(infoLog, log.data(), static_cast<size_t>(n));
        infoLog[n] = '\0';
    }
    if (length) *length = n;
}

GLhandleARB glCreateProgramObjectARB() {
    SIM_ENTER(0, "glCreateProgramObjectARB", "");
    std::lock_guard gl(g.mutex);
    const GLhandleARB h = g.nextObject++;
    g.objects[h].program = true;
    return h;
}

void glAttachObjectARB(GLhandleARB container, GLhandleARB obj) {
    SIM_ENTER(, "glAttachObjectARB", "%u, %u", container, obj);
    std::lock_guard gl(g.mutex);
    const auto p = g.objects.find(container);
    const auto o = g.objects.find(obj);
    if (p == g.objects.end() || o == g.objects.end()) return setError(s, GL_INVALID_VALUE);
    if (!p->second.program || o->second.program) return setError(s, GL_INVALID_OPERATION);
    auto& list = p->second.attached;
    if (std::find(list.begin(), list.end(), obj) != list.end()) return setError(s, GL_INVALID_OPERATION);
    list.push_back(obj);
}

void glLinkProgramARB(GLhandleARB program) {
    SIM_ENTER(, "glLinkProgramARB", "%u", program);
    std::lock_guard gl(g.mutex);
    const auto it = g.objects.find(program);
    if (it == g.objects.end()) return setError(s, GL_INVALID_VALUE);
    SimShaderObject& p = it->second;
    if (!p.program) return setError(s, GL_INVALID_OPERATION);
    p.linked = false;
    p.validated = false;
    p.uniforms.clear();
    std::string all;
    bool hasMain = false;
    for (const GLhandleARB h : p.attached) {
        const auto o = g.objects.find(h);
        if (o == g.objects.end() || !o->second.compiled) {
            p.infoLog = "error: linking with uncompiled/unspecialized shader\n";
            return;
        }
        hasMain = hasMain || o->second.source.find("main(") != std::string::npos;
        all += o->second.source + "\n";
    }
    if (p.attached.empty()) {
        p.infoLog = "error: no shaders attached to the program\n";
        return;
    }
    if (!hasMain) {
        p.infoLog = "error: fragment shader lacks `main'\n";
        return;
    }
    p.infoLog.clear();
    p.linked = true;
    p.uniforms = activeUniforms(all);
}

void glUseProgramObjectARB(GLhandleARB program) {
    SIM_ENTER(, "glUseProgramObjectARB", "%u", program);
    if (program != 0) {
        std::lock_guard gl(g.mutex);
        const auto it = g.objects.find(program);
        if (it == g.objects.end()) return setError(s, GL_INVALID_VALUE);
        if (!it->second.program || !it->second.linked) return setError(s, GL_INVALID_OPERATION);
    }
    s.program = program;
}

void glValidateProgramARB(GLhandleARB program) {
    SIM_ENTER(, "glValidateProgramARB", "%u", program);
    std::lock_guard gl(g.mutex);
    const auto it = g.objects.find(program);
    if (it == g.objects.end()) return setError(s, GL_INVALID_VALUE);
    if (!it->second.program) return setError(s, GL_INVALID_OPERATION);
    it->second.validated = it->second.linked;
    if (!it->second.linked) it->second.infoLog = "error: program is not linked\n";
}

void glDeleteObjectARB(GLhandleARB obj) {
    SIM_ENTER(, "glDeleteObjectARB", "%u", obj);
    if (obj == 0) return;
    std::lock_guard gl(g.mutex);
    if (!g.objects.erase(obj)) return setError(s, GL_INVALID_VALUE);
    if (s.program == obj) s.program = 0;
}

GLint glGetUniformLocationARB(GLhandleARB program, const GLchar* name) {
    SIM_ENTER(-1, "glGetUniformLocationARB", "%u, %s", program, name);
    std::lock_guard gl(g.mutex);
    const auto it = g.objects.find(program);
    if (it == g.objects.end()) {
        setError(s, GL_INVALID_VALUE);
        return -1;
    }
    if (!it->second.program || !it->second.linked) {
        setError(s, GL_INVALID_OPERATION);
        return -1;
    }
    const auto u = it->second.uniforms.find(name ? name : "");
    return u == it->second.uniforms.end() ? -1 : u->second;
}

// Records a uniform value in the program in use.
void setUniform(SimGLState& s, SimGLShareGroup& g, GLint location, std::string text) {
    if (location == -1) return;
    if (s.program == 0) return setError(s, GL_INVALID_OPERATION);
    std::lock_guard gl(g.mutex);
    SimShaderObject& p = g.objects[s.program];
    const bool known = std::any_of(p.uniforms.begin(), p.uniforms.end(),
                                   [&](const auto& u) { return u.second == location; });
    if (!known) return setError(s, GL_INVALID_OPERATION);
    p.values[location] = std::move(text);
}

void glUniform1fARB(GLint location, GLfloat v0) {
    SIM_ENTER(, "glUniform1fARB", "%d, %g", location, v0);
    setUniform(s, g, location, qrl::format("%g", v0));
}

void glUniform2fARB(GLint location, GLfloat v0, GLfloat v1) {
    SIM_ENTER(, "glUniform2fARB", "%d, %g, %g", location, v0, v1);
    setUniform(s, g, location, qrl::format("%g, %g", v0, v1));
}

void glUniform1iARB(GLint location, GLint v0) {
    SIM_ENTER(, "glUniform1iARB", "%d, %d", location, v0);
    setUniform(s, g, location, qrl::format("%d", v0));
}

void glUniformMatrix3fvARB(GLint location, GLsizei count, GLboolean transpose, const GLfloat* value) {
    SIM_ENTER(, "glUniformMatrix3fvARB", "%d, %d, %d", location, count, transpose);
    std::string text = transpose ? "T" : "";
    for (int i = 0; i < 9 && value; ++i) appendFormat(text, i ? ", %g" : "%g", value[i]);
    setUniform(s, g, location, text);
}

void glGenBuffers(GLsizei n, GLuint* buffers) {
    SIM_ENTER(, "glGenBuffers", "%d", n);
    if (n < 0) return setError(s, GL_INVALID_VALUE);
    std::lock_guard gl(g.mutex);
    for (GLsizei i = 0; i < n; ++i) {
        buffers[i] = g.nextBuffer++;
        g.buffers[buffers[i]];
    }
}

void glDeleteBuffers(GLsizei n, const GLuint* buffers) {
    SIM_ENTER(, "glDeleteBuffers", "%d, %u", n, n > 0 ? buffers[0] : 0u);
    std::lock_guard gl(g.mutex);
    for (GLsizei i = 0; i < n; ++i) {
        if (!g.buffers.erase(buffers[i])) continue;
        for (auto& [target, bound] : s.bufferBindings)
            if (bound == buffers[i]) bound = 0;
    }
}

void glBindBuffer(GLenum target, GLuint buffer) {
    SIM_ENTER(, "glBindBuffer", "0x%X, %u", target, buffer);
    if (target != GL_PIXEL_PACK_BUFFER && target != GL_PIXEL_UNPACK_BUFFER) return setError(s, GL_INVALID_ENUM);
    std::lock_guard gl(g.mutex);
    if (buffer && !g.buffers.count(buffer)) return setError(s, GL_INVALID_OPERATION);
    s.bufferBindings[target] = buffer;
}

SimBuffer* boundBuffer(SimGLState& s, SimGLShareGroup& g, GLenum target) {
    const auto b = s.bufferBindings.find(target);
    if (b == s.bufferBindings.end() || b->second == 0) return nullptr;
    return &g.buffers[b->second];
}

void glBufferData(GLenum target, GLsizeiptr size, const void* data, GLenum usage) {
    SIM_ENTER(, "glBufferData", "0x%X, %ld, 0x%X", target, static_cast<long>(size), usage);
    std::lock_guard gl(g.mutex);
    SimBuffer* b = boundBuffer(s, g, target);
    if (!b || b->immutable) return setError(s, GL_INVALID_OPERATION);
    if (size < 0) return setError(s, GL_INVALID_VALUE);
    b->data.assign(static_cast<size_t>(size), 0);
    if (data) std::memcpy(b->data.data(), data, static_cast<size_t>(size));
}

void glBufferStorage(GLenum target, GLsizeiptr size, const void* data, GLbitfield flags) {
    SIM_ENTER(, "glBufferStorage", "0x%X, %ld, 0x%X", target, static_cast<long>(size), flags);
    if (!hasExt(r, "GL_ARB_buffer_storage")) return setError(s, GL_INVALID_OPERATION);
    std::lock_guard gl(g.mutex);
    SimBuffer* b = boundBuffer(s, g, target);
    if (!b || b->immutable) return setError(s, GL_INVALID_OPERATION);
    if (size <= 0) return setError(s, GL_INVALID_VALUE);
    b->data.assign(static_cast<size_t>(size), 0);
    if (data) std::memcpy(b->data.data(), data, static_cast<size_t>(size));
    b->immutable = true;
    b->flags = flags;
}

void* glMapBufferRange(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access) {
    SIM_ENTER(nullptr, "glMapBufferRange", "0x%X, %ld, %ld, 0x%X", target, static_cast<long>(offset),
              static_cast<long>(length), access);
    std::lock_guard gl(g.mutex);
    SimBuffer* b = boundBuffer(s, g, target);
    if (!b || b->mapped) {
        setError(s, GL_INVALID_OPERATION);
        return nullptr;
    }
    if (offset < 0 || length <= 0 || static_cast<size_t>(offset + length) > b->data.size()) {
        setError(s, GL_INVALID_VALUE);
        return nullptr;
    }
    if ((access & GL_MAP_PERSISTENT_BIT) && !(b->flags & GL_MAP_PERSISTENT_BIT)) {
        setError(s, GL_INVALID_OPERATION);
        return nullptr;
    }
    b->mapped = true;
    return b->data.data() + offset;
}

GLboolean glUnmapBuffer(GLenum target) {
    SIM_ENTER(0, "glUnmapBuffer", "0x%X", target);
    std::lock_guard gl(g.mutex);
    SimBuffer* b = boundBuffer(s, g, target);
    if (!b || !b->mapped) {
        setError(s, GL_INVALID_OPERATION);
        return 0;
    }
    b->mapped = false;
    return 1;
}

void glCopyImageSubData(GLuint srcName, GLenum srcTarget, GLint srcLevel, GLint srcX, GLint srcY, GLint srcZ,
                        GLuint dstName, GLenum dstTarget, GLint dstLevel, GLint dstX, GLint dstY, GLint dstZ,
                        GLsizei srcWidth, GLsizei srcHeight, GLsizei srcDepth) {
    SIM_ENTER(, "glCopyImageSubData", "%u, 0x%X, %u, 0x%X, %d, %d", srcName, srcTarget, dstName, dstTarget, srcWidth,
              srcHeight);
    (void)srcLevel, (void)srcZ, (void)dstLevel, (void)dstZ, (void)srcDepth;
    std::lock_guard gl(g.mutex);
    const auto a = g.textures.find(srcName);
    const auto b = g.textures.find(dstName);
    if (a == g.textures.end() || b == g.textures.end() || !a->second.storage || !b->second.storage)
        return setError(s, GL_INVALID_VALUE);
    if (srcX + srcWidth > a->second.width || srcY + srcHeight > a->second.height || dstX + srcWidth > b->second.width ||
        dstY + srcHeight > b->second.height)
        return setError(s, GL_INVALID_VALUE);
}

GLsync glFenceSync(GLenum condition, GLbitfield flags) {
    SIM_ENTER(nullptr, "glFenceSync", "0x%X, %u", condition, flags);
    return reinterpret_cast<GLsync>(static_cast<uintptr_t>(s.nextSync++));
}

GLenum glClientWaitSync(GLsync sync, GLbitfield flags, GLuint64 timeout) {
    SIM_ENTER(GL_WAIT_FAILED, "glClientWaitSync", "%u", flags);
    (void)sync, (void)timeout;
    return GL_ALREADY_SIGNALED;
}

void glDeleteSync(GLsync sync) {
    SIM_ENTER(, "glDeleteSync", "");
    (void)sync;
}

}  // namespace
}  // namespace fake

GLFunctions simGLFunctions() {
    GLFunctions f;
#define QRL_SIM_ASSIGN_(result, name, parameters) f.name = fake::name;
    QRL_GL_FUNCTIONS(QRL_SIM_ASSIGN_)
#undef QRL_SIM_ASSIGN_
    return f;
}

uint64_t simGLCallsWithoutContext() { return gCallsWithoutContext.load(); }

}  // namespace qrl
