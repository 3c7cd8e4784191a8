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
    // Nesting never goes deeper than this, even when maxDepth is 0 (no limit)
    // or larger: writing and destroying nested values recurse, and deeper
    // documents could exhaust a thread's stack (about 1.6 KiB a level in an
    // unoptimised build with address sanitizer, a quarter of that
    // optimised). Reading keeps its own stack.
    static constexpr uint64_t kSupportedDepth = 2048;

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
        return enterProxy();
    }
    // Substituting one value for another (the writer's proxies): a level of
    // nesting too, though not of depth, which only containers raise.
    bool enterProxy() { return ++nesting_ <= nestingLimit() || nestedTooDeep(); }
    // maxDepth, or kSupportedDepth when maxDepth is 0 or larger.
    uint64_t nestingLimit() const {
        return (maxDepth_ == 0 || maxDepth_ > kSupportedDepth) ? kSupportedDepth : maxDepth_;
    }
    void leaveContainer() {
        if (depth_ > 0) --depth_;
        leaveProxy();
    }
    void leaveProxy() {
        if (nesting_ > 0) --nesting_;
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
};

}  // namespace qrl
