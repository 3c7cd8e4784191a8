// GLFunctions: the table of GL entry points that one context owns, loaded
// once per context through the backend's resolver (eglGetProcAddress on
// Linux), and the GL types and enumerants the framework uses. No system GL
// header is included and no GL library is linked: every call goes through a
// table, so a stray direct GL call fails to link.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qrl {

using GLenum = uint32_t;
using GLuint = uint32_t;
using GLint = int32_t;
using GLsizei = int32_t;
using GLfloat = float;
using GLdouble = double;
using GLboolean = uint8_t;
using GLbitfield = uint32_t;
using GLubyte = uint8_t;
using GLchar = char;
using GLintptr = std::ptrdiff_t;
using GLsizeiptr = std::ptrdiff_t;
using GLuint64 = uint64_t;
// ARB_shader_objects handles: an unsigned int in the Linux ABI (Mesa's and
// every other Linux driver's), where the framework's original platform used
// a pointer-sized handle.
using GLhandleARB = uint32_t;
struct GLsyncObject;
using GLsync = GLsyncObject*;

// --- Enumerants ---
inline constexpr GLenum GL_NO_ERROR = 0;
inline constexpr GLenum GL_INVALID_ENUM = 0x0500;
inline constexpr GLenum GL_INVALID_VALUE = 0x0501;
inline constexpr GLenum GL_INVALID_OPERATION = 0x0502;
inline constexpr GLenum GL_STACK_OVERFLOW = 0x0503;
inline constexpr GLenum GL_STACK_UNDERFLOW = 0x0504;
inline constexpr GLenum GL_OUT_OF_MEMORY = 0x0505;
inline constexpr GLenum GL_INVALID_FRAMEBUFFER_OPERATION_EXT = 0x0506;

inline constexpr GLenum GL_VENDOR = 0x1F00;
inline constexpr GLenum GL_RENDERER = 0x1F01;
inline constexpr GLenum GL_VERSION = 0x1F02;
inline constexpr GLenum GL_EXTENSIONS = 0x1F03;

inline constexpr GLenum GL_QUADS = 0x0007;
inline constexpr GLenum GL_MATRIX_MODE = 0x0BA0;
inline constexpr GLenum GL_VIEWPORT = 0x0BA2;
inline constexpr GLenum GL_MODELVIEW = 0x1700;
inline constexpr GLenum GL_PROJECTION = 0x1701;
inline constexpr GLenum GL_TEXTURE = 0x1702;
inline constexpr GLenum GL_BLEND = 0x0BE2;
inline constexpr GLenum GL_BLEND_SRC = 0x0BE1;
inline constexpr GLenum GL_BLEND_DST = 0x0BE0;
inline constexpr GLenum GL_SRC_ALPHA = 0x0302;
inline constexpr GLenum GL_ONE_MINUS_SRC_ALPHA = 0x0303;
inline constexpr GLenum GL_ZERO = 0;
inline constexpr GLenum GL_ONE = 1;
inline constexpr GLbitfield GL_COLOR_BUFFER_BIT = 0x00004000;
inline constexpr GLbitfield GL_ALL_ATTRIB_BITS = 0x000FFFFF;
inline constexpr GLenum GL_DRAW_BUFFER = 0x0C01;
inline constexpr GLenum GL_READ_BUFFER = 0x0C02;
inline constexpr GLenum GL_BACK = 0x0405;
inline constexpr GLenum GL_NONE = 0;

inline constexpr GLenum GL_TEXTURE0 = 0x84C0;
inline constexpr GLenum GL_TEXTURE_2D = 0x0DE1;
inline constexpr GLenum GL_TEXTURE_3D = 0x806F;
// The rectangle target, whichever extension name a header gives it.
inline constexpr GLenum GL_TEXTURE_RECTANGLE_EXT = 0x84F5;
inline constexpr GLenum GL_TEXTURE_BINDING_RECTANGLE_EXT = 0x84F6;
inline constexpr GLenum GL_MAX_RECTANGLE_TEXTURE_SIZE_EXT = 0x84F8;
inline constexpr GLenum GL_TEXTURE_BINDING_2D = 0x8069;
inline constexpr GLenum GL_TEXTURE_BINDING_3D = 0x806A;
inline constexpr GLenum GL_MAX_TEXTURE_SIZE = 0x0D33;
inline constexpr GLenum GL_TEXTURE_WIDTH = 0x1000;
inline constexpr GLenum GL_TEXTURE_HEIGHT = 0x1001;
inline constexpr GLenum GL_TEXTURE_INTERNAL_FORMAT = 0x1003;
inline constexpr GLenum GL_TEXTURE_MIN_FILTER = 0x2801;
inline constexpr GLenum GL_TEXTURE_MAG_FILTER = 0x2800;
inline constexpr GLenum GL_TEXTURE_WRAP_S = 0x2802;
inline constexpr GLenum GL_TEXTURE_WRAP_T = 0x2803;
inline constexpr GLenum GL_TEXTURE_WRAP_R = 0x8072;
inline constexpr GLint GL_NEAREST = 0x2600;
inline constexpr GLint GL_LINEAR = 0x2601;
inline constexpr GLint GL_CLAMP = 0x2900;
inline constexpr GLint GL_CLAMP_TO_EDGE = 0x812F;

