#include "qrl/logging/QRLLog.h"

#include <mutex>

namespace qrl {

namespace {
std::mutex gSinkMutex;
std::shared_ptr<QRLLog::Sink> gSink;
}  // namespace

QRLLog::Sink QRLLog::setSink(Sink sink) {
    auto next = sink ? std::make_shared<Sink>(std::move(sink)) : nullptr;
    std::lock_guard lock(gSinkMutex);
    auto previous = std::move(gSink);
    gSink = std::move(next);
    return previous ? *previous : Sink{};
}

void QRLLog::deliver(LogStatement&& statement) {
    std::shared_ptr<Sink> sink;
    {
        std::lock_guard lock(gSinkMutex);
        sink = gSink;
    }
    if (sink) (*sink)(std::move(statement));
}

}  // namespace qrl
