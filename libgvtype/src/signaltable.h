#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <gvtype/metacall.h>
#include <gvtype/signallink.h>

#include "subscriber.h"

namespace gv {

/// The signals that an object emits itself, and who listens to them. No lock is held while a
/// handler runs or dies; the object, and this with it, may go while one runs.
class SignalTable {
 public:
  void add(unsigned id, const std::string& name, std::vector<const TypeInterface*> parameters);
  bool contains(unsigned id) const;

  /// Throws std::runtime_error for a handler that cannot take the signal's parameters.
  SignalLink connect(unsigned id, AnyFunction handler, MetaCallType callType);
  /// Fails the future for a link that is not connected (any more).
  Future<void> disconnect(SignalLink link);
  /// Throws std::runtime_error for arguments that are not the signal's.
  void emit(unsigned id, std::span<const AnyReference> arguments);

 private:
  using Subscribers = std::vector<std::shared_ptr<Subscriber>>;

  /// Constant.
  struct Declaration {
    std::string name;
    std::vector<const TypeInterface*> parameters;
  };
  struct Signal {
    std::shared_ptr<const Declaration> declaration;
    std::map<SignalLink, std::shared_ptr<Subscriber>> links;  // rising: in order of connection
    std::shared_ptr<const Subscribers> emitted;  // the same for emissions; null after a change
  };

  std::shared_ptr<const Declaration> declaration(unsigned id) const;
  std::shared_ptr<const Subscribers> subscribers(unsigned id);

  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<unsigned, Signal> signals_;
};

}  // namespace gv
