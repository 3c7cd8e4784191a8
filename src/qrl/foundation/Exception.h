// qrl::Exception: the framework's one exception for misuse and dead ends,
// carrying a short name ("MovingAvg", "OpenGLError") and a formatted reason.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace qrl {

class Exception : public std::exception {
public:
    Exception(std::string name, std::string reason);

    const std::string& name() const noexcept { return name_; }
    const std::string& reason() const noexcept { return reason_; }

    // "name: reason", for logs and uncaught-exception reports.
    const char* what() const noexcept override { return what_.c_str(); }

    // Throws an Exception with the given name and reason.
    [[noreturn]] static void raise(std::string name, std::string reason);

private:
    std::string name_;
    std::string reason_;
    std::string what_;
};

// The hardware layer's exception: a 32-bit status code, often a four-character code.
class CAException : public std::exception {
public:
    explicit CAException(int32_t status);
    int32_t status() const noexcept { return status_; }
    const char* what() const noexcept override { return what_.c_str(); }

private:
    int32_t status_;
    std::string what_;
};

}  // namespace qrl
