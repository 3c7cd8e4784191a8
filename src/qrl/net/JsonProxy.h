// JsonProxy: the optional operation proxyForJson of an object, a value that
// stands in for the object when JSON is written.
#pragma once

#include <optional>

#include "qrl/foundation/Value.h"

namespace qrl {

// Mixed into a qrl::Object subclass (class Point : public Object, public
// JsonProxy). The writer asks Object values for it with dynamic_cast.
class JsonProxy {
public:
    virtual ~JsonProxy() = default;
    // The stand-in value; nullopt means the object does not answer, and the
    // writer treats it as unsupported. Must not change the containers being
    // written.
    virtual std::optional<Value> proxyForJson() const { return std::nullopt; }
};

}  // namespace qrl