inline constexpr GLenum GL_UNPACK_ROW_LENGTH = 0x0CF2;
inline constexpr GLenum GL_UNPACK_ALIGNMENT = 0x0CF5;
inline constexpr GLenum GL_PACK_ROW_LENGTH = 0x0D02;
inline constexpr GLenum GL_PACK_ALIGNMENT = 0x0D05;

inline constexpr GLenum GL_RGB = 0x1907;
inline constexpr GLenum GL_RGBA = 0x1908;
inline constexpr GLenum GL_RGBA8 = 0x8058;
inline constexpr GLenum GL_RGB16 = 0x8054;
inline constexpr GLenum GL_BGRA = 0x80E1;
inline constexpr GLenum GL_UNSIGNED_BYTE = 0x1401;
inline constexpr GLenum GL_UNSIGNED_SHORT = 0x1403;
inline constexpr GLenum GL_UNSIGNED_INT_8_8_8_8 = 0x8035;
inline constexpr GLenum GL_UNSIGNED_INT_8_8_8_8_REV = 0x8367;

// Texture storage and Y'CbCr formats of the platform the framework was
// first written for. Linux drivers do not have them (see TextureManagerImpl).
inline constexpr GLenum GL_TEXTURE_STORAGE_HINT_APPLE = 0x85BC;
inline constexpr GLint GL_STORAGE_SHARED_APPLE = 0x85BF;
inline constexpr GLenum GL_UNPACK_CLIENT_STORAGE_APPLE = 0x85B2;
inline constexpr GLenum GL_YCBCR_422_APPLE = 0x85B9;
inline constexpr GLenum GL_UNSIGNED_SHORT_8_8_APPLE = 0x85BA;
inline constexpr GLenum GL_UNSIGNED_SHORT_8_8_REV_APPLE = 0x85BB;
// MESA_ycbcr_texture: the Linux counterpart; its internal format is its own enum.
inline constexpr GLenum GL_YCBCR_MESA = 0x8757;
inline constexpr GLenum GL_UNSIGNED_SHORT_8_8_MESA = 0x85BA;
inline constexpr GLenum GL_UNSIGNED_SHORT_8_8_REV_MESA = 0x85BB;

// EXT_framebuffer_object and EXT_framebuffer_blit.
inline constexpr GLenum GL_FRAMEBUFFER_EXT = 0x8D40;
inline constexpr GLenum GL_READ_FRAMEBUFFER_EXT = 0x8CA8;
inline constexpr GLenum GL_DRAW_FRAMEBUFFER_EXT = 0x8CA9;
inline constexpr GLenum GL_FRAMEBUFFER_BINDING_EXT = 0x8CA6;
inline constexpr GLenum GL_DRAW_FRAMEBUFFER_BINDING_EXT = 0x8CA6;
inline constexpr GLenum GL_READ_FRAMEBUFFER_BINDING_EXT = 0x8CAA;
inline constexpr GLenum GL_COLOR_ATTACHMENT0_EXT = 0x8CE0;
inline constexpr GLenum GL_FRAMEBUFFER_COMPLETE_EXT = 0x8CD5;
inline constexpr GLenum GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT_EXT = 0x8CD6;
inline constexpr GLenum GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT_EXT = 0x8CD7;
inline constexpr GLenum GL_FRAMEBUFFER_UNDEFINED = 0x8219;

// ARB_shader_objects.
inline constexpr GLenum GL_FRAGMENT_SHADER_ARB = 0x8B30;
inline constexpr GLenum GL_OBJECT_COMPILE_STATUS_ARB = 0x8B81;
inline constexpr GLenum GL_OBJECT_LINK_STATUS_ARB = 0x8B82;
inline constexpr GLenum GL_OBJECT_VALIDATE_STATUS_ARB = 0x8B83;
inline constexpr GLenum GL_OBJECT_INFO_LOG_LENGTH_ARB = 0x8B84;

