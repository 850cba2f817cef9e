#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

namespace gv {

/// All members of a kind that live in this process, so that they can find each other. Never
/// destroyed: members may go in static destruction.
template <class Member>
class Neighbourhood {
 public:
  static Neighbourhood& instance() {
    static Neighbourhood& all = *new Neighbourhood;
    return all;
  }

  void join(const std::weak_ptr<Member>& member) {
    const std::lock_guard lock(mutex_);
    std::erase_if(members_, [](const auto& weak) { return weak.expired(); });
    members_.push_back(member);
  }

  std::vector<std::shared_ptr<Member>> members() const {
    std::vector<std::shared_ptr<Member>> alive;
    const std::lock_guard lock(mutex_);
    for (const auto& weak : members_)
      if (auto member = weak.lock()) alive.push_back(std::move(member));
    return alive;
  }

 private:
  mutable std::mutex mutex_;  // guards members_
  std::vector<std::weak_ptr<Member>> members_;
};

}  // namespace gv
