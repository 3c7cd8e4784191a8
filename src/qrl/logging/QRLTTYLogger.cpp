#include "qrl/logging/QRLTTYLogger.h"

#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

#include "qrl/logging/QRLLogFormatter.h"
#include "qrl/logging/QRLLogMessage.h"

namespace qrl {

namespace {

constexpr int kWriteStallMilliseconds = 1000;  // a non-blocking terminal that stays full this long loses the line

iovec piece(std::string_view text) { return iovec{const_cast<char*>(text.data()), text.size()}; }

}  // namespace

std::shared_ptr<QRLTTYLogger> QRLTTYLogger::sharedInstance() {
    static const std::shared_ptr<QRLTTYLogger> instance(new QRLTTYLogger(STDERR_FILENO));
    return instance;
}

std::shared_ptr<QRLTTYLogger> QRLTTYLogger::create() {
    sharedInstance();
    return nullptr;
}

std::shared_ptr<QRLTTYLogger> QRLTTYLogger::createWritingTo(int descriptor) {
    return std::shared_ptr<QRLTTYLogger>(new QRLTTYLogger(descriptor));
}

QRLTTYLogger::QRLTTYLogger(int descriptor)
    : QRLAbstractLogger("tigostu.ttyLogger"), descriptor_(descriptor), isaTTY_(::isatty(descriptor) == 1) {
    if (!isaTTY_) return;
    dateFormatter_ = std::make_unique<detail::LocalDateFormatter>("yyyy-MM-dd HH:mm:ss:SSS");
    app_ = program_invocation_short_name;
    pid_ = std::to_string(::getpid());
}

void QRLTTYLogger::logMessage(const QRLLogMessage& logMessage) {
    if (!isaTTY_) return;
    line_.clear();
    if (QRLLogFormatter* f = formatter()) {
        if (!f->appendFormattedLogMessage(logMessage, line_)) return;
        const iovec pieces[] = {piece(line_), piece("\n")};
        write(pieces, 2);
        return;
    }
    // The date goes in front of the buffer; the rest are pieces of their own.
    dateFormatter_->append(line_, logMessage.timestamp());
    std::string_view tid = logMessage.threadID();
    if (tid.size() > 8) tid = tid.substr(0, 8);
    const iovec pieces[] = {piece(line_), piece(" "),  piece(app_),
                            piece("["),   piece(pid_), piece(":"),
                            piece(tid),   piece("] "), piece(logMessage.logMsg()),
                            piece("\n")};
    write(pieces, 10);
}

void QRLTTYLogger::write(const iovec* pieces, int count) {
    iovec rest[10];
    int n = 0;
    for (int i = 0; i < count && n < 10; ++i)
        if (pieces[i].iov_len > 0) rest[n++] = pieces[i];
    iovec* next = rest;
    while (n > 0) {
        const ssize_t written = ::writev(descriptor_, next, n);
        if (written < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) {
                pollfd p{descriptor_, POLLOUT, 0};
                if (::poll(&p, 1, kWriteStallMilliseconds) > 0) continue;
            }
            return;  // nowhere to report to: this is standard error
        }
        // Skip what went out; a short write continues mid-piece.
        size_t done = static_cast<size_t>(written);
        while (n > 0 && done >= next->iov_len) {
            done -= next->iov_len;
            ++next;
            --n;
        }
        if (n > 0) {
            next->iov_base = static_cast<char*>(next->iov_base) + done;
            next->iov_len -= done;
        }
    }
}

}  // namespace qrl
