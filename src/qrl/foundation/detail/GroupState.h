// The bookkeeping behind a DispatchGroup, shared with the tasks counted in it
// so that it outlives the group object while any of them is pending.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "qrl/foundation/detail/Task.h"

namespace qrl {
class SerialQueue;
}

namespace qrl::detail {

struct GroupState {
    std::mutex mutex;
    std::condition_variable emptied;
    int64_t count = 0;        // entered and not yet left
    uint64_t generation = 0;  // bumped each time count returns to 0
    std::vector<std::pair<std::shared_ptr<SerialQueue>, Task>> notifications;

    void enter();
    // Throws qrl::Exception("DispatchGroup", ...) when nothing is entered.
    void leave();
    // Submits the waiting notifications; called without the mutex held.
    static void submit(std::vector<std::pair<std::shared_ptr<SerialQueue>, Task>>& notifications);
};

}  // namespace qrl::detail
