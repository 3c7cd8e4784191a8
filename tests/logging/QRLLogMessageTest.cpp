#include "qrl/logging/QRLLogMessage.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "logging/CapturingLogger.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/SerialQueue.h"

namespace qrl {
namespace {

TEST(ExtractFileNameWithoutExtension, CutsFoldersAndTheLastExtension) {
    const std::pair<const char*, std::optional<std::string_view>> rows[] = {
        {"main.txt", "main"},    {"/x/y", "y"},         {"/a.b/c", "c"},  // a dot in a folder is no extension
        {"/a.b/c.d", "c"},       {"a.tar.gz", "a.tar"}, {"folder/", ""}, {"/dir/.profile", ""}, {"", ""},
        {nullptr, std::nullopt},
    };
    for (const auto& [path, name] : rows)
        EXPECT_EQ(ExtractFileNameWithoutExtension(path), name) << (path ? path : "null");
    const char* path = "/deep/name.ext";
    EXPECT_EQ(ExtractFileNameWithoutExtension(path)->data(), path + 6);  // a view into the path, not a copy
}

TEST(QRLLogMessage, RecordsTheCallersThreadQueueAndTimeAndMakesTextsOnce) {
    const Date before = Date::now();
    const QRLLogMessage m("text", 7, 4, 32, "/src/Thing.mm", "doThing:", 42);
    EXPECT_LE(before, m.timestamp());
    EXPECT_LE(m.timestamp(), Date::now());
    EXPECT_EQ(m.machThreadID(), static_cast<uint32_t>(::syscall(SYS_gettid)));
    EXPECT_FALSE(m.dispatchQueueName().has_value());
    const QRLLogMessage bare("", 0, 0, 0, nullptr, nullptr, 0);
    EXPECT_FALSE(bare.fileName().has_value());
    EXPECT_FALSE(bare.methodName().has_value());
    SerialQueue labelled(std::string("producer.queue")), unlabelled;
    labelled.sync(
        [] { EXPECT_EQ(QRLLogMessage("x", 1, 1, 1, nullptr, nullptr, 0).dispatchQueueName(), "producer.queue"); });
    unlabelled.sync([] { EXPECT_FALSE(QRLLogMessage("x", 1, 1, 1, nullptr, nullptr, 0).dispatchQueueName()); });

    // Readers on several threads at once (as parallel loggers are) agree.
    constexpr int kReaders = 6;
    std::latch start(kReaders);
    std::vector<std::string> answers(kReaders);
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r)
        readers.emplace_back([&, r] {
            start.arrive_and_wait();
            answers[r] =
                std::string(m.threadID()) + "|" + std::string(*m.fileName()) + "|" + std::string(*m.methodName());
        });
    for (auto& t : readers) t.join();
    for (const auto& a : answers) EXPECT_EQ(a, qrl::format("%x|Thing|doThing:", m.machThreadID()));
}

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
