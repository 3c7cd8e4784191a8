// QRLFileLogger: writes log messages into a rolling set of text files: one
// file is current; it is archived when it reaches a size or an age, and the
// manager prunes the archive.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/QRLAbstractLogger.h"
#include "qrl/foundation/detail/UniqueFd.h"

namespace qrl {

class QRLLogFileInfo;
class QRLLogFileManager;

// Lines. Each message is the formatter's text (nothing is written when it
// gives none) or, without a formatter, the bare message, with a line feed
// added unless it ends in one, in UTF-8. Writes are unbuffered: each line
// goes to the file with write(2) before logMessage returns.
//
// Rolling. The current file is the manager's newest when that one is not
// archived and is below maximumFileSize (default 1 MiB) and younger than
// rollingFrequency (default 86400 s); otherwise that one is marked archived
// and the manager makes a new one, with the first message. After a write
// that takes the file to maximumFileSize or beyond, the file is closed and
// marked archived; the next message makes a new file.
//
// Age. A file's age counts from its creation date. For the file in use the
// logger takes its age when it takes the file, and adds the time of the
// installed clock (qrl::installedClock()) from then on, the clock that also
// drives the run loop's timers: changes of the system's time do not move it,
// and on a simulated clock files age with the simulation.
//
// The age timer. When the logger opens a file it sets a one-shot timer on a
// run loop for the file's end of life (creation date plus rollingFrequency);
// when it fires, the age check is sent to the logging queue
// (QRLLog::loggingQueue()), where it cannot run while a message is being
// written. The run loop is the main one (RunLoop::main(), the loop the
// application drives), or the one given to create(): the logger's own code
// runs on the engine's worker threads, whose loops nobody runs. A file that
// outlives its time while no loop runs is archived at the next start, when
// the first message finds it too old.
//
// Threads. The engine calls logMessage() on the logger's queue while the
// logging queue waits, so the logger's state is touched only there and on
// the logging queue. Setters run directly on the logger's queue (or the
// logging queue) and are otherwise queued asynchronously on the logging
// queue; getters called elsewhere read on the logging queue, so that they
// see every earlier setter. rollLogFile() is queued on the logging queue.
//
// Failures go to the platform log, never through the engine: a failed write
// once until writes work again. Created by create(): work queued by the
// setters holds a reference to the logger, the timer a weak one. On
// destruction the file is closed and the timer cancelled. Labelled
// "tigostu.fileLogger".
class QRLFileLogger final : public QRLAbstractLogger, public std::enable_shared_from_this<QRLFileLogger> {
public:
    static constexpr uint64_t kDefaultMaximumFileSize = 0x100000;
    static constexpr double kDefaultRollingFrequency = 86400.0;

    // With a QRLLogFileManagerDefault on the default folder.
    static std::shared_ptr<QRLFileLogger> create();
    // A null manager gets a QRLLogFileManagerDefault on the default folder.
    // The timer's loop (null: RunLoop::main()) must outlive the logger.
    static std::shared_ptr<QRLFileLogger> create(std::shared_ptr<QRLLogFileManager> logFileManager,
                                                 RunLoop* timerRunLoop = nullptr);
    ~QRLFileLogger() override;

    void logMessage(const QRLLogMessage& logMessage) override;

    uint64_t maximumFileSize() const;
    // Then rolls at once when the current file is at the new size or beyond.
    void setMaximumFileSize(uint64_t maximumFileSize);
    double rollingFrequency() const;
    // Then rolls at once when the current file is that old, otherwise sets
    // the timer anew. Infinity means no age limit; NaN is refused with a
    // line on the platform log.
    void setRollingFrequency(double rollingFrequency);
    // Archives the current file in its turn on the logging queue; the next
    // message makes a new one.
    void rollLogFile();

    const std::shared_ptr<QRLLogFileManager>& logFileManager() const { return logFileManager_; }

private:
    QRLFileLogger(std::shared_ptr<QRLLogFileManager> logFileManager, RunLoop* timerRunLoop);

    // Whether the caller may touch the logger's state directly.
    bool onLoggerOrLoggingQueue() const;
    // Runs `work` directly where the state may be touched, otherwise queues
    // it on the logging queue.
    template <class F>
    void onLoggingQueue(F work);

    void rollLogFileNow();
    void maybeRollLogFileDueToAge();
    void maybeRollLogFileDueToSize();
    void scheduleTimerToRollLogFileDueToAge();
    void cancelTimer();
    double currentLogFileAge() const;
    const std::shared_ptr<QRLLogFileInfo>& currentLogFileInfo();
    int currentLogFileHandle();
    void closeHandle();

    const std::shared_ptr<QRLLogFileManager> logFileManager_;
    RunLoop* const timerRunLoop_;
    const std::shared_ptr<SerialQueue> ownQueue_;

    // Touched only on the logger's queue and the logging queue.
    std::shared_ptr<QRLLogFileInfo> currentLogFileInfo_;
    detail::UniqueFd currentLogFileHandle_;
    uint64_t currentOffset_ = 0;  // of the handle: the file's size as written
    double currentAgeWhenTaken_ = 0.0;  // the current file's age when it became current
    uint64_t currentTakenAtTicks_ = 0;  // and the installed clock then
    RunLoop::Token rollingTimer_ = 0;
    uint64_t maximumFileSize_ = kDefaultMaximumFileSize;
    double rollingFrequency_ = kDefaultRollingFrequency;
    std::string line_;  // reused
    bool writeFailureReported_ = false;
    bool fragmentLeft_ = false;  // the file ends inside a line that failed
    bool openFailureReported_ = false;
};

}  // namespace qrl
