// Renders instants in local time by a small date pattern
// ("yyyy-MM-dd HH:mm:ss.SSS"), fast enough to run once per log line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qrl/foundation/Value.h"

namespace qrl::detail {

// Pattern letters: y (year; "yy" the last two digits), M (month), d (day),
// H (hour 0-23), m (minute), s (second), S (fraction of the second, as many
// digits as letters, cut, never rounded). A run of a letter is padded with
// zeros to the run's length. Text between single quotes, and every other
// character, is written as it stands ("''" is a quote).
//
// The text of the last second is cached per thread, so most calls copy it
// and write the fraction's digits. Thread-safe.
class LocalDateFormatter {
public:
    explicit LocalDateFormatter(std::string_view pattern);

    void append(std::string& out, Date date) const;
    std::string format(Date date) const;

private:
    enum class Kind { Literal, Year, YearOfCentury, Month, Day, Hour, Minute, Second, Fraction };
    struct Field {
        Kind kind;
        int width;
        std::string literal;
    };
    // Renders the whole second with zeros for the fractions, noting where they are.
    void render(std::string& out, std::vector<std::pair<size_t, int>>& fractions, int64_t second) const;

    uint64_t id_;  // tells this formatter's cached text from another's
    std::vector<Field> fields_;
    size_t maxLength_ = 0;
};

}  // namespace qrl::detail
