#include "qrl/logging/QRLFileLogger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>

#include "qrl/foundation/Clock.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/SerialQueue.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogFileInfo.h"
#include "qrl/logging/QRLLogFileManagerDefault.h"
#include "qrl/logging/QRLLogFormatter.h"
#include "qrl/logging/QRLLogMessage.h"
#include "qrl/logging/detail/LogFileSystem.h"

namespace qrl {

namespace {

// The timer fires this long after the file's end of life, so that the age
// check it makes finds the file due even after its time has been rounded to
// clock ticks.
constexpr double kTimerSlackSeconds = 0.001;

}  // namespace

std::shared_ptr<QRLFileLogger> QRLFileLogger::create() { return create(nullptr, nullptr); }

std::shared_ptr<QRLFileLogger> QRLFileLogger::create(std::shared_ptr<QRLLogFileManager> logFileManager,
                                                     RunLoop* timerRunLoop) {
    if (!logFileManager) logFileManager = std::make_shared<QRLLogFileManagerDefault>();
    return std::shared_ptr<QRLFileLogger>(new QRLFileLogger(std::move(logFileManager), timerRunLoop));
}

QRLFileLogger::QRLFileLogger(std::shared_ptr<QRLLogFileManager> logFileManager, RunLoop* timerRunLoop)
    : QRLAbstractLogger("tigostu.fileLogger"),
      logFileManager_(std::move(logFileManager)),
      timerRunLoop_(timerRunLoop ? timerRunLoop : &RunLoop::main()),
      ownQueue_(loggerQueue()) {}

QRLFileLogger::~QRLFileLogger() {
    cancelTimer();
    closeHandle();
}

bool QRLFileLogger::onLoggerOrLoggingQueue() const {
    return ownQueue_->isCurrent() || QRLLog::loggingQueue().isCurrent();
}

template <class F>
void QRLFileLogger::onLoggingQueue(F work) {
    if (onLoggerOrLoggingQueue()) {
        work(*this);
        return;
    }
    QRLLog::loggingQueue().async([self = shared_from_this(), work = std::move(work)] { work(*self); });
}

// ---------------------------------------------------------------- writing

void QRLFileLogger::logMessage(const QRLLogMessage& logMessage) {
    line_.clear();
    if (QRLLogFormatter* f = formatter()) {
        if (!f->appendFormattedLogMessage(logMessage, line_)) return;
    } else {
        line_ += logMessage.logMsg();
    }
    if (line_.empty() || line_.back() != '\n') line_ += '\n';

    const int fd = currentLogFileHandle();
    if (fd < 0) return;
    // A line is whole in the file or absent: a fragment left by a failed
    // write is cut off again, or, where that fails too, ended before the
    // next line.
    if (fragmentLeft_) line_.insert(line_.begin(), '\n');
    const uint64_t start = currentOffset_;
    const char* next = line_.data();
    size_t left = line_.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, next, left);
        if (written > 0) {
            next += written;
            left -= static_cast<size_t>(written);
            currentOffset_ += static_cast<uint64_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        const int error = written < 0 ? errno : EIO;
        if (!writeFailureReported_) {
            writeFailureReported_ = true;
            platformLogFormat("QRLFileLogger: Error writing to log file: %@",
                              detail::posixError(error, currentLogFileInfo_ ? currentLogFileInfo_->filePath() : ""));
        }
        if (next != line_.data()) {
            if (::ftruncate(fd, static_cast<off_t>(start)) == 0) {
                currentOffset_ = start;
            } else {
                fragmentLeft_ = true;
            }
        }
        break;
    }
    if (left == 0) fragmentLeft_ = false;
    if (left == 0) writeFailureReported_ = false;
    maybeRollLogFileDueToSize();
}

const std::shared_ptr<QRLLogFileInfo>& QRLFileLogger::currentLogFileInfo() {
    if (currentLogFileInfo_) return currentLogFileInfo_;
    const auto infos = logFileManager_->sortedLogFileInfos();
    if (!infos.empty()) {
        const std::shared_ptr<QRLLogFileInfo>& newest = infos.front();
        if (!newest->isArchived()) {
            if (newest->fileSize() < maximumFileSize_ && newest->age() < rollingFrequency_) {
                currentLogFileInfo_ = newest;
            } else {
                newest->setIsArchived(true);
                if (logFileManager_->answers(QRLLogFileManager::Operation::didArchiveLogFile))
                    logFileManager_->didArchiveLogFile(newest->filePath());
            }
        }
    }
    if (!currentLogFileInfo_) {
        if (auto path = logFileManager_->createNewLogFile())
            currentLogFileInfo_ = QRLLogFileInfo::logFileWithPath(std::move(*path));
    }
    if (currentLogFileInfo_) {
        currentAgeWhenTaken_ = currentLogFileInfo_->age();
        currentTakenAtTicks_ = installedClock().now();
    }
    return currentLogFileInfo_;
}

