#pragma once

#include <mutex>
#include <unordered_map>

#include <gvmessaging/api.h>
#include <gvtype/functionref.h>
#include <gvtype/object.h>

namespace gv::rpc {

class RemoteObject;

/// The objects that a peer has lent to this process, by their number, as long as a handle on them
/// lives. Callable from any thread.
class GVMESSAGING_API BorrowedObjects {
 public:
  explicit BorrowedObjects(std::size_t limit) : limit_(limit) {}

  /// The object of a number, received once more: the one that lives, or the one that `make` makes.
  /// Throws std::runtime_error when too many are held.
  Object<Empty> receive(unsigned number, FunctionRef<Object<Empty>()> make);

  /// The object of a number that lives, invalid where none does.
  Object<Empty> find(unsigned number) const;

  /// Forgets an object that dies. How often its number was received, which is to be given back; 0
  /// when it was received anew meanwhile: then the new object has it all.
  unsigned forget(unsigned number, const RemoteObject* dying);

 private:
  struct Borrowed {
    WeakObject<Empty> object;
    const void* identity = nullptr;
    unsigned count = 0;
  };

  const std::size_t limit_;
  mutable std::mutex mutex_;  // guards borrowed_
  std::unordered_map<unsigned, Borrowed> borrowed_;
};

}  // namespace gv::rpc
