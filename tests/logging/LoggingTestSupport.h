// The stage of the Logging tests: a private config home with a fresh
// persistent store, an empty bundle, a simulated cross-process centre, the
// platform log captured, a simulated clock, and Logging taken down before and
// after each test.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qrl/foundation/Bundle.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/DistributedNotificationCenter.h"
#include "qrl/logging/Logging.h"
#include "qrl/logging/QRLDefaultsFactory.h"
#include "qrl/logging/detail/DefaultsUserDefaults.h"
#include "qrl/logging/sim/SimDistributedNotificationCenter.h"
#include "support/TemporaryFolder.h"
#include "support/TestSupport.h"

namespace qrl::test {

// XDG_CONFIG_HOME pointed at a private folder, with a fresh standard
// persistent store, for the lifetime of the object.
class ScopedConfigHome {
public:
    ScopedConfigHome() { UserDefaults::resetStandardUserDefaults(); }
    ~ScopedConfigHome() { UserDefaults::resetStandardUserDefaults(); }
    ScopedConfigHome(const ScopedConfigHome&) = delete;
    ScopedConfigHome& operator=(const ScopedConfigHome&) = delete;

    const std::string& path() const { return folder_.path(); }

private:
    TemporaryFolder folder_{"qrl-config"};
    ScopedEnvironmentVariable variable_{"XDG_CONFIG_HOME", folder_.path()};
};

// A handler as an application writes one: applies what it hears and keeps it.
class RecordingHandler : public LoggingChangeHandler {
public:
    void loggingOptionsChanged(const DistributedNotification& notification) override {
        received.push_back(notification);
        if (auto logging = Logging::defaultLogger())
            logging->updateLoggingPreferencesBecauseOfNotification(notification);
    }
    std::vector<DistributedNotification> received;  // main thread only
};

class LoggingFixture : public ::testing::Test {
protected:
    void SetUp() override {
        home_ = std::make_unique<ScopedConfigHome>();
        previousBundle_ = Bundle::main();
        Bundle bundle = *previousBundle_;
        bundle.info = std::make_shared<Dictionary>();
        Bundle::setMain(bundle);
        detail::resetLoggingForTesting();
        QRLDefaultsFactory::useNSUserDefaults();
        UserDefaults::resetStandardUserDefaults();
        center_ = SimDistributedNotificationCenter::create(RunLoop::main());
        scopedCenter_ = std::make_unique<ScopedDistributedNotificationCenter>(center_);
    }

    void TearDown() override {
        detail::resetLoggingForTesting();
        drainMainLoop();
        scopedCenter_.reset();
        QRLDefaultsFactory::useNSUserDefaults();
        UserDefaults::resetStandardUserDefaults();
        Bundle::setMain(*previousBundle_);
        home_.reset();
    }

    // Posted work left by a test (deliveries) runs now, before the next test.
    static void drainMainLoop() {
        for (int i = 0; i < 100 && RunLoop::main().runOnce(0.0); ++i) {
        }
    }

    // Info dictionary entries for the next LoggerStart().
    void setInfo(const std::string& key, Value value) {
        Bundle bundle = *Bundle::main();
        auto info = std::make_shared<Dictionary>(*bundle.info);
        info->set(key, std::move(value));
        bundle.info = info;
        Bundle::setMain(bundle);
    }

    // Runs the main loop for `seconds` of simulated time.
    void run(double seconds) { RunLoop::main().runFor(seconds); }

    ScopedSimulatedClock clock_;  // first in, last out: pending timers die before it
    CapturedPlatformLog log_;
    std::unique_ptr<ScopedConfigHome> home_;
    std::shared_ptr<const Bundle> previousBundle_;
    std::shared_ptr<SimDistributedNotificationCenter> center_;
    std::unique_ptr<ScopedDistributedNotificationCenter> scopedCenter_;
};

}  // namespace qrl::test
