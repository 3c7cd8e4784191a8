#include "qrl/foundation/Error.h"

#include "qrl/foundation/Format.h"
#include "qrl/foundation/Strings.h"

namespace qrl {

Error::Error(std::string domain, int64_t code, std::shared_ptr<Dictionary> userInfo,
             std::shared_ptr<const Error> underlying)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)), underlying_(std::move(underlying)) {
    if (!userInfo_) userInfo_ = std::make_shared<Dictionary>();
    const Value* stored = userInfo_->find(kUnderlyingErrorKey);
    if (underlying_) {
        // The underlying error is also readable under its key, as the
        // platform keeps it. The caller's dictionary is not changed.
        const bool same = stored && stored->asObject().get() == static_cast<const Object*>(underlying_.get());
        if (!same) {
            auto copy = std::make_shared<Dictionary>(*userInfo_);
            copy->set(std::string(kUnderlyingErrorKey),
                      Value(std::static_pointer_cast<Object>(std::const_pointer_cast<Error>(underlying_))));
            userInfo_ = std::move(copy);
        }
    } else if (stored) {
        underlying_ = std::dynamic_pointer_cast<const Error>(stored->asObject());
    }
}

Error::~Error() {
    std::shared_ptr<const Error> next = std::move(underlying_);
    userInfo_.reset();  // its reference to the underlying error, when the dictionary was this error's alone
    while (next && next.use_count() == 1) {
        auto& link = const_cast<Error&>(*next);
        std::shared_ptr<const Error> after = std::move(link.underlying_);
        link.userInfo_.reset();
        next = std::move(after);  // the link goes now, with nothing left to release behind it
    }
}

std::shared_ptr<Error> Error::make(std::string domain, int64_t code, std::string localizedDescription,
                                   std::shared_ptr<const Error> underlying) {
    auto info = std::make_shared<Dictionary>();
    info->set(std::string(kLocalizedDescriptionKey), Value(std::move(localizedDescription)));
    return std::make_shared<Error>(std::move(domain), code, std::move(info), std::move(underlying));
}

std::string Error::localizedDescription() const {
    if (const Value* v = userInfo_->find(kLocalizedDescriptionKey)) {
        if (const std::string* s = v->asString()) return *s;
    }
    return format(localizedString("The operation couldn\u2019t be completed. (%@ error %lld.)"), domain_,
                  static_cast<long long>(code_));
}

std::string Error::description() const {
    std::string out = format("Error Domain=%@ Code=%lld \"%@\"", domain_, static_cast<long long>(code_),
                             localizedDescription());
    if (!userInfo_->empty()) {
        out.append(" UserInfo={");
        bool first = true;
        for (const auto& [key, value] : *userInfo_) {
            if (!first) out.append(", ");
            first = false;
            out.append(key);
            out.push_back('=');
            if (const auto& object = value.asObject(); object && dynamic_cast<const Error*>(object.get())) {
                out.push_back('{');
                out.append(object->description());
                out.push_back('}');
            } else {
                out.append(value.description());
            }
        }
        out.push_back('}');
    }
    return out;
}

bool Error::isEqual(const Object& other) const {
    if (this == &other) return true;
    const auto* e = dynamic_cast<const Error*>(&other);
    if (!e || e->code_ != code_ || e->domain_ != domain_) return false;
    return Value(userInfo_) == Value(e->userInfo_);
}

}  // namespace qrl
