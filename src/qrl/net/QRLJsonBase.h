// QRLJsonBase: what the JSON reader and writer share: the error trace, in which
// each error's underlying error is the one before it, and the nesting limit.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/Error.h"
#include "qrl/foundation/KeyObservation.h"
#include "qrl/foundation/Value.h"

namespace qrl {

inline constexpr std::string_view QRLJSONErrorDomain = "org.Fenwold.JSON.ErrorDomain";

// Error codes of QRLJSONErrorDomain.
enum QRLJsonErrorCode : uint64_t {
    kQRLJsonErrorUnsupportedValue = 1,  // the writer cannot represent a value
    kQRLJsonErrorBadNumber = 2,
    kQRLJsonErrorSyntax = 3,
    kQRLJsonErrorNotContainer = 4,      // top level is no object or array
    kQRLJsonErrorControlCharacter = 5,  // unescaped control character in a string
    kQRLJsonErrorBadUnicode = 6,
    kQRLJsonErrorNesting = 7,
    kQRLJsonErrorBadEscape = 8,
    kQRLJsonErrorTrailingComma = 9,
    kQRLJsonErrorGarbage = 10,          // data after the value
    kQRLJsonErrorEndOfInput = 11,
    kQRLJsonErrorNoInput = 12,
};

// Observable by key: "errorTrace" announces each change of the trace, with
// errorTraceValue() as its value.
class QRLJsonBase : public KeyObservable {
public:
    static constexpr std::string_view kErrorTraceKey = "errorTrace";

    static constexpr uint64_t kDefaultMaxDepth = 512;
    // With maxDepth 0, objects standing in for objects (the writer's
    // proxies) may still nest this deep: a proxy that leads back to itself
    // must end. Containers have no limit then; reading, writing and freeing
    // keep their own stacks, so no depth exhausts the thread's.
    static constexpr uint64_t kMaxProxyNesting = 4096;

    QRLJsonBase();
    ~QRLJsonBase() override;

    // Appends an error of QRLJSONErrorDomain with the description as its
    // localised description; its underlying error is the trace's last one.
    void addErrorWithCode(uint64_t code, std::string description);
    // Empties the trace (announced only when it held errors).
    void clearErrorTrace();

    // Oldest first: the last error is the outermost, and following the
    // underlying errors from it leads back to the first failure. Empty when
    // clean.
    const std::vector<std::shared_ptr<Error>>& errorTrace() const { return errorTrace_; }
    // The trace as a value: null when clean, otherwise an array of the errors.
    Value errorTraceValue() const;

    // Maximum nesting of arrays and objects; 0 turns the limit off.
    uint64_t maxDepth() const { return maxDepth_; }
    void setMaxDepth(uint64_t maxDepth) { maxDepth_ = maxDepth; }
    // Present nesting. Raised on entering a container only while maxDepth is
    // not 0, lowered on leaving one always, never below 0.
    uint64_t depth() const { return depth_; }

protected:
    // Entering an array or object: the depth rule, then the nesting limit.
    // Adds code 7, "Nested too deep", and answers false when either is passed.
    bool enterContainer() {
        if (maxDepth_ != 0 && ++depth_ > maxDepth_) return nestedTooDeep();
        ++nesting_;
        return maxDepth_ == 0 || nesting_ <= maxDepth_ || nestedTooDeep();
    }
    // Substituting one value for another (the writer's proxies): a level of
    // nesting too, though not of depth, which only containers raise.
    bool enterProxy() {
        ++nesting_;
        ++proxies_;
        if (maxDepth_ != 0) return nesting_ <= maxDepth_ || nestedTooDeep();
        return proxies_ <= kMaxProxyNesting || nestedTooDeep();
    }
    // How many substitutions in a row may stand at the top level.
    uint64_t proxyLimit() const { return maxDepth_ != 0 ? maxDepth_ : kMaxProxyNesting; }
    void leaveContainer() {
        if (depth_ > 0) --depth_;
        if (nesting_ > 0) --nesting_;
    }
    void leaveProxy() {
        if (nesting_ > 0) --nesting_;
        if (proxies_ > 0) --proxies_;
    }
    void resetNesting();
    // The last error of the trace into *error, when error is given and the
    // trace is not empty.
    void storeLastError(std::shared_ptr<Error>* error) const;

    uint64_t depth_ = 0;

private:
    bool nestedTooDeep();  // adds code 7; always false
    void releaseTrace();

    std::vector<std::shared_ptr<Error>> errorTrace_;
    uint64_t maxDepth_ = kDefaultMaxDepth;
    uint64_t nesting_ = 0;  // containers and proxies, whatever maxDepth says
    uint64_t proxies_ = 0;  // proxies among them
};

}  // namespace qrl
