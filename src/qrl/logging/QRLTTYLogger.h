// QRLTTYLogger: writes each message as one line on standard error, but only
// when standard error is a terminal; otherwise it stays silent for good.
#pragma once

#include <sys/uio.h>

#include <memory>
#include <string>

#include "qrl/logging/QRLAbstractLogger.h"
#include "qrl/logging/detail/LocalDateFormatter.h"

namespace qrl {

// With a formatter, a line is its text and a line feed. Without one, it is
// "yyyy-MM-dd HH:mm:ss:SSS app[pid:tid] message" with the message's own date
// and thread (tid in hexadecimal). Each line goes out in one writev(2), so
// lines from several processes on one terminal do not mix. A message that
// ends in a line feed gets another one.
//
// There is one per process, sharedInstance(), on descriptor 2, labelled
// "tigostu.ttyLogger".
class QRLTTYLogger final : public QRLAbstractLogger {
public:
    static std::shared_ptr<QRLTTYLogger> sharedInstance();
    // A further instance is refused: always null.
    static std::shared_ptr<QRLTTYLogger> create();
    // A logger writing to `descriptor` instead (tools and tests). The
    // descriptor is borrowed: it must stay open for the logger's life.
    static std::shared_ptr<QRLTTYLogger> createWritingTo(int descriptor);

    void logMessage(const QRLLogMessage& logMessage) override;

    // Whether the descriptor was a terminal when the logger was made.
    bool isaTTY() const { return isaTTY_; }

private:
    explicit QRLTTYLogger(int descriptor);
    void write(const iovec* pieces, int count);

    int descriptor_;
    bool isaTTY_;
    std::unique_ptr<detail::LocalDateFormatter> dateFormatter_;  // only for a terminal
    std::string app_;
    std::string pid_;
    std::string line_;  // reused on the logger's queue
};

}  // namespace qrl
