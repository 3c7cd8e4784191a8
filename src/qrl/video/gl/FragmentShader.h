// FragmentShader: one fragment shader compiled from source text and linked
// into a program of its own, switched on and off, with uniform values.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

namespace qrl {

struct Bundle;

class FragmentShader {
public:
    virtual ~FragmentShader() = default;

    virtual void loadProgram(std::string_view source) = 0;
    // loadProgramFromBundleResource: (the application's main bundle)
    virtual void loadProgramFromBundleResource(std::string_view name) = 0;
    // loadProgramFromBundleResource:inBundle: (a resource of type "fs")
    virtual void loadProgramFromBundleResource(std::string_view name, const std::shared_ptr<const Bundle>& bundle) = 0;
    virtual void use() = 0;
    virtual void finish() = 0;
    virtual void cleanUp() = 0;
    virtual void validate() = 0;
    // setUniform:floatValue: (the value is narrowed to a float)
    virtual void setUniform(std::string_view name, double floatValue) = 0;
    // setUniform:intValue:
    virtual void setUniform(std::string_view name, int32_t intValue) = 0;
    // setUniform3fvMatrix:matrix:transpose:
    virtual void setUniform3fvMatrix(std::string_view name, const std::array<float, 9>& matrix, bool transpose) = 0;
};

}  // namespace qrl
