// The guard in front of every log statement: the exported level variables,
// flags, contexts and domain bits, and the two inline guard forms. A disabled
// statement costs two or three relaxed loads and a test; no argument of its
// format is evaluated.
#pragma once

#include <atomic>
#include <cstdint>

#include "qrl/logging/QRLLog.h"

namespace qrl {

// Process-wide switches, read without a lock by every statement. Relaxed
// atomics compile to plain loads; a stale read costs one message at most.
// Each starts at its entry of kLogLoadValues below.
extern std::atomic<bool> qrl_loggingEnabled;               // master switch
extern std::atomic<bool> qrl_autoSyncDefaults;             // read by nothing here
extern std::atomic<int32_t> sharedLogLevel;                // context 1
extern std::atomic<int32_t> foundationLogLevel;            // tested by no statement here
extern std::atomic<int32_t> legacyLogLevel;                // tested by no statement here
extern std::atomic<int32_t> qtClientLogLevel;              // tested by no statement here
extern std::atomic<int32_t> uploaderLogLevel;              // context 16
extern std::atomic<int32_t> applicationLogLevel;           // context 32
extern std::atomic<uint32_t> additionalApplicationLogLevel;  // enabled domains
extern std::atomic<bool> _qrl_enableClassAndMethodLogging;   // formatters print file and method

// A statement has exactly one flag; a level is a mask of flags.
inline constexpr int32_t kLogFlagError = 1;
inline constexpr int32_t kLogFlagWarning = 2;
inline constexpr int32_t kLogFlagInfo = 4;
inline constexpr int32_t kLogFlagVerbose = 8;

inline constexpr int32_t kLogLevelOff = 0;
inline constexpr int32_t kLogLevelError = 1;
inline constexpr int32_t kLogLevelWarning = 3;
inline constexpr int32_t kLogLevelInfo = 7;
inline constexpr int32_t kLogLevelVerbose = 15;

// Which level variable guarded a statement; carried in the message only.
inline constexpr int32_t kLogContextShared = 1;        // sharedLogLevel
inline constexpr int32_t kLogContextUploader = 16;     // uploaderLogLevel
inline constexpr int32_t kLogContextApplication = 32;  // applicationLogLevel

// Domains, one bit each. The gap between 0x4 and 0x100 is deliberate.
inline constexpr uint32_t kLoggingAudio = 0x1;
inline constexpr uint32_t kLoggingVideo = 0x2;
inline constexpr uint32_t kLoggingDebug = 0x4;
inline constexpr uint32_t kLoggingCapture = 0x100;
inline constexpr uint32_t kLoggingCompositing = 0x200;
inline constexpr uint32_t kLoggingCompression = 0x400;
inline constexpr uint32_t kLoggingDiskStage = 0x800;  // no defaults key: no preference switches it
inline constexpr uint32_t kLoggingDatabase = 0x1000;
inline constexpr uint32_t kLoggingOpenGL = 0x2000;    // no defaults key: only enableApplicationContext
inline constexpr uint32_t kLoggingResume = 0x4000;
inline constexpr uint32_t kLoggingQueueing = 0x8000;
inline constexpr uint32_t kLoggingQuartzUpdates = 0x10000;
inline constexpr uint32_t kLoggingHTTPDiscovery = 0x20000;
inline constexpr uint32_t kLoggingHTTPMessaging = 0x40000;
inline constexpr uint32_t kLoggingQRLAVFoundation = 0x80000;

// Only these bits of a domain take part in the domain guard.
inline constexpr uint32_t kLoggingDomainMask = 0x1ffffff;

// The values the switches hold when the library loads, before Logging's
// set-up reads the stored levels over them.
struct LogLoadValues {
    bool loggingEnabled;
    bool autoSyncDefaults;
    int32_t shared, foundation, legacy, qtClient, uploader, application;
    uint32_t domains;
    bool classAndMethod;
};
inline constexpr LogLoadValues kLogLoadValues{
    .loggingEnabled = true,
    .autoSyncDefaults = true,
    .shared = kLogLevelInfo,
    .foundation = kLogLevelInfo,
    .legacy = kLogLevelInfo,
    .qtClient = kLogLevelWarning,
    .uploader = kLogLevelWarning,
    .application = kLogLevelInfo,
    .domains = 0,
    .classAndMethod = false,
};

// Stores kLogLoadValues into every switch, as at load.
void resetLogLevelsToLoadValues();

}  // namespace qrl

#define QRL_LOG_LIKELY_FALSE_(x) __builtin_expect(!!(x), 0)

// Plain form: effective = enabled ? L : 0; the statement runs when effective
// has its flag, and passes effective as its level.
#define QRL_LOG_MAYBE(synchronous, levelVariable, flag, context, format, ...)                                  \
    do {                                                                                                      \
        const int32_t qrlEffectiveLevel_ = ::qrl::qrl_loggingEnabled.load(std::memory_order_relaxed)           \
                                               ? (levelVariable).load(std::memory_order_relaxed)              \
                                               : 0;                                                           \
        if (QRL_LOG_LIKELY_FALSE_(qrlEffectiveLevel_ & (flag)))                                               \
            ::qrl::QRLLog::log((synchronous), qrlEffectiveLevel_, (flag), (context), __FILE__, __func__,     \
                               __LINE__, (format)__VA_OPT__(, ) __VA_ARGS__);                                 \
    } while (0)

