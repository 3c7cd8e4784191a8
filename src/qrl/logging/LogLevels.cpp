#include "qrl/logging/LogLevels.h"

namespace qrl {

// Load values; Logging's set-up overwrites the levels from the store.
std::atomic<bool> qrl_loggingEnabled{true};
std::atomic<bool> qrl_autoSyncDefaults{true};
std::atomic<int32_t> sharedLogLevel{7};
std::atomic<int32_t> foundationLogLevel{7};
std::atomic<int32_t> legacyLogLevel{7};
std::atomic<int32_t> qtClientLogLevel{3};
std::atomic<int32_t> uploaderLogLevel{3};
std::atomic<int32_t> applicationLogLevel{7};
std::atomic<uint32_t> additionalApplicationLogLevel{0};
std::atomic<bool> _qrl_enableClassAndMethodLogging{false};

}  // namespace qrl