// Buffers, persistent mapping and fences.
inline constexpr GLenum GL_PIXEL_PACK_BUFFER = 0x88EB;
inline constexpr GLenum GL_PIXEL_UNPACK_BUFFER = 0x88EC;
inline constexpr GLenum GL_STREAM_DRAW = 0x88E0;
inline constexpr GLenum GL_STREAM_READ = 0x88E1;
inline constexpr GLbitfield GL_MAP_READ_BIT = 0x0001;
inline constexpr GLbitfield GL_MAP_WRITE_BIT = 0x0002;
inline constexpr GLbitfield GL_MAP_INVALIDATE_BUFFER_BIT = 0x0008;
inline constexpr GLbitfield GL_MAP_PERSISTENT_BIT = 0x0040;
inline constexpr GLbitfield GL_MAP_COHERENT_BIT = 0x0080;
inline constexpr GLenum GL_SYNC_GPU_COMMANDS_COMPLETE = 0x9117;
inline constexpr GLbitfield GL_SYNC_FLUSH_COMMANDS_BIT = 0x00000001;
inline constexpr GLenum GL_ALREADY_SIGNALED = 0x911A;
inline constexpr GLenum GL_TIMEOUT_EXPIRED = 0x911B;
inline constexpr GLenum GL_CONDITION_SATISFIED = 0x911C;
inline constexpr GLenum GL_WAIT_FAILED = 0x911D;

