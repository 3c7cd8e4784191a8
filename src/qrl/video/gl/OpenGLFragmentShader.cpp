#include "qrl/video/gl/OpenGLFragmentShader.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "qrl/foundation/Bundle.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/video/ContextManager.h"
#include "qrl/video/GLContext.h"
#include "qrl/foundation/Utf8.h"

namespace qrl {

namespace {

// The uniform's location; raises "No Uniform" when the program has none of
// the name, with the caller's lock still held.
GLint uniformLocation(GLContext& context, GLhandleARB program, const std::string& name, const char* kind) {
    const GLint location = context.gl().glGetUniformLocationARB(program, name.c_str());
    if (location == -1) {
        Exception::raise("No Uniform",
                         qrl::format("Can't set uniform for %@, to %@ value. Uniform not found.", name, kind));
    }
    return location;
}

std::string describeBundle(const Bundle* bundle) {
    if (!bundle) return "(null)";
    return qrl::format("Bundle <%@> (%@)", bundle->executablePath, bundle->identifier);
}

}  // namespace

OpenGLFragmentShader::OpenGLFragmentShader(std::shared_ptr<ContextManager> manager)
    : contextManager_(std::move(manager)) {}

std::shared_ptr<OpenGLFragmentShader> OpenGLFragmentShader::initWithContextManager(
    std::shared_ptr<ContextManager> manager) {
    return std::shared_ptr<OpenGLFragmentShader>(new OpenGLFragmentShader(std::move(manager)));
}

OpenGLFragmentShader::~OpenGLFragmentShader() { cleanUp(); }

std::shared_ptr<ContextManager> OpenGLFragmentShader::contextManager() const {
    std::lock_guard l(propertyMutex_);
    return contextManager_;
}

void OpenGLFragmentShader::loadProgram(std::string_view source) {
    const auto cm = contextManager();
    withCurrentContextLocked(cm.get(), [&](GLContext& c) {
        GLContext* const context = &c;
        const GLhandleARB shader = c.gl().glCreateShaderObjectARB(GL_FRAGMENT_SHADER_ARB);
        cm->checkOpenGLError("Cannot create shader object", context);
        const std::string text(source);
        const GLchar* strings[] = {text.c_str()};
        c.gl().glShaderSourceARB(shader, 1, strings, nullptr);
        cm->checkOpenGLError("Cannot pass source code", context);
        c.gl().glCompileShaderARB(shader);
        cm->checkOpenGLError("Error compiling shader", context);
        GLint compiled = 0;
        c.gl().glGetObjectParameterivARB(shader, GL_OBJECT_COMPILE_STATUS_ARB, &compiled);
        if (!compiled) {
            Exception::raise("Compile Error",
                             qrl::format("%@", "Shared compile error: " + getObjectErrorString(shader, context)));
        }
        program_ = c.gl().glCreateProgramObjectARB();
        cm->checkOpenGLError("Error creating program object", context);
        c.gl().glAttachObjectARB(program_, shader);
        cm->checkOpenGLError("Error attaching program object", context);
        c.gl().glLinkProgramARB(program_);
        cm->checkOpenGLError("Error linking program object", context);
        GLint linked = 0;
        c.gl().glGetObjectParameterivARB(program_, GL_OBJECT_LINK_STATUS_ARB, &linked);
        if (!linked) {
            // The broken program stays in `program`.
            Exception::raise("Link Error",
                             qrl::format("%@", "Shared link error: " + getObjectErrorString(program_, context)));
        }
    });
}

void OpenGLFragmentShader::loadProgramFromBundleResource(std::string_view name) {
    loadProgramFromBundleResource(name, Bundle::main());
}

void OpenGLFragmentShader::loadProgramFromBundleResource(std::string_view name,
                                                         const std::shared_ptr<const Bundle>& bundle) {
    const std::optional<std::string> path = bundle ? bundle->pathForResource(name, "fs") : std::nullopt;
    std::string text;
    bool read = false;
    if (path) {
        std::ifstream in(*path, std::ios::binary);
        if (in) {
            text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
            read = !in.bad() && isValidUtf8(text);
        }
    }
    if (!read) {
        Exception::raise("NoShader",
                         qrl::format("Cannot find or load the shader with name %@ from bundle %@. Used shaderPath %@",
                                     name, describeBundle(bundle.get()), path ? path->c_str() : nullptr));
    }
    loadProgram(text);
}

std::string OpenGLFragmentShader::getObjectErrorString(GLhandleARB object, GLContext* cgl_ctx) {
    if (!cgl_ctx) return {};
    const GLFunctions& gl = cgl_ctx->gl();
    GLint length = 0;
    gl.glGetObjectParameterivARB(object, GL_OBJECT_INFO_LOG_LENGTH_ARB, &length);
    std::vector<char> log(static_cast<size_t>(length > 0 ? length : 0) + 1, '\0');
    gl.glGetInfoLogARB(object, length, nullptr, log.data());
    if (length == 0) {
        // A second read into a local buffer; the answer is still the first one.
        char local[2048] = {};
        gl.glGetInfoLogARB(object, sizeof local, nullptr, local);
    }
    return std::string(log.data(), strnlen(log.data(), log.size()));
}

void OpenGLFragmentShader::validate() {
    const auto cm = contextManager();
    withCurrentContextLocked(cm.get(), [&](GLContext& c) {
        GLContext* const context = &c;
        // The program is not tested first.
        context->gl().glValidateProgramARB(program_);
        GLint valid = 0;
        context->gl().glGetObjectParameterivARB(program_, GL_OBJECT_VALIDATE_STATUS_ARB, &valid);
        if (!valid) {
            Exception::raise("Validation Error",
                             qrl::format("%@", "Shared validation error: " + getObjectErrorString(program_, context)));
        }
    });
}

void OpenGLFragmentShader::use() {
    const GLhandleARB p = program_.load();
    if (p == 0) return;
    const auto cm = contextManager();
    if (!cm) return;
    GLContext* context = cm->lockCurrentContext();
    if (context) {
        context->gl().glUseProgramObjectARB(p);
        cm->unlockCGLContext(context);
    }
    cm->checkOpenGLError("Cannot use fragment shader", context);
}

void OpenGLFragmentShader::finish() {
    const auto cm = contextManager();
    GLContext* context = cm ? cm->lockCurrentContext() : nullptr;
    if (!context) return;
    context->gl().glUseProgramObjectARB(0);
    cm->unlockCGLContext(context);
}

void OpenGLFragmentShader::setUniform(std::string_view name, double floatValue) {
    const GLhandleARB p = program_.load();
    if (p == 0) return;
    const auto cm = contextManager();
    GLContext* context = cm ? cm->lockCurrentContext() : nullptr;
    if (!context) return;
    const std::string n(name);
    const GLint location = uniformLocation(*context, p, n, "float");
    context->gl().glUniform1fARB(location, static_cast<GLfloat>(floatValue));
    cm->unlockCGLContext(context);
    cm->checkOpenGLError(escapeFormatText(qrl::format("Cannot set parameter %@ to %2.2f", n, floatValue)), context);
}

void OpenGLFragmentShader::setUniform(std::string_view name, int32_t intValue) {
    const GLhandleARB p = program_.load();
    if (p == 0) return;
    const auto cm = contextManager();
    GLContext* context = cm ? cm->lockCurrentContext() : nullptr;
    if (!context) return;
    const std::string n(name);
    const GLint location = uniformLocation(*context, p, n, "int");
    context->gl().glUniform1iARB(location, intValue);
    cm->unlockCGLContext(context);
    cm->checkOpenGLError(escapeFormatText(qrl::format("Cannot set parameter %@ to %ld", n, static_cast<long>(intValue))),
                         context);
}

void OpenGLFragmentShader::setUniform3fvMatrix(std::string_view name, const std::array<float, 9>& matrix,
                                               bool transpose) {
    const GLhandleARB p = program_.load();
    if (p == 0) return;
    const auto cm = contextManager();
    GLContext* context = cm ? cm->lockCurrentContext() : nullptr;
    if (!context) return;
    const std::string n(name);
    const GLint location = uniformLocation(*context, p, n, "matrix");
    context->gl().glUniformMatrix3fvARB(location, 1, transpose ? 1 : 0, matrix.data());
    cm->unlockCGLContext(context);
}

void OpenGLFragmentShader::cleanUp() {
    {
        std::lock_guard l(propertyMutex_);
        if (inCleanup_) return;
        inCleanup_ = true;
    }
    const auto self = weak_from_this().lock();  // stays alive while the manager lets go of it
    const auto cm = contextManager();
    if (cm) cm->releaseFragmentShader(this);
    const GLhandleARB p = program_.load();
    if (p != 0 && cm) {
        if (GLContext* context = cm->lockCurrentContext()) {
            context->gl().glDeleteObjectARB(p);
            program_ = 0;
            cm->unlockCGLContext(context);
        }
    }
    std::lock_guard l(propertyMutex_);
    contextManager_.reset();
}

}  // namespace qrl
