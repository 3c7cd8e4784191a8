#include "qrl/logging/QRLDefaults.h"

#include "qrl/foundation/Format.h"

namespace qrl {

QRLDefaults::~QRLDefaults() = default;

Dictionary QRLDefaults::snapshot() const {
    const auto values = dictionaryRepresentation();
    return values ? Dictionary(*values) : Dictionary();
}

std::string QRLDefaults::description() const {
    return qrl::format("<%s: %p>", className(), static_cast<const void*>(this));
}

}  // namespace qrl
