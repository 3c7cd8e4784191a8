#include "qrl/logging/ThreadLogger.h"

#include <gtest/gtest.h>
#include <time.h>

#include <random>
#include <regex>
#include <string>

#include "qrl/foundation/SerialQueue.h"
#include "qrl/logging/QRLLogMessage.h"
#include "qrl/logging/detail/LocalDateFormatter.h"

namespace qrl {
namespace {

using detail::LocalDateFormatter;

// strftime of the whole second that holds `nanos`.
std::string localText(int64_t nanos, const char* strftimePattern) {
    int64_t second = nanos / 1'000'000'000;
    if (nanos % 1'000'000'000 < 0) --second;
    const time_t t = static_cast<time_t>(second);
    tm local{};
    localtime_r(&t, &local);
    char text[64];
    strftime(text, sizeof text, strftimePattern, &local);
    return text;
}

// The expected text by the C library: strftime for the whole seconds, then
// the fraction cut to `digits`.
std::string reference(int64_t nanos, const char* strftimePattern, char separator, int digits) {
    int64_t fraction = nanos % 1'000'000'000;
    if (fraction < 0) fraction += 1'000'000'000;
    std::string out = localText(nanos, strftimePattern);
    out += separator;
    std::string nine = std::to_string(fraction);
    nine.insert(0, 9 - nine.size(), '0');
    return out + nine.substr(0, static_cast<size_t>(digits));
}

TEST(LocalDateFormatter, MatchesTheCLibraryOverGeneratedInstants) {
    const LocalDateFormatter thread("yyyy-MM-dd HH:mm:ss.SSS");
    const LocalDateFormatter tty("yyyy-MM-dd HH:mm:ss:SSS");
    const LocalDateFormatter file("yyyy/MM/dd HH:mm:ss:SSS");
    std::mt19937_64 random(20240611);
    // 1902 to 2100, both sides of 1970.
    std::uniform_int_distribution<int64_t> instants(-2'145'000'000LL * 1'000'000'000, 4'102'444'800LL * 1'000'000'000);
    for (int i = 0; i < 3000; ++i) {
        const int64_t ns = instants(random);
        ASSERT_EQ(thread.format(Date{ns}), reference(ns, "%Y-%m-%d %H:%M:%S", '.', 3)) << ns;
        ASSERT_EQ(tty.format(Date{ns}), reference(ns, "%Y-%m-%d %H:%M:%S", ':', 3)) << ns;
        ASSERT_EQ(file.format(Date{ns}), reference(ns, "%Y/%m/%d %H:%M:%S", ':', 3)) << ns;
    }
    // Steps across second boundaries: the per-second cache must follow.
    const int64_t start = 1'700'000'000LL * 1'000'000'000 + 999'000'000;
    for (int64_t k = 0; k < 400; ++k) {
        const int64_t ns = start + k * 333'333'333;
        ASSERT_EQ(thread.format(Date{ns}), reference(ns, "%Y-%m-%d %H:%M:%S", '.', 3)) << ns;
    }
}

TEST(LocalDateFormatter, FractionsAreCutNeverRoundedAndLiteralsStand) {
    const int64_t almostTwo = 1'700'000'001LL * 1'000'000'000 + 999'999'999;
    EXPECT_EQ(LocalDateFormatter("SSS").format(Date{almostTwo}), "999");
    EXPECT_EQ(LocalDateFormatter("S").format(Date{almostTwo}), "9");
    EXPECT_EQ(LocalDateFormatter("SSSSSSSSSSSS").format(Date{almostTwo}), "999999999000");
    EXPECT_EQ(LocalDateFormatter("SSS").format(Date{-1}), "999");  // one nanosecond before 1970
    EXPECT_EQ(LocalDateFormatter("SSS").format(Date{5'000'000}), "005");
    const int64_t noon = 1'700'000'000LL * 1'000'000'000;
    EXPECT_EQ(LocalDateFormatter("'at' HH 'o''clock' [x]").format(Date{noon}), localText(noon, "at %H o'clock [x]"));
    EXPECT_EQ(LocalDateFormatter("yy/M/d").format(Date{noon}), localText(noon, "%y/%-m/%-d"));
}

TEST(ThreadLogger, FormsWithAndWithoutQueueFileAndMethod) {
    ThreadLogger formatter;  // no date, no class and method

    const QRLLogMessage plain("hello", 7, 4, 1, "/src/Capture/Grabber.mm", "grabFrame:", 3);
    EXPECT_EQ(formatter.formatLogMessage(plain), "[(null)] hello");
    SerialQueue queue(std::string("com.tessara.capture"));
    queue.sync([&] {
        const QRLLogMessage onQueue("hello", 7, 4, 1, "/src/Capture/Grabber.mm", "grabFrame:", 3);
        EXPECT_EQ(formatter.formatLogMessage(onQueue), "[com.tessara.capture] hello");
    });

    formatter.setIncludeClassAndMethod(true);
    EXPECT_EQ(formatter.formatLogMessage(plain), "[(null)] [Grabber grabFrame:] hello");
    const QRLLogMessage anonymous("hi", 1, 1, 1, nullptr, nullptr, 0);
    EXPECT_EQ(formatter.formatLogMessage(anonymous), "[(null)] [(null) (null)] hi");

    // Appending keeps what was there; both entry points agree.
    std::string out = "> ";
    EXPECT_TRUE(formatter.appendFormattedLogMessage(plain, out));
    EXPECT_EQ(out, "> " + *formatter.formatLogMessage(plain));
    // A text with format characters is data, not a format.
    const QRLLogMessage percent("100% %@ %d", 1, 1, 1, nullptr, nullptr, 0);
    formatter.setIncludeClassAndMethod(false);
    EXPECT_EQ(formatter.formatLogMessage(percent), "[(null)] 100% %@ %d");
}

TEST(ThreadLogger, TheDateIsThePresentLocalTime) {
    ThreadLogger formatter;
    formatter.setIncludeDate(true);
    const QRLLogMessage old("dated", 7, 4, 1, nullptr, nullptr, 0);
    const int64_t before = Date::now().nanosecondsSinceEpoch;
    const std::string line = *formatter.formatLogMessage(old);
    const int64_t after = Date::now().nanosecondsSinceEpoch;
    ASSERT_TRUE(std::regex_match(line, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\(null\)\] dated)")))
        << line;
    const std::string stamp = line.substr(0, 23);
    EXPECT_GE(stamp, reference(before, "%Y-%m-%d %H:%M:%S", '.', 3));
    EXPECT_LE(stamp, reference(after, "%Y-%m-%d %H:%M:%S", '.', 3));
}

}  // namespace
}  // namespace qrl
