#include "qrl/foundation/Format.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <random>

#include "qrl/foundation/Error.h"
#include "qrl/foundation/Value.h"
#include "support/TemporaryFolder.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

// ------------------------------------------------------------ against snprintf

// One generated case: a conversion, its C-typed argument, and optional '*'
// width and precision arguments.
struct Case {
    std::string fmt;
    enum Type { Int, UInt, Long, ULong, Double, LongDouble, Str, Ptr } type;
    long long i = 0;
    unsigned long long u = 0;
    double d = 0;
    long double ld = 0;
    std::string s;
    void* p = nullptr;
    bool starWidth = false, starPrec = false;
    int width = 0, prec = 0;
};

// Calls `f` with the case's arguments: the '*' width and precision first,
// then the value in its C type.
template <class F>
std::string withArguments(const Case& c, F&& f) {
    auto call = [&](auto arg) {
        if (c.starWidth && c.starPrec) return f(c.width, c.prec, arg);
        if (c.starWidth) return f(c.width, arg);
        if (c.starPrec) return f(c.prec, arg);
        return f(arg);
    };
    switch (c.type) {
    case Case::Int: return call(static_cast<int>(c.i));
    case Case::UInt: return call(static_cast<unsigned>(c.u));
    case Case::Long: return call(static_cast<long>(c.i));
    case Case::ULong: return call(static_cast<unsigned long>(c.u));
    case Case::Double: return call(c.d);
    case Case::LongDouble: return call(c.ld);
    case Case::Str: return call(c.s.c_str());
    case Case::Ptr: return call(c.p);
    }
    return {};
}

std::string viaSnprintf(const Case& c) {
    return withArguments(c, [&](auto... args) {
        char buf[4096];
        const int n = std::snprintf(buf, sizeof buf, c.fmt.c_str(), args...);
        return std::string(buf, static_cast<size_t>(n));
    });
}

std::string viaFormat(const Case& c) {
    return withArguments(c, [&](const auto&... args) { return format(c.fmt, args...); });
}

class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}

    Case next() {
        Case c;
        static const char convs[] = "diuoxXcfFeEgGaAsp";
        const char conv = convs[pick(sizeof convs - 1)];
        // Flags that C defines for this conversion (others are undefined).
        std::string flags;
        const bool numeric = std::string_view("diuoxXfFeEgGaA").find(conv) != std::string_view::npos;
        const bool floating = std::string_view("fFeEgGaA").find(conv) != std::string_view::npos;
        const bool isSigned = conv == 'd' || conv == 'i' || floating;
        const bool alt = std::string_view("oxXfFeEgGaA").find(conv) != std::string_view::npos;
        if (coin()) flags += '-';
        if (isSigned && coin()) flags += '+';
        if (isSigned && coin()) flags += ' ';
        if (alt && coin()) flags += '#';
        if (numeric && coin()) flags += '0';
        std::string width;
        if (pick(4) == 0) {
            c.starWidth = true;
            c.width = static_cast<int>(pick(41)) - 20;
            width = "*";
        } else if (coin()) {
            width = std::to_string(pick(25));
            if (width == "0") width.clear();
        }
        std::string prec;
        const bool precisionAllowed = conv != 'c' && conv != 'p';
        if (precisionAllowed && pick(5) == 0) {
            c.starPrec = true;
            c.prec = static_cast<int>(pick(30)) - 5;
            prec = ".*";
        } else if (precisionAllowed && coin()) {
            prec = "." + std::to_string(pick(conv == 'a' || conv == 'A' ? 16 : 25));
            if (pick(8) == 0) prec = ".";
        }
        std::string length;
        if (conv == 'p' || conv == 's') {
            c.type = conv == 'p' ? Case::Ptr : Case::Str;
        } else if (floating) {
            if (pick(4) == 0) {
                c.type = Case::LongDouble;
                length = "L";
            } else {
                c.type = Case::Double;
                if (coin()) length = "l";
            }
        } else if (conv == 'c') {
            c.type = Case::Int;
        } else {
            const bool u = !(conv == 'd' || conv == 'i');
            switch (pick(6)) {
            case 0: length = "hh"; c.type = u ? Case::UInt : Case::Int; break;
            case 1: length = "h"; c.type = u ? Case::UInt : Case::Int; break;
            case 2: length = "l"; c.type = u ? Case::ULong : Case::Long; break;
            case 3: length = "ll"; c.type = u ? Case::ULong : Case::Long; break;
            case 4: length = "j"; c.type = u ? Case::ULong : Case::Long; break;
            default: c.type = u ? Case::UInt : Case::Int; break;
            }
        }
        const std::string lead = pick(3) == 0 ? "<" : "";
        c.fmt = lead + "%" + flags + width + prec + length + conv + (coin() ? ">" : "");
        fill(c, conv);
        return c;
    }

