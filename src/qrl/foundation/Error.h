// qrl::Error: the framework's error object, as the platform's errors are:
// a domain, a code, user information and an optional underlying error.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "qrl/foundation/Value.h"

namespace qrl {

inline constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view kUnderlyingErrorKey = "NSUnderlyingError";

class Error : public Object {
public:
    // An underlying error given here is also stored in (a copy of) userInfo
    // under kUnderlyingErrorKey; one found only there is taken as underlying.
    Error(std::string domain, int64_t code, std::shared_ptr<Dictionary> userInfo = nullptr,
          std::shared_ptr<const Error> underlying = nullptr);
    static std::shared_ptr<Error> make(std::string domain, int64_t code, std::string localizedDescription,
                                       std::shared_ptr<const Error> underlying = nullptr);
    // Releases a chain of underlying errors link by link: a chain of any
    // length (a reader's trace of a deep failure) ends in bounded stack.
    ~Error() override;
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;

    const std::string& domain() const { return domain_; }
    int64_t code() const { return code_; }
    // Never null: an empty dictionary when none was given.
    const std::shared_ptr<Dictionary>& userInfo() const { return userInfo_; }
    const std::shared_ptr<const Error>& underlyingError() const { return underlying_; }

    // userInfo's kLocalizedDescriptionKey when it holds a string, otherwise
    // "The operation couldn’t be completed. (<domain> error <code>.)".
    std::string localizedDescription() const;
    // "Error Domain=<domain> Code=<code> \"<localizedDescription>\"" and the
    // user information, as the platform prints errors:
    // ' UserInfo={key=value, NSUnderlyingError={Error Domain=...}}'.
    std::string description() const override;
    // Equal when domain, code and user information are equal.
    bool isEqual(const Object& other) const override;

private:
    std::string domain_;
    int64_t code_;
    std::shared_ptr<Dictionary> userInfo_;
    std::shared_ptr<const Error> underlying_;
};

}  // namespace qrl
