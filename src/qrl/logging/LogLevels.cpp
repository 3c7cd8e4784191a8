#include "qrl/logging/LogLevels.h"

namespace qrl {

std::atomic<bool> qrl_loggingEnabled{kLogLoadValues.loggingEnabled};
std::atomic<bool> qrl_autoSyncDefaults{kLogLoadValues.autoSyncDefaults};
std::atomic<int32_t> sharedLogLevel{kLogLoadValues.shared};
std::atomic<int32_t> foundationLogLevel{kLogLoadValues.foundation};
std::atomic<int32_t> legacyLogLevel{kLogLoadValues.legacy};
std::atomic<int32_t> qtClientLogLevel{kLogLoadValues.qtClient};
std::atomic<int32_t> uploaderLogLevel{kLogLoadValues.uploader};
std::atomic<int32_t> applicationLogLevel{kLogLoadValues.application};
std::atomic<uint32_t> additionalApplicationLogLevel{kLogLoadValues.domains};
std::atomic<bool> _qrl_enableClassAndMethodLogging{kLogLoadValues.classAndMethod};

void resetLogLevelsToLoadValues() {
    constexpr auto relaxed = std::memory_order_relaxed;
    qrl_loggingEnabled.store(kLogLoadValues.loggingEnabled, relaxed);
    qrl_autoSyncDefaults.store(kLogLoadValues.autoSyncDefaults, relaxed);
    sharedLogLevel.store(kLogLoadValues.shared, relaxed);
    foundationLogLevel.store(kLogLoadValues.foundation, relaxed);
    legacyLogLevel.store(kLogLoadValues.legacy, relaxed);
    qtClientLogLevel.store(kLogLoadValues.qtClient, relaxed);
    uploaderLogLevel.store(kLogLoadValues.uploader, relaxed);
    applicationLogLevel.store(kLogLoadValues.application, relaxed);
    additionalApplicationLogLevel.store(kLogLoadValues.domains, relaxed);
    _qrl_enableClassAndMethodLogging.store(kLogLoadValues.classAndMethod, relaxed);
}

}  // namespace qrl
