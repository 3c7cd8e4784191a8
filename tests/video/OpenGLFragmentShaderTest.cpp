#include "qrl/video/gl/OpenGLFragmentShader.h"

#include <gtest/gtest.h>

#include <fstream>

#include "qrl/foundation/Bundle.h"
#include "support/TemporaryFolder.h"
#include "video/GLTestSupport.h"

namespace qrl {
namespace {

using test::expectRaise;

constexpr const char* kTint = R"(uniform float amount;
uniform int mode;
uniform mat3 colour;
uniform float unused;
void main() { gl_FragColor = vec4(colour * vec3(amount), float(mode)); }
)";

class OpenGLFragmentShaderTest : public test::SimGLFixture {
protected:
    std::shared_ptr<OpenGLFragmentShader> shader(const char* source) {
        return std::dynamic_pointer_cast<OpenGLFragmentShader>(selected(0).createNewFragmentShaderFromSource(source));
    }
};

// The drivers' own compile and link texts are checked on EGL.
TEST_F(OpenGLFragmentShaderTest, FailedCompileOrLinkLeavesAShaderThatDoesNothing) {
    auto& m = selected(0);
    EXPECT_THROW(m.createNewFragmentShaderFromSource("void main() {\n#error no colour today\n}"), Exception);
    EXPECT_EQ(m.numberOfFragmentShaders(), 0);
    EXPECT_EQ(sim(0).lockDepth(), 0);

    // Made by hand, a failed compile leaves no program, and use() does nothing.
    auto broken = OpenGLFragmentShader::initWithContextManager(manager_);
    EXPECT_THROW(broken->loadProgram("void main() { gl_FragColor = vec4(1.0); "), Exception);
    EXPECT_EQ(broken->program(), 0u);
    broken->use();
    EXPECT_EQ(sim(0).programInUse(), 0u);
    // A failed link leaves the broken program in place; it does not validate.
    auto unlinked = OpenGLFragmentShader::initWithContextManager(manager_);
    EXPECT_THROW(unlinked->loadProgram("float f() { return 1.0; }"), Exception);
    EXPECT_NE(unlinked->program(), 0u);
    expectRaise([&] { unlinked->validate(); }, "Validation Error", "Shared validation error: error: program is not linked\n");
    const GLhandleARB brokenProgram = unlinked->program();
    unlinked->cleanUp();
    EXPECT_FALSE(sim(0).objectExists(brokenProgram));
}

TEST_F(OpenGLFragmentShaderTest, UniformsAndTheirFailures) {
    auto s = shader(kTint);
    ASSERT_NE(s->program(), 0u);
    EXPECT_NO_THROW(s->validate());
    s->use();
    EXPECT_EQ(sim(0).programInUse(), s->program());
    s->setUniform("amount", 0.5);
    s->setUniform("mode", int32_t{3});
    s->setUniform3fvMatrix("colour", {1, 0, 0, 0, 1, 0, 0, 0, 1}, true);
    EXPECT_EQ(sim(0).uniformValue(s->program(), "amount"), "0.5");
    EXPECT_EQ(sim(0).uniformValue(s->program(), "mode"), "3");
    EXPECT_EQ(sim(0).uniformValue(s->program(), "colour"), "T1, 0, 0, 0, 1, 0, 0, 0, 1");

    // GL errors after the set carry the value in the text.
    sim(0).failNextCall("glUniform1fARB", GL_INVALID_OPERATION);
    expectRaise([&] { s->setUniform("amount", 2.0 / 3.0); }, "OpenGLError",
                "Cannot set parameter amount to 0.67, OpenGL Error: 1282");
    sim(0).failNextCall("glUniform1iARB", GL_INVALID_VALUE);
    expectRaise([&] { s->setUniform("mode", int32_t{-7}); }, "OpenGLError",
                "Cannot set parameter mode to -7, OpenGL Error: 1281");
    EXPECT_EQ(sim(0).lockDepth(), 0);

    // Unknown names are not found (nor, as EGL shows, the optimized-away ones).
    expectRaise([&] { s->setUniform("nothing", int32_t{1}); }, "No Uniform",
                "Can't set uniform for nothing, to int value. Uniform not found.");
    expectRaise([&] { s->setUniform3fvMatrix("nothing", {}, false); }, "No Uniform",
                "Can't set uniform for nothing, to matrix value. Uniform not found.");
    // Those raises keep the lock (on purpose: see OpenGLFragmentShader).
    EXPECT_EQ(sim(0).lockDepth(), 2);
    for (int i = 0; i < 2; ++i) sim(0).unlock();

    s->finish();
    EXPECT_EQ(sim(0).programInUse(), 0u);
}

TEST_F(OpenGLFragmentShaderTest, ResourcesOfTypeFs) {
    test::TemporaryFolder dir("qrl-fs");
    std::ofstream(dir.file("tint.fs")) << kTint;
    std::ofstream(dir.file("latin1.fs"), std::ios::binary) << "void main() { /* \xE9t\xE9 */ }";
    auto bundle = std::make_shared<Bundle>();
    bundle->identifier = "org.qrlshared.tests";
    bundle->executablePath = "/opt/tests/bin/app";
    bundle->resourcePaths = {dir.path()};

    auto& m = selected(0);
    auto s = std::dynamic_pointer_cast<OpenGLFragmentShader>(m.createNewFragmentShaderUsingResource("tint", bundle));
    EXPECT_NE(s->program(), 0u);
    EXPECT_EQ(m.numberOfFragmentShaders(), 1);
    expectRaise([&] { m.createNewFragmentShaderUsingResource("missing", bundle); }, "NoShader",
                "Cannot find or load the shader with name missing from bundle Bundle </opt/tests/bin/app> "
                "(org.qrlshared.tests). Used shaderPath (null)");
    expectRaise([&] { m.createNewFragmentShaderUsingResource("latin1", bundle); }, "NoShader",
                "Cannot find or load the shader with name latin1 from bundle Bundle </opt/tests/bin/app> "
                "(org.qrlshared.tests). Used shaderPath " + dir.file("latin1.fs"));
}

}  // namespace
}  // namespace qrl