// The entry points, as (result, name, parameters).
#define QRL_GL_FUNCTIONS(X)                                                                                          \
    X(const GLubyte*, glGetString, (GLenum name))                                                                   \
    X(GLenum, glGetError, ())                                                                                       \
    X(void, glGetIntegerv, (GLenum pname, GLint * data))                                                            \
    X(void, glEnable, (GLenum cap))                                                                                 \
    X(void, glDisable, (GLenum cap))                                                                                \
    X(GLboolean, glIsEnabled, (GLenum cap))                                                                         \
    X(void, glGenTextures, (GLsizei n, GLuint * textures))                                                          \
    X(void, glDeleteTextures, (GLsizei n, const GLuint* textures))                                                  \
    X(void, glBindTexture, (GLenum target, GLuint texture))                                                         \
    X(void, glActiveTexture, (GLenum texture))                                                                      \
    X(void, glTexParameteri, (GLenum target, GLenum pname, GLint param))                                            \
    X(void, glTexImage2D,                                                                                           \
      (GLenum target, GLint level, GLint internalformat, GLsizei width, GLsizei height, GLint border, GLenum format, \
       GLenum type, const void* pixels))                                                                            \
    X(void, glTexSubImage2D,                                                                                        \
      (GLenum target, GLint level, GLint xoffset, GLint yoffset, GLsizei width, GLsizei height, GLenum format,      \
       GLenum type, const void* pixels))                                                                            \
    X(void, glTexImage3D,                                                                                           \
      (GLenum target, GLint level, GLint internalformat, GLsizei width, GLsizei height, GLsizei depth, GLint border, \
       GLenum format, GLenum type, const void* pixels))                                                             \
    X(void, glGetTexLevelParameteriv, (GLenum target, GLint level, GLenum pname, GLint * params))                   \
    X(void, glPixelStorei, (GLenum pname, GLint param))                                                             \
    X(void, glViewport, (GLint x, GLint y, GLsizei width, GLsizei height))                                          \
    X(void, glMatrixMode, (GLenum mode))                                                                            \
    X(void, glPushMatrix, ())                                                                                       \
    X(void, glPopMatrix, ())                                                                                        \
    X(void, glLoadIdentity, ())                                                                                     \
    X(void, glOrtho, (GLdouble left, GLdouble right, GLdouble bottom, GLdouble top, GLdouble zNear, GLdouble zFar)) \
    X(void, glPushAttrib, (GLbitfield mask))                                                                        \
    X(void, glPopAttrib, ())                                                                                        \
    X(void, glClearColor, (GLfloat red, GLfloat green, GLfloat blue, GLfloat alpha))                                \
    X(void, glClear, (GLbitfield mask))                                                                             \
    X(void, glBlendFunc, (GLenum sfactor, GLenum dfactor))                                                          \
    X(void, glColor4f, (GLfloat red, GLfloat green, GLfloat blue, GLfloat alpha))                                   \
    X(void, glBegin, (GLenum mode))                                                                                 \
    X(void, glEnd, ())                                                                                              \
    X(void, glTexCoord2f, (GLfloat s, GLfloat t))                                                                   \
    X(void, glVertex2i, (GLint x, GLint y))                                                                         \
    X(void, glDrawBuffer, (GLenum buf))                                                                             \
    X(void, glReadBuffer, (GLenum src))                                                                             \
    X(void, glReadPixels,                                                                                           \
      (GLint x, GLint y, GLsizei width, GLsizei height, GLenum format, GLenum type, void* pixels))                  \
    X(void, glFlush, ())                                                                                            \
    X(void, glFinish, ())                                                                                           \
    X(void, glGenFramebuffersEXT, (GLsizei n, GLuint * framebuffers))                                               \
    X(void, glDeleteFramebuffersEXT, (GLsizei n, const GLuint* framebuffers))                                       \
    X(void, glBindFramebufferEXT, (GLenum target, GLuint framebuffer))                                              \
    X(void, glFramebufferTexture2DEXT,                                                                              \
      (GLenum target, GLenum attachment, GLenum textarget, GLuint texture, GLint level))                            \
    X(GLenum, glCheckFramebufferStatusEXT, (GLenum target))                                                         \
    X(GLhandleARB, glCreateShaderObjectARB, (GLenum shaderType))                                                    \
    X(void, glShaderSourceARB, (GLhandleARB shader, GLsizei count, const GLchar** string, const GLint* length))     \
    X(void, glCompileShaderARB, (GLhandleARB shader))                                                               \
    X(void, glGetObjectParameterivARB, (GLhandleARB obj, GLenum pname, GLint * params))                             \
    X(void, glGetInfoLogARB, (GLhandleARB obj, GLsizei maxLength, GLsizei * length, GLchar * infoLog))              \
    X(GLhandleARB, glCreateProgramObjectARB, ())                                                                    \
    X(void, glAttachObjectARB, (GLhandleARB container, GLhandleARB obj))                                            \
    X(void, glLinkProgramARB, (GLhandleARB program))                                                                \
    X(void, glUseProgramObjectARB, (GLhandleARB program))                                                           \
    X(void, glValidateProgramARB, (GLhandleARB program))                                                            \
    X(void, glDeleteObjectARB, (GLhandleARB obj))                                                                   \
    X(GLint, glGetUniformLocationARB, (GLhandleARB program, const GLchar* name))                                    \
    X(void, glUniform1fARB, (GLint location, GLfloat v0))                                                           \
    X(void, glUniform2fARB, (GLint location, GLfloat v0, GLfloat v1))                                               \
    X(void, glUniform1iARB, (GLint location, GLint v0))                                                             \
    X(void, glUniformMatrix3fvARB, (GLint location, GLsizei count, GLboolean transpose, const GLfloat* value))      \
    X(void, glGenBuffers, (GLsizei n, GLuint * buffers))                                                            \
    X(void, glDeleteBuffers, (GLsizei n, const GLuint* buffers))                                                    \
    X(void, glBindBuffer, (GLenum target, GLuint buffer))                                                           \
    X(void, glBufferData, (GLenum target, GLsizeiptr size, const void* data, GLenum usage))                         \
    X(void, glBufferStorage, (GLenum target, GLsizeiptr size, const void* data, GLbitfield flags))                  \
    X(void*, glMapBufferRange, (GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access))             \
    X(GLboolean, glUnmapBuffer, (GLenum target))                                                                    \
    X(void, glCopyImageSubData,                                                                                     \
      (GLuint srcName, GLenum srcTarget, GLint srcLevel, GLint srcX, GLint srcY, GLint srcZ, GLuint dstName,        \
       GLenum dstTarget, GLint dstLevel, GLint dstX, GLint dstY, GLint dstZ, GLsizei srcWidth, GLsizei srcHeight,   \
       GLsizei srcDepth))                                                                                           \
    X(GLsync, glFenceSync, (GLenum condition, GLbitfield flags))                                                    \
    X(GLenum, glClientWaitSync, (GLsync sync, GLbitfield flags, GLuint64 timeout))                                  \
    X(void, glDeleteSync, (GLsync sync))

// One context's entry points. A member is null only when the resolver had
// nothing for it.
struct GLFunctions {
#define QRL_GL_MEMBER_(result, name, parameters) result(*name) parameters = nullptr;
    QRL_GL_FUNCTIONS(QRL_GL_MEMBER_)
#undef QRL_GL_MEMBER_

    // Looks every entry point up with `resolve`; answers the names it could
    // not find (empty when all were found).
    using Resolver = void* (*)(const char* name, void* user);
    std::vector<std::string> load(Resolver resolve, void* user);
};

// Whether `name` is a whole word of a space-separated extension list.
bool glExtensionListHas(const char* list, const char* name);

}  // namespace qrl
