// OpenGLFragmentShader: compiles one fragment shader (ARB_shader_objects)
// from UTF-8 source text or an "fs" resource, links it into a program of its
// own, switches it on and off and sets uniforms, all on the context
// manager's selected context under its lock.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "qrl/video/gl/FragmentShader.h"
#include "qrl/video/gl/GLFunctions.h"

namespace qrl {

class ContextManager;
class GLContext;

class OpenGLFragmentShader final : public FragmentShader, public std::enable_shared_from_this<OpenGLFragmentShader> {
public:
    static std::shared_ptr<OpenGLFragmentShader> initWithContextManager(std::shared_ptr<ContextManager> manager);
    ~OpenGLFragmentShader() override;

    // Raises "Compile Error" and "Link Error" with the driver's log, and
    // "OpenGLError" for GL errors after each step. Does nothing without a
    // selected context.
    void loadProgram(std::string_view source) override;
    void loadProgramFromBundleResource(std::string_view name) override;
    // Raises "NoShader" when the resource cannot be found or read as UTF-8.
    void loadProgramFromBundleResource(std::string_view name, const std::shared_ptr<const Bundle>& bundle) override;
    void use() override;
    void finish() override;
    void cleanUp() override;
    // Raises "Validation Error" with the program's log.
    void validate() override;
    // The three raise "No Uniform" for a name that is not an active uniform
    // (leaving the context locked: the caller that catches it unlocks).
    void setUniform(std::string_view name, double floatValue) override;
    void setUniform(std::string_view name, int32_t intValue) override;
    void setUniform3fvMatrix(std::string_view name, const std::array<float, 9>& matrix, bool transpose) override;

    // The info log of a shader or program object.
    std::string getObjectErrorString(GLhandleARB object, GLContext* cgl_ctx);
    GLhandleARB program() const { return program_.load(); }
    std::shared_ptr<ContextManager> contextManager() const;

private:
    explicit OpenGLFragmentShader(std::shared_ptr<ContextManager> manager);

    mutable std::mutex propertyMutex_;
    std::shared_ptr<ContextManager> contextManager_;
    std::atomic<GLhandleARB> program_{0};
    bool inCleanup_ = false;
};

}  // namespace qrl
