// The calling thread's kernel id, as log messages record it.
#pragma once

#include <cstdint>

namespace qrl::detail {

// gettid() of the calling thread, cached per thread (and refreshed in the
// child after a fork).
uint32_t currentKernelThreadID();

}  // namespace qrl::detail
