// The date part of the thread and terminal formatters, against the C library.
#include "qrl/logging/detail/LocalDateFormatter.h"

#include <gtest/gtest.h>
#include <time.h>

#include <random>
#include <string>

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

}  // namespace
}  // namespace qrl
