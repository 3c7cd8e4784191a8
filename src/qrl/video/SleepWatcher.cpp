#include "qrl/video/SleepWatcher.h"

#include "qrl/video/detail/VideoBackends.h"

namespace qrl {

std::unique_ptr<SleepWatcher> SleepWatcher::start(Handler handler, const std::optional<std::string>& busAddress,
                                                  std::string* whyNot) {
    BackendChoice choice;
    auto watcher = chooseBackend(detail::kSleepPort, detail::sleepWatcherBackends(), &choice, handler, busAddress);
    if (!watcher && whyNot) *whyNot = choice.reasons().empty() ? "no backend can follow sleep and wake" : choice.reasons();
    return watcher;
}

}  // namespace qrl
