#include "src/rpc/borrowedobjects.h"

#include <stdexcept>
#include <string>

#include "src/rpc/remoteobject.h"

namespace gv::rpc {

Object<Empty> BorrowedObjects::receive(unsigned number, FunctionRef<Object<Empty>()> make) {
  {
    const std::lock_guard lock(mutex_);
    const auto found = borrowed_.find(number);
    if (found == borrowed_.end()) {
      if (borrowed_.size() >= limit_)
        throw std::runtime_error("the peer lends more than " + std::to_string(limit_) + " objects");
    } else if (Object<Empty> alive = found->second.object.lock()) {
      found->second.count += 1;
      return alive;
    }
  }
  const Object<Empty> made = make();
  const std::lock_guard lock(mutex_);
  Borrowed& borrowed = borrowed_[number];
  borrowed.count += 1;  // to what an object that dies just now has received
  // Another thread that reads may have made one meanwhile: with two, the first to die would give
  // back what the other one still uses.
  if (Object<Empty> other = borrowed.object.lock()) return other;
  borrowed.object = made;
  borrowed.identity = Object<RemoteObject>(made).get();
  return made;
}

Object<Empty> BorrowedObjects::find(unsigned number) const {
  const std::lock_guard lock(mutex_);
  const auto found = borrowed_.find(number);
  return found == borrowed_.end() ? Object<Empty>() : found->second.object.lock();
}

unsigned BorrowedObjects::forget(unsigned number, const RemoteObject* dying) {
  const std::lock_guard lock(mutex_);
  const auto found = borrowed_.find(number);
  if (found == borrowed_.end() || found->second.identity != dying) return 0;
  const unsigned count = found->second.count;
  borrowed_.erase(found);
  return count;
}

}  // namespace gv::rpc
