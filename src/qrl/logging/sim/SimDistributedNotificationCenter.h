// SimDistributedNotificationCenter: in-process centres joined into groups, so
// that tests and simulations can play several processes: a post reaches
// every centre of the poster's group, each on its own run loop, in join
// order, with no bus and no real time involved.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "qrl/logging/DistributedNotificationCenter.h"

namespace qrl {

class RunLoop;

// Each centre stands for one process. A post goes through the same filter as
// on a real bus (portableUserInfo), is recorded in sentNotifications(), and
// is handed to every connected member of the group, the sender included, in
// a later pass of each member's delivery loop; a member that goes away
// before that pass gets nothing. Thread-safe.
class SimDistributedNotificationCenter final : public DistributedNotificationCenter {
    struct Passkey {};

public:
    // `deliveryLoop` must outlive the centre.
    static std::shared_ptr<SimDistributedNotificationCenter> create(RunLoop& deliveryLoop);
    SimDistributedNotificationCenter(Passkey, RunLoop& deliveryLoop);
    // Leaves its group.
    ~SimDistributedNotificationCenter() override;

    std::string_view backendName() const override { return "sim"; }

    // Puts this centre and `other`, with everyone already joined to either,
    // into one group; the members of other's group follow this group's.
    void join(SimDistributedNotificationCenter& other);
    // Leaves the group: posts reach this centre only, as for a process alone.
    void leave();
    // Members of this centre's group, itself included.
    std::size_t groupSize() const;

    // Fault injection: a disconnected centre is cut off from its group as a
    // process that lost its bus: its posts reach itself only, and it hears
    // nothing of the others'. Connected at first.
    void setConnected(bool connected);
    bool connected() const;

    // What this centre sent, oldest first, in the form receivers got it.
    std::vector<DistributedNotification> sentNotifications() const;
    std::size_t sentCount() const;
    void clearSent();

protected:
    void send(const DistributedNotification& notification) override;

private:
    struct Group;

    std::shared_ptr<Group> group_;  // guarded by the lock of all groups
    bool connected_ = true;         // guarded by the lock of all groups
    mutable std::mutex sentMutex_;
    std::vector<DistributedNotification> sent_;  // guarded by sentMutex_
};

}  // namespace qrl
