#include "qrl/logging/sim/SimDistributedNotificationCenter.h"

#include <algorithm>
#include <utility>

namespace qrl {

// The members of one simulated bus, in join order.
struct SimDistributedNotificationCenter::Group {
    std::vector<SimDistributedNotificationCenter*> members;
};

namespace {

// One lock for every group: joins move members between groups.
std::mutex& groupsMutex() {
    static auto* m = new std::mutex;
    return *m;
}

}  // namespace

std::shared_ptr<SimDistributedNotificationCenter> SimDistributedNotificationCenter::create(RunLoop& deliveryLoop) {
    return std::make_shared<SimDistributedNotificationCenter>(Passkey{}, deliveryLoop);
}

SimDistributedNotificationCenter::SimDistributedNotificationCenter(Passkey, RunLoop& deliveryLoop)
    : DistributedNotificationCenter(deliveryLoop), group_(std::make_shared<Group>()) {
    group_->members.push_back(this);
}

SimDistributedNotificationCenter::~SimDistributedNotificationCenter() { leave(); }

void SimDistributedNotificationCenter::join(SimDistributedNotificationCenter& other) {
    std::lock_guard lock(groupsMutex());
    if (other.group_ == group_) return;
    const std::shared_ptr<Group> theirs = other.group_;
    for (SimDistributedNotificationCenter* member : theirs->members) {
        member->group_ = group_;
        group_->members.push_back(member);
    }
    theirs->members.clear();
}

void SimDistributedNotificationCenter::leave() {
    std::lock_guard lock(groupsMutex());
    if (group_->members.size() == 1) return;
    auto& members = group_->members;
    members.erase(std::remove(members.begin(), members.end(), this), members.end());
    group_ = std::make_shared<Group>();
    group_->members.push_back(this);
}

std::size_t SimDistributedNotificationCenter::groupSize() const {
    std::lock_guard lock(groupsMutex());
    return group_->members.size();
}

void SimDistributedNotificationCenter::setConnected(bool connected) {
    std::lock_guard lock(groupsMutex());
    connected_ = connected;
}

bool SimDistributedNotificationCenter::connected() const {
    std::lock_guard lock(groupsMutex());
    return connected_;
}

std::vector<DistributedNotification> SimDistributedNotificationCenter::sentNotifications() const {
    std::lock_guard lock(sentMutex_);
    return sent_;
}

std::size_t SimDistributedNotificationCenter::sentCount() const {
    std::lock_guard lock(sentMutex_);
    return sent_.size();
}

void SimDistributedNotificationCenter::clearSent() {
    std::lock_guard lock(sentMutex_);
    sent_.clear();
}

void SimDistributedNotificationCenter::send(const DistributedNotification& notification) {
    {
        std::lock_guard lock(sentMutex_);
        sent_.push_back(notification);
    }
    // Receivers are taken while the group is locked; each delivery is queued
    // on its loop and finds its centre again through a weak reference.
    std::vector<std::shared_ptr<DistributedNotificationCenter>> receivers;
    {
        std::lock_guard lock(groupsMutex());
        if (!connected_) {
            receivers.push_back(shared_from_this());
        } else {
            for (SimDistributedNotificationCenter* member : group_->members) {
                if (member != this && !member->connected_) continue;
                // A member being destroyed has no owner left: skip it.
                if (auto alive = member->weak_from_this().lock()) receivers.push_back(std::move(alive));
            }
        }
    }
    for (const auto& receiver : receivers)
        static_cast<SimDistributedNotificationCenter&>(*receiver).deliverLater(notification);
}

}  // namespace qrl