private:
    void fill(Case& c, char conv) {
        switch (c.type) {
        case Case::Int:
        case Case::Long: {
            static const long long edges[] = {0, 1, -1, 42, 300, -300, 127, 128, -129, 65535, INT_MAX, INT_MIN,
                                              LLONG_MAX, LLONG_MIN};
            c.i = pick(3) == 0 ? edges[pick(std::size(edges))] : static_cast<long long>(rng_()) >> pick(63);
            if (conv == 'c') c.i = 32 + static_cast<long long>(pick(95));
            break;
        }
        case Case::UInt:
        case Case::ULong: {
            static const unsigned long long edges[] = {0, 1, 7, 8, 255, 256, 0xffffffffULL, ULLONG_MAX};
            c.u = pick(3) == 0 ? edges[pick(std::size(edges))] : rng_() >> pick(63);
            break;
        }
        case Case::Double: c.d = randomDouble(); break;
        case Case::LongDouble: c.ld = static_cast<long double>(randomDouble()) * (coin() ? 1.0L / 3 : 1.0L); break;
        case Case::Str: {
            const size_t n = pick(12);
            for (size_t k = 0; k < n; ++k) c.s.push_back(static_cast<char>('a' + pick(26)));
            break;
        }
        case Case::Ptr: c.p = reinterpret_cast<void*>(static_cast<uintptr_t>(rng_() | 1)); break;
        }
    }

    double randomDouble() {
        static const double edges[] = {0.0, -0.0, 0.5, 1.5, 2.5, -2.5, 0.125, 1e15 + 0.5, 9.5, 99.5, 0.05, 1e-5,
                                       123456789.0, 1e300, -1e-300, DBL_MIN, DBL_MAX, 4.9e-324, 1.0 / 3,
                                       HUGE_VAL, -HUGE_VAL, NAN, 0.1, 100.0, 1e21, 9.9999995e-5};
        switch (pick(4)) {
        case 0: return edges[pick(std::size(edges))];
        case 1: return std::ldexp(static_cast<double>(rng_() >> 11), static_cast<int>(pick(200)) - 150);
        case 2: return static_cast<double>(static_cast<int64_t>(rng_() % 2000000) - 1000000) / 1000.0;
        default: {
            uint64_t bits = rng_();
            double d;
            std::memcpy(&d, &bits, sizeof d);
            return d;  // any bit pattern, NaNs included
        }
        }
    }

    size_t pick(size_t n) { return static_cast<size_t>(rng_() % n); }
    bool coin() { return (rng_() & 1) != 0; }

    std::mt19937_64 rng_;
};

TEST(FormatTest, AgreesWithSnprintfOnGeneratedConversions) {
    Generator gen(20240611);
    int failures = 0;
    for (int k = 0; k < 40000 && failures < 10; ++k) {
        const Case c = gen.next();
        const std::string expected = viaSnprintf(c);
        const std::string actual = viaFormat(c);
        if (expected != actual) {
            ++failures;
            ADD_FAILURE() << "format \"" << c.fmt << "\" case " << k << ": snprintf \"" << expected << "\", format \""
                          << actual << "\"";
        }
    }
}

TEST(FormatTest, FormatsLikePrintfForTheFormatsOfTheFramework) {
    EXPECT_EQ(format("%2ld ch, %6.0f Hz, '%-4.4s' (0x%08lX) ", 2L, 44100.0, "lpcm", 0x6c70636dL),
              " 2 ch,  44100 Hz, 'lpcm' (0x6C70636D) ");
    EXPECT_EQ(format("\\u%04x", 0x1f), "\\u001f");
    EXPECT_EQ(format("100%% done"), "100% done");
    EXPECT_EQ(format("%'d", 1234567), "1234567");  // no grouping in the C locale
    EXPECT_EQ(format("%qd %zu %td %jd", 1LL, size_t{2}, std::ptrdiff_t{-3}, intmax_t{4}), "1 2 -3 4");
}

