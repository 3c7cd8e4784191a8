#include "qrl/foundation/Error.h"

#include <gtest/gtest.h>

namespace qrl {
namespace {

TEST(ErrorTest, LocalizedDescriptionFallsBackToTheGenericText) {
    const Error plain("Tessara", 1);
    EXPECT_EQ(plain.localizedDescription(), "The operation couldn\u2019t be completed. (Tessara error 1.)");
    EXPECT_NE(plain.userInfo(), nullptr);
    EXPECT_TRUE(plain.userInfo()->empty());
    EXPECT_EQ(plain.description(),
              "Error Domain=Tessara Code=1 \"The operation couldn\u2019t be completed. (Tessara error 1.)\"");
    // A description that is not a string does not count.
    auto info = std::make_shared<Dictionary>(Dictionary{{std::string(kLocalizedDescriptionKey), 5}});
    EXPECT_EQ(Error("Audio", -50, info).localizedDescription(),
              "The operation couldn\u2019t be completed. (Audio error -50.)");
}

TEST(ErrorTest, UnderlyingErrorsChainThroughTheUserInformation) {
    auto first = Error::make("org.Fenwold.JSON.ErrorDomain", 2, "Leading 0 disallowed in number");
    auto second = Error::make("org.Fenwold.JSON.ErrorDomain", 3, "Expected value while parsing array", first);
    EXPECT_EQ(second->underlyingError(), first);
    EXPECT_EQ(second->localizedDescription(), "Expected value while parsing array");
    const Value* stored = second->userInfo()->find(kUnderlyingErrorKey);
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(stored->asObject().get(), first.get());
    EXPECT_EQ(second->description(),
              "Error Domain=org.Fenwold.JSON.ErrorDomain Code=3 \"Expected value while parsing array\" "
              "UserInfo={NSLocalizedDescription=Expected value while parsing array, "
              "NSUnderlyingError={Error Domain=org.Fenwold.JSON.ErrorDomain Code=2 \"Leading 0 disallowed in number\" "
              "UserInfo={NSLocalizedDescription=Leading 0 disallowed in number}}}");

    // The caller's dictionary is left as it was.
    auto info = std::make_shared<Dictionary>();
    info->set("path", "/tmp/x");
    const Error withInfo("Tessara", 1, info, first);
    EXPECT_FALSE(info->contains(kUnderlyingErrorKey));
    EXPECT_TRUE(withInfo.userInfo()->contains(kUnderlyingErrorKey));
    EXPECT_EQ(withInfo.userInfo()->get("path"), Value("/tmp/x"));

    // An underlying error found only in the user information is taken up.
    auto carried = std::make_shared<Dictionary>();
    carried->set(std::string(kUnderlyingErrorKey), Value(std::static_pointer_cast<Object>(first)));
    EXPECT_EQ(Error("Tessara", 1, carried).underlyingError(), first);
}

}  // namespace
}  // namespace qrl
