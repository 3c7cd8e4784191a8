#include "qrl/foundation/Exception.h"

#include <cstdint>
#include <cstdio>

namespace qrl {

Exception::Exception(std::string name, std::string reason)
    : name_(std::move(name)), reason_(std::move(reason)), what_(name_ + ": " + reason_) {}

void Exception::raise(std::string name, std::string reason) { throw Exception(std::move(name), std::move(reason)); }

namespace {
std::string describeStatus(int32_t status) {
    const auto u = static_cast<uint32_t>(status);
    char code[5] = {static_cast<char>(u >> 24), static_cast<char>(u >> 16), static_cast<char>(u >> 8),
                    static_cast<char>(u), 0};
    bool printable = true;
    for (int i = 0; i < 4; ++i) printable = printable && code[i] >= 0x20 && code[i] < 0x7f;
    char buf[64];
    if (printable) std::snprintf(buf, sizeof buf, "status %d ('%s')", status, code);
    else std::snprintf(buf, sizeof buf, "status %d", status);
    return buf;
}
}  // namespace

CAException::CAException(int32_t status) : status_(status), what_("CAException: " + describeStatus(status)) {}

}  // namespace qrl