TEST(FormatTest, IntegersKeepTheirWidthUnlessTheModifierNarrowsThem) {
    EXPECT_EQ(format("%d", int64_t{5'000'000'000}), "5000000000");
    EXPECT_EQ(format("%x", -1), "ffffffff");
    EXPECT_EQ(format("%x", int64_t{-1}), "ffffffffffffffff");
    EXPECT_EQ(format("%lx", -1), "ffffffffffffffff");
    EXPECT_EQ(format("%u", -1), "4294967295");
    EXPECT_EQ(format("%d", 4294967295u), "-1");
    EXPECT_EQ(format("%d", static_cast<short>(-5)), "-5");
    EXPECT_EQ(format("%x", static_cast<unsigned char>(0xAB)), "ab");
    EXPECT_EQ(format("%d %d", true, 'A'), "1 65");
    enum class Mode : uint8_t { A = 7 };
    EXPECT_EQ(format("%d", Mode::A), "7");
    EXPECT_EQ(format("%c%lc%C", 'x', 0xe9, 0x20ac), "x\xc3\xa9\xe2\x82\xac");
}

struct Thing {
    std::string description() const { return "<Thing>"; }
};

TEST(FormatTest, ObjectConversionDescribesEveryKindOfArgument) {
    const Value dict = Value::dictionary({{"a", 1}});
    auto error = Error::make("Tessara", 1, "Boom");
    std::shared_ptr<Error> noError;
    const char* noText = nullptr;
    Thing thing;
    EXPECT_EQ(format("%@", dict), "{\n    a = 1;\n}");
    EXPECT_EQ(format("%@|%@|%@", std::string("s"), std::string_view("v"), "c"), "s|v|c");
    EXPECT_EQ(format("%@", error), error->description());
    EXPECT_EQ(format("[%@] [%@] [%@] [%s]", noError, nullptr, noText, noText), "[(null)] [(null)] [(null)] [(null)]");
    EXPECT_EQ(format("%@ %@", thing, &thing), "<Thing> <Thing>");
    EXPECT_EQ(format("[%8@] [%-8@] [%.3@]", Value("abc"), thing, thing), "[     abc] [<Thing> ] [<Th]");
    EXPECT_EQ(format("%@ %@", *Decimal::parse("-1.50"), Date{0}), "-1.5 1970-01-01 00:00:00 +0000");
    // A Value converts by what it holds.
    EXPECT_EQ(format("%d %s %.1f %.1f", Value(7), Value("x"), Value(2.25), Value(3)), "7 x 2.2 3.0");
}

TEST(FormatTest, PositionalArgumentsReorderAndRepeat) {
    EXPECT_EQ(format("%2$@ and %1$@", "first", "second"), "second and first");
    EXPECT_EQ(format("%1$@-%1$@ %2$d", "x", 5), "x-x 5");
    EXPECT_EQ(format("%1$*2$d|", 7, 4), "   7|");
    EXPECT_EQ(format("%3$d", 1, 2), "%!d(MISSING)");
    EXPECT_EQ(format("%0$d", 1), "%!d(BADINDEX)");
}

TEST(FormatTest, MismatchesAndMissingArgumentsPrintMarkers) {
    EXPECT_EQ(format("%d", "abc"), "%!d(string=abc)");
    EXPECT_EQ(format("%s", 5), "%!s(int=5)");
    Thing thing;
    EXPECT_EQ(format("%s", thing), "%!s(object=<Thing>)");
    int local = 0;
    const std::string marker = format("%@", static_cast<void*>(&local));
    EXPECT_EQ(marker.rfind("%!@(pointer=0x", 0), 0u) << marker;
    // Extra arguments are ignored; formatting goes on after a marker.
    EXPECT_EQ(format("%d and %d", 1, 2, 3), "1 and 2");
    EXPECT_EQ(format("%s=%d", 1, 2), "%!s(int=1)=2");
    EXPECT_EQ(format("50%"), "50%!(NOVERB)");
    EXPECT_EQ(format("%y|%d", 3), "%!y(BADVERB)|3");
    EXPECT_EQ(format("%n|%d", &local, 4), "%!n(BADVERB)|4");
    EXPECT_EQ(local, 0);
    EXPECT_EQ(format("%*d", "w", 5), "%!(BADWIDTH)5");
    EXPECT_EQ(format("%.*f", 1.0, 2.0), "%!(BADPREC)2.000000");
    EXPECT_EQ(format("%*d", 2'000'000, 1), "%!(BADWIDTH)1");
    EXPECT_EQ(format("%.2000000f", 1.0), "%!(BADPREC)1.000000");
}

TEST(FormatTest, TextWidthAndPrecisionCountCharacters) {
    const char* text = "\xc3\xa9t\xc3\xa9";  // "été": 3 characters, 5 bytes
    EXPECT_EQ(format("%.1s|", text), "\xc3\xa9|");
    EXPECT_EQ(format("%.2s|", text), "\xc3\xa9t|");
    EXPECT_EQ(format("%5s|", text), "  \xc3\xa9t\xc3\xa9|");
    EXPECT_EQ(format("%-4@|", std::string(text)), "\xc3\xa9t\xc3\xa9 |");
    char buffer[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};  // no terminator
    EXPECT_EQ(format("%s", buffer), "abcdefgh");
}

TEST(FormatTest, LargeValuesAndWidthsAreComplete) {
    EXPECT_EQ(format("%.0f", 1e300).size(), 301u);
    EXPECT_EQ(format("%Lf", LDBL_MAX).size(), 4933u + 7u);
    EXPECT_EQ(format("%.600f", 1.0).size(), 602u);
    EXPECT_EQ(format("%100000d", 1).size(), 100000u);
}

// Switches LC_NUMERIC to a locale with a decimal comma for the length of a
// scope: an installed one, or else one built with localedef in a private folder.
class CommaLocale {
public:
    CommaLocale() {
        for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8"})
            if (std::setlocale(LC_NUMERIC, name)) return;
        folder_.emplace("qrl-locale");
        const std::string source = folder_->file("comma.src");
        std::ofstream(source) << "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3;3\nEND LC_NUMERIC\n";
        const std::string command = "localedef -c -i " + source + " -f UTF-8 " + folder_->file("xx_XX.UTF-8") + " >/dev/null 2>&1";
        if (std::system(command.c_str()) == -1) return;
        locPath_.emplace("LOCPATH", folder_->path());
        std::setlocale(LC_NUMERIC, "xx_XX.UTF-8");
    }
    ~CommaLocale() { std::setlocale(LC_NUMERIC, "C"); }
    bool active() const {
        char buf[8];
        std::snprintf(buf, sizeof buf, "%.1f", 1.5);
        return std::string(buf) == "1,5";
    }

private:
    std::optional<test::TemporaryFolder> folder_;
    std::optional<test::ScopedEnvironmentVariable> locPath_;
};

TEST(FormatTest, OutputIgnoresTheProcessLocale) {
    CommaLocale comma;
    if (!comma.active()) GTEST_SKIP() << "no locale with a decimal comma could be installed or built";
    EXPECT_EQ(format("%.2f %g %e %a %@ %'d", 1.5, 0.25, 2.0, 1.0, 3.5, 1234567), "1.50 0.25 2.000000e+00 0x1p+0 3.5 1234567");
    EXPECT_EQ(Value("2.5").doubleValue(), 2.5);
    EXPECT_EQ(Value(0.5).description(), "0.5");
    EXPECT_EQ(Decimal::parse("0.1")->toDouble(), 0.1);
}

TEST(FormatTest, AppendingIntoAReservedBufferAllocatesNothing) {
    if (!test::allocationCountingAvailable()) GTEST_SKIP() << "allocation counting not linked";
    std::string out = "log: ";
    out.reserve(512);
    const std::string name = "display";
    const size_t before = test::allocationCount();
    appendFormat(out, "%@ %d %5.2f %s %x %p", name, 42, 3.14159, "ok", 255u, static_cast<void*>(&out));
    const size_t after = test::allocationCount();
    EXPECT_EQ(after, before);
    EXPECT_EQ(out.rfind("log: display 42  3.14 ok ff 0x", 0), 0u) << out;
}

}  // namespace
}  // namespace qrl
