#include "qrl/logging/QRLDefaults.h"

#include <utility>

#include "qrl/foundation/Format.h"

namespace qrl {

QRLDefaults::~QRLDefaults() = default;

Dictionary QRLDefaults::snapshot() const {
    auto values = dictionaryRepresentation();
    if (!values) return Dictionary();
    // A representation made for this call (the persistent store's) is taken
    // as it is rather than copied again.
    return values.use_count() == 1 ? std::move(*values) : Dictionary(*values);
}

std::string QRLDefaults::description() const {
    return qrl::format("<%s: %p>", className(), static_cast<const void*>(this));
}

}  // namespace qrl
