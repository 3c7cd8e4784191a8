#include "qrl/logging/QRLLogMessage.h"

#include <gtest/gtest.h>

#include <string>

#include "logging/CapturingLogger.h"
#include "qrl/foundation/SerialQueue.h"

namespace qrl {
namespace {

TEST(QRLLogMessage, StatementsThroughTheEngineCarryTheirOriginWhole) {
    auto capture = std::make_shared<test::CapturingLogger>();
    SerialQueue producer(std::string("com.example.producer"));
    {
        test::ScopedLogger scope(capture);
        producer.sync([] { QRLLog::log(false, 3, 2, 16, "/p/Producer.cpp", "produce", 7, "from %s", "a queue"); });
        // Long texts come through whole, and reused buffers leak nothing into the next.
        QRLLog::log(false, 3, 2, 16, "/p/Producer.cpp", "produce", 8, "%s", std::string(10000, 'x'));
        QRLLog::log(false, 3, 2, 16, "/p/Producer.cpp", "produce", 9, "short");
    }
    const auto seen = capture->messages();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].message, "from a queue");
    EXPECT_EQ(seen[0].dispatchQueueName, "com.example.producer");
    EXPECT_EQ(seen[0].function, "produce");
    EXPECT_EQ(seen[0].line, 7);
    EXPECT_EQ(seen[1].message, std::string(10000, 'x'));
    EXPECT_FALSE(seen[1].dispatchQueueName.has_value());
    EXPECT_EQ(seen[2].message, "short");
}

}  // namespace
}  // namespace qrl
