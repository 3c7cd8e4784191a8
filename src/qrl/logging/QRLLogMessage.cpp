#include "qrl/logging/QRLLogMessage.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "qrl/foundation/SerialQueue.h"
#include "qrl/logging/detail/ThreadIdentity.h"

namespace qrl {

namespace {

constexpr uint8_t kThreadIDReady = 1;
constexpr uint8_t kFileNameReady = 2;
constexpr uint8_t kMethodNameReady = 4;

// A child of fork() keeps the parent's thread-local cache but not its thread
// ids; the generation tells the cache that it is stale.
std::atomic<uint32_t> gForkGeneration{0};

void afterForkInChild() { gForkGeneration.fetch_add(1, std::memory_order_relaxed); }

[[maybe_unused]] const int gForkHandler = [] {
    pthread_atfork(nullptr, nullptr, afterForkInChild);
    return 0;
}();

}  // namespace

namespace detail {

uint32_t currentKernelThreadID() {
    struct Cache {
        uint32_t generation = ~0u;
        uint32_t tid = 0;
    };
    thread_local Cache cache;
    const uint32_t generation = gForkGeneration.load(std::memory_order_relaxed);
    if (cache.generation != generation) {
        cache.tid = static_cast<uint32_t>(::syscall(SYS_gettid));
        cache.generation = generation;
    }
    return cache.tid;
}

}  // namespace detail

std::optional<std::string_view> ExtractFileNameWithoutExtension(const char* filePath) {
    if (filePath == nullptr) return std::nullopt;
    // One pass, keeping the last "/" and the last "."; a "." before the last
    // "/" belongs to a folder and is no extension.
    const char* lastSlash = nullptr;
    const char* lastDot = nullptr;
    const char* p = filePath;
    for (; *p != '\0'; ++p) {
        if (*p == '/')
            lastSlash = p;
        else if (*p == '.')
            lastDot = p;
    }
    const char* begin = lastSlash ? lastSlash + 1 : filePath;
    const char* end = (lastDot && lastDot >= begin) ? lastDot : p;
    return std::string_view(begin, static_cast<size_t>(end - begin));
}

QRLLogMessage::QRLLogMessage(std::string logMsg, int32_t level, int32_t flag, int32_t context, const char* file,
                             const char* function, int32_t line)
    : logLevel_(level),
      logFlag_(flag),
      logContext_(context),
      lineNumber_(line),
      logMsg_(std::move(logMsg)),
      file_(file),
      function_(function) {
    stamp();
}

void QRLLogMessage::stamp() {
    timestamp_ = Date::now();
    machThreadID_ = detail::currentKernelThreadID();
    if (const auto label = SerialQueue::currentLabel()) {
        queueName_.assign(label->data(), label->size());
        hasQueueName_ = true;
    } else {
        queueName_.clear();
        hasQueueName_ = false;
    }
}

template <class F>
void QRLLogMessage::makeOnce(uint8_t bit, F&& make) const {
    if (lazyReady_.load(std::memory_order_acquire) & bit) return;
    while (lazyBusy_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
    if (!(lazyReady_.load(std::memory_order_relaxed) & bit)) {
        make();
        lazyReady_.fetch_or(bit, std::memory_order_release);
    }
    lazyBusy_.clear(std::memory_order_release);
}

std::string_view QRLLogMessage::threadID() const {
    makeOnce(kThreadIDReady, [this] {
        static constexpr char kDigits[] = "0123456789abcdef";
        char reversed[8];
        uint8_t n = 0;
        uint32_t v = machThreadID_;
        do {
            reversed[n++] = kDigits[v & 0xf];
            v >>= 4;
        } while (v != 0);
        for (uint8_t i = 0; i < n; ++i) threadIDText_[i] = reversed[n - 1 - i];
        threadIDLength_ = n;
    });
    return std::string_view(threadIDText_, threadIDLength_);
}

std::optional<std::string_view> QRLLogMessage::fileName() const {
    makeOnce(kFileNameReady, [this] { fileName_ = ExtractFileNameWithoutExtension(file_); });
    return fileName_;
}

std::optional<std::string_view> QRLLogMessage::methodName() const {
    makeOnce(kMethodNameReady,
             [this] { methodName_ = function_ ? std::optional<std::string_view>(function_) : std::nullopt; });
    return methodName_;
}

}  // namespace qrl
