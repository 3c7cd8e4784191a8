#include "qrl/net/QRLJsonBase.h"

namespace qrl {

QRLJsonBase::QRLJsonBase()
    : KeyObservable([this](std::string_view key) { return key == kErrorTraceKey ? errorTraceValue() : Value(); }) {}

QRLJsonBase::~QRLJsonBase() { releaseTrace(); }

void QRLJsonBase::addErrorWithCode(uint64_t code, std::string description) {
    std::shared_ptr<const Error> underlying;
    if (!errorTrace_.empty()) underlying = errorTrace_.back();
    auto error = Error::make(std::string(QRLJSONErrorDomain), static_cast<int64_t>(code), std::move(description),
                             std::move(underlying));
    willChangeValueForKey(kErrorTraceKey);
    errorTrace_.push_back(std::move(error));
    didChangeValueForKey(kErrorTraceKey);
}

void QRLJsonBase::clearErrorTrace() {
    if (errorTrace_.empty()) return;
    willChangeValueForKey(kErrorTraceKey);
    releaseTrace();
    didChangeValueForKey(kErrorTraceKey);
}

// Each error holds the one before it, so freeing the newest first keeps the
// release of a long chain from recursing through all of it.
void QRLJsonBase::releaseTrace() {
    while (!errorTrace_.empty()) errorTrace_.pop_back();
}

Value QRLJsonBase::errorTraceValue() const {
    if (errorTrace_.empty()) return Value();
    Array items;
    items.reserve(errorTrace_.size());
    for (const auto& error : errorTrace_) items.emplace_back(std::shared_ptr<Object>(error));
    return Value(std::make_shared<Array>(std::move(items)));
}

bool QRLJsonBase::nestedTooDeep() {
    addErrorWithCode(kQRLJsonErrorNesting, "Nested too deep");
    return false;
}

void QRLJsonBase::resetNesting() {
    depth_ = 0;
    nesting_ = 0;
    proxies_ = 0;
}

void QRLJsonBase::storeLastError(std::shared_ptr<Error>* error) const {
    if (error != nullptr && !errorTrace_.empty()) *error = errorTrace_.back();
}

}  // namespace qrl