int QRLFileLogger::currentLogFileHandle() {
    if (currentLogFileHandle_) return currentLogFileHandle_.get();
    // A second try when the file went away under us: a new one is made then.
    for (int attempt = 0; attempt < 2; ++attempt) {
        const std::shared_ptr<QRLLogFileInfo>& info = currentLogFileInfo();
        if (!info) return -1;  // the manager has said why
        const std::string path = info->filePath();
        const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd < 0) {
            const int error = errno;
            if (error == ENOENT && attempt == 0) {
                currentLogFileInfo_.reset();
                continue;
            }
            if (!openFailureReported_) {
                openFailureReported_ = true;
                platformLogFormat("QRLFileLogger: Error opening log file: %@", detail::posixError(error, path));
            }
            return -1;
        }
        const off_t end = ::lseek(fd, 0, SEEK_END);
        currentOffset_ = end > 0 ? static_cast<uint64_t>(end) : 0;
        currentLogFileHandle_.reset(fd);
        openFailureReported_ = false;
        scheduleTimerToRollLogFileDueToAge();
        break;
    }
    return currentLogFileHandle_.get();
}

void QRLFileLogger::closeHandle() {
    // Writes are unbuffered: closing is all the flushing there is.
    currentLogFileHandle_.reset();
    currentOffset_ = 0;
    fragmentLeft_ = false;
}

// ---------------------------------------------------------------- rolling

void QRLFileLogger::rollLogFileNow() {
    closeHandle();
    if (!currentLogFileInfo_) return;
    const std::shared_ptr<QRLLogFileInfo> info = std::move(currentLogFileInfo_);
    currentLogFileInfo_.reset();
    info->setIsArchived(true);
    if (logFileManager_->answers(QRLLogFileManager::Operation::didRollAndArchiveLogFile))
        logFileManager_->didRollAndArchiveLogFile(info->filePath());
    // The age timer is left as it is: when it fires it finds a younger file,
    // or none, and sets itself anew.
}

void QRLFileLogger::maybeRollLogFileDueToSize() {
    if (currentLogFileHandle_ && currentOffset_ >= maximumFileSize_) rollLogFileNow();
}

double QRLFileLogger::currentLogFileAge() const {
    const Clock& clock = installedClock();
    const uint64_t now = clock.now();
    const uint64_t passed = now >= currentTakenAtTicks_ ? now - currentTakenAtTicks_ : 0;
    return currentAgeWhenTaken_ + static_cast<double>(passed) / clock.frequency();
}

void QRLFileLogger::maybeRollLogFileDueToAge() {
    if (currentLogFileInfo_ && currentLogFileAge() >= rollingFrequency_) {
        rollLogFileNow();
    } else {
        scheduleTimerToRollLogFileDueToAge();
    }
}

void QRLFileLogger::cancelTimer() {
    if (rollingTimer_ == 0) return;
    timerRunLoop_->cancel(rollingTimer_);
    rollingTimer_ = 0;
}

void QRLFileLogger::scheduleTimerToRollLogFileDueToAge() {
    cancelTimer();
    if (!currentLogFileInfo_) return;
    const double delay = rollingFrequency_ - currentLogFileAge() + kTimerSlackSeconds;
    if (!std::isfinite(delay)) return;  // an infinite frequency: no age limit
    try {
        rollingTimer_ = timerRunLoop_->addTimer(delay, false, [weak = weak_from_this()] {
            QRLLog::loggingQueue().async([weak] {
                if (auto self = weak.lock()) self->maybeRollLogFileDueToAge();
            });
        });
    } catch (const Exception& e) {
        platformLogFormat("QRLFileLogger: Error setting the age timer: %s", e.what());
    }
}

// ---------------------------------------------------------------- properties

uint64_t QRLFileLogger::maximumFileSize() const {
    if (onLoggerOrLoggingQueue()) return maximumFileSize_;
    try {
        return QRLLog::loggingQueue().sync([this] { return maximumFileSize_; });
    } catch (const Exception&) {
        // This thread runs a task of the logging queue further out, which
        // waits for us: nothing changes the value meanwhile.
        return maximumFileSize_;
    }
}

void QRLFileLogger::setMaximumFileSize(uint64_t maximumFileSize) {
    onLoggingQueue([maximumFileSize](QRLFileLogger& self) {
        self.maximumFileSize_ = maximumFileSize;
        self.maybeRollLogFileDueToSize();
    });
}

double QRLFileLogger::rollingFrequency() const {
    if (onLoggerOrLoggingQueue()) return rollingFrequency_;
    try {
        return QRLLog::loggingQueue().sync([this] { return rollingFrequency_; });
    } catch (const Exception&) {
        return rollingFrequency_;
    }
}

void QRLFileLogger::setRollingFrequency(double rollingFrequency) {
    if (std::isnan(rollingFrequency)) {
        platformLog("QRLFileLogger: rollingFrequency must be a number of seconds; NaN refused");
        return;
    }
    onLoggingQueue([rollingFrequency](QRLFileLogger& self) {
        self.rollingFrequency_ = rollingFrequency;
        self.maybeRollLogFileDueToAge();
    });
}

void QRLFileLogger::rollLogFile() {
    QRLLog::loggingQueue().async([self = shared_from_this()] { self->rollLogFileNow(); });
}

}  // namespace qrl