// Domain form: enabled, and the domain's bit is set (within 0x1ffffff), then
// the level variable must have the flag. The domain is not passed on.
#define QRL_LOG_DOMAIN_MAYBE(synchronous, domain, levelVariable, flag, context, format, ...)                   \
    do {                                                                                                      \
        if (QRL_LOG_LIKELY_FALSE_(                                                                            \
                ::qrl::qrl_loggingEnabled.load(std::memory_order_relaxed) &&                                  \
                (::qrl::additionalApplicationLogLevel.load(std::memory_order_relaxed) &                        \
                 static_cast<uint32_t>(domain) & ::qrl::kLoggingDomainMask) != 0)) {                          \
            const int32_t qrlLevel_ = (levelVariable).load(std::memory_order_relaxed);                        \
            if (qrlLevel_ & (flag))                                                                           \
                ::qrl::QRLLog::log((synchronous), qrlLevel_, (flag), (context), __FILE__, __func__, __LINE__, \
                                   (format)__VA_OPT__(, ) __VA_ARGS__);                                       \
        }                                                                                                     \
    } while (0)

// Shared-framework statements (context 1).
#define QRLLogError(format, ...) QRL_LOG_MAYBE(false, ::qrl::sharedLogLevel, ::qrl::kLogFlagError, ::qrl::kLogContextShared, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLLogWarn(format, ...) QRL_LOG_MAYBE(false, ::qrl::sharedLogLevel, ::qrl::kLogFlagWarning, ::qrl::kLogContextShared, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLLogInfo(format, ...) QRL_LOG_MAYBE(false, ::qrl::sharedLogLevel, ::qrl::kLogFlagInfo, ::qrl::kLogContextShared, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLLogVerbose(format, ...) QRL_LOG_MAYBE(false, ::qrl::sharedLogLevel, ::qrl::kLogFlagVerbose, ::qrl::kLogContextShared, format __VA_OPT__(, ) __VA_ARGS__)

// Uploader statements (context 16).
#define QRLUploaderLogError(format, ...) QRL_LOG_MAYBE(false, ::qrl::uploaderLogLevel, ::qrl::kLogFlagError, ::qrl::kLogContextUploader, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLUploaderLogWarn(format, ...) QRL_LOG_MAYBE(false, ::qrl::uploaderLogLevel, ::qrl::kLogFlagWarning, ::qrl::kLogContextUploader, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLUploaderLogInfo(format, ...) QRL_LOG_MAYBE(false, ::qrl::uploaderLogLevel, ::qrl::kLogFlagInfo, ::qrl::kLogContextUploader, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLUploaderLogVerbose(format, ...) QRL_LOG_MAYBE(false, ::qrl::uploaderLogLevel, ::qrl::kLogFlagVerbose, ::qrl::kLogContextUploader, format __VA_OPT__(, ) __VA_ARGS__)

// Application-level statements (context 32).
#define QRLAppLogError(format, ...) QRL_LOG_MAYBE(false, ::qrl::applicationLogLevel, ::qrl::kLogFlagError, ::qrl::kLogContextApplication, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLAppLogWarn(format, ...) QRL_LOG_MAYBE(false, ::qrl::applicationLogLevel, ::qrl::kLogFlagWarning, ::qrl::kLogContextApplication, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLAppLogInfo(format, ...) QRL_LOG_MAYBE(false, ::qrl::applicationLogLevel, ::qrl::kLogFlagInfo, ::qrl::kLogContextApplication, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLAppLogVerbose(format, ...) QRL_LOG_MAYBE(false, ::qrl::applicationLogLevel, ::qrl::kLogFlagVerbose, ::qrl::kLogContextApplication, format __VA_OPT__(, ) __VA_ARGS__)

// Domain statements guarded by sharedLogLevel (context 1) or applicationLogLevel (context 32).
#define QRLDomainLogError(domain, format, ...) QRL_LOG_DOMAIN_MAYBE(false, domain, ::qrl::sharedLogLevel, ::qrl::kLogFlagError, ::qrl::kLogContextShared, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLDomainLogWarn(domain, format, ...) QRL_LOG_DOMAIN_MAYBE(false, domain, ::qrl::sharedLogLevel, ::qrl::kLogFlagWarning, ::qrl::kLogContextShared, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLDomainLogInfo(domain, format, ...) QRL_LOG_DOMAIN_MAYBE(false, domain, ::qrl::sharedLogLevel, ::qrl::kLogFlagInfo, ::qrl::kLogContextShared, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLDomainLogVerbose(domain, format, ...) QRL_LOG_DOMAIN_MAYBE(false, domain, ::qrl::sharedLogLevel, ::qrl::kLogFlagVerbose, ::qrl::kLogContextShared, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLAppDomainLogError(domain, format, ...) QRL_LOG_DOMAIN_MAYBE(false, domain, ::qrl::applicationLogLevel, ::qrl::kLogFlagError, ::qrl::kLogContextApplication, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLAppDomainLogWarn(domain, format, ...) QRL_LOG_DOMAIN_MAYBE(false, domain, ::qrl::applicationLogLevel, ::qrl::kLogFlagWarning, ::qrl::kLogContextApplication, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLAppDomainLogInfo(domain, format, ...) QRL_LOG_DOMAIN_MAYBE(false, domain, ::qrl::applicationLogLevel, ::qrl::kLogFlagInfo, ::qrl::kLogContextApplication, format __VA_OPT__(, ) __VA_ARGS__)
#define QRLAppDomainLogVerbose(domain, format, ...) QRL_LOG_DOMAIN_MAYBE(false, domain, ::qrl::applicationLogLevel, ::qrl::kLogFlagVerbose, ::qrl::kLogContextApplication, format __VA_OPT__(, ) __VA_ARGS__)
