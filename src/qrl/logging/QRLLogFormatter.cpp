#include "qrl/logging/QRLLogFormatter.h"

namespace qrl {

bool QRLLogFormatter::appendFormattedLogMessage(const QRLLogMessage& logMessage, std::string& out) {
    std::optional<std::string> text = formatLogMessage(logMessage);
    if (!text) return false;
    out += *text;
    return true;
}

}  // namespace qrl
