#include "qrl/foundation/BackendChooser.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "qrl/foundation/InstalledPort.h"

namespace qrl {
namespace {

struct Port {
    std::string name;
};
using Handle = std::shared_ptr<Port>;
using Entry = BackendEntry<Handle, int>;

// The argument says which entries can be made: bit 0 "real", bit 1 "other".
const Entry kEntries[] = {
    {.name = "real",
     .unavailable = [](int works) -> std::string { return works & 1 ? "" : "no device"; },
     .make = [](int, std::string*) { return std::make_shared<Port>(Port{"real"}); }},
    {.name = "other",
     .make = [](int works, std::string* why) -> Handle {
         if (works & 2) return std::make_shared<Port>(Port{"other"});
         *why = "refused to open";
         return nullptr;
     }},
    {.name = "sim", .use = BackendUse::WhenNamed, .make = [](int, std::string*) {
         return std::make_shared<Port>(Port{"sim"});
     }},
    {.name = "none", .use = BackendUse::LastResort, .make = [](int, std::string*) {
         return std::make_shared<Port>(Port{"none"});
     }},
};

constexpr BackendPort kPort{"widgets", "QRL_WIDGETS_PLATFORM"};

class BackendChooserTest : public ::testing::Test {
protected:
    void SetUp() override { clear(); }
    void TearDown() override { clear(); }
    static void clear() {
        unsetenv("QRL_WIDGETS_PLATFORM");
        unsetenv("QRL_PLATFORM");
        requestBackend(kPort.name, "");
    }
    static std::string choose(int works, BackendChoice& choice) {
        const Handle made = chooseBackend(kPort, kEntries, &choice, works);
        return made ? made->name : "(null)";
    }
};

TEST_F(BackendChooserTest, UnnamedWalksTheAutomaticEntriesThenTheLastResortNeverTheSimulated) {
    struct Row {
        int works;
        const char* chosen;
        const char* describe;
    } rows[] = {
        {3, "real", "real"},
        {2, "other", "other (real: no device)"},
        {0, "none", "none (real: no device; other: refused to open)"},
    };
    for (const Row& row : rows) {
        BackendChoice choice;
        EXPECT_EQ(choose(row.works, choice), row.chosen);
        EXPECT_EQ(choice.describe(), row.describe);
        EXPECT_TRUE(choice.namedBy.empty());
    }
}

TEST_F(BackendChooserTest, ANameIsTakenFromARequestThenThePortsVariableThenQrlPlatform) {
    BackendChoice choice;
    setenv("QRL_PLATFORM", "sim", 1);
    EXPECT_EQ(choose(3, choice), "sim");
    EXPECT_EQ(choice.namedBy, "QRL_PLATFORM");
    EXPECT_EQ(choice.describe(), "sim (named)");

    setenv("QRL_WIDGETS_PLATFORM", "other", 1);
    EXPECT_EQ(choose(3, choice), "other");
    EXPECT_EQ(choice.namedBy, "QRL_WIDGETS_PLATFORM");

    requestBackend(kPort.name, "none");
    EXPECT_EQ(requestedBackend(kPort.name), "none");
    EXPECT_EQ(choose(3, choice), "none");
    EXPECT_EQ(choice.namedBy, "request");
}

TEST_F(BackendChooserTest, ARefusedNameFallsToTheLastResortNotToOtherEntries) {
    BackendChoice choice;
    requestBackend(kPort.name, "other");
    EXPECT_EQ(choose(1, choice), "none");  // "real" would work, but was not asked for
    EXPECT_EQ(choice.describe(), "none (other: refused to open)");
}

TEST_F(BackendChooserTest, AnUnknownNameIsReportedUnlessItCameFromQrlPlatform) {
    BackendChoice choice;
    setenv("QRL_PLATFORM", "x11", 1);  // names backends of other ports
    EXPECT_EQ(choose(3, choice), "real");
    EXPECT_EQ(choice.describe(), "real");

    setenv("QRL_WIDGETS_PLATFORM", "carrier-pigeon", 1);
    EXPECT_EQ(choose(2, choice), "other");
    EXPECT_EQ(choice.describe(), "other (no backend named \"carrier-pigeon\"; real: no device)");
    EXPECT_NE(backendChoiceReport().find("widgets: other (no backend named"), std::string::npos)
        << backendChoiceReport();
}

TEST(InstalledPortTest, ChoosesOnFirstUseAndScopesPutThePreviousBack) {
    static int choices = 0;
    InstalledPort<Port> slot([] {
        ++choices;
        return std::make_shared<Port>(Port{"auto"});
    });
    EXPECT_EQ(slot.current(), nullptr);
    EXPECT_EQ(slot.get()->name, "auto");
    EXPECT_EQ(slot.get()->name, "auto");
    EXPECT_EQ(choices, 1);
    {
        ScopedPort<Port> scope(slot, std::make_shared<Port>(Port{"test"}));
        EXPECT_EQ(slot.get()->name, "test");
    }
    EXPECT_EQ(slot.get()->name, "auto");

    InstalledPort<Port, true> fast(nullptr);
    EXPECT_EQ(fast.peek(), nullptr);
    auto first = std::make_shared<Port>(Port{"first"});
    fast.install(first);
    Port* seen = fast.peek();
    fast.install(std::make_shared<Port>(Port{"second"}));
    EXPECT_EQ(first.use_count(), 2);  // kept for a reader that loaded it before the swap
    EXPECT_EQ(seen->name, "first");
    EXPECT_EQ(fast.peek()->name, "second");
}

}  // namespace
}  // namespace qrl
