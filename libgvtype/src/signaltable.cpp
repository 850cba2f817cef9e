#include "signaltable.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <stdexcept>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gvtype/conversion.h>

#include "exactarguments.h"

namespace gv {
namespace {

std::atomic<SignalLink> newestLink{0};

/// Whether no value of the one type converts to the other. Of types whose values differ in that,
/// the emission tells.
bool neverConverts(const TypeInterface* from, const TypeInterface* to) {
  if (from->kind >= TypeKind::List || !from->construct || !to) return false;
  std::string target;
  appendSignature(target, to);
  bool looksAtValue = false;
  return conversionCost(AnyValue::make(from).asReference(), target, &looksAtValue) < 0 &&
         !looksAtValue;
}

/// Whether the handler takes such arguments, found out without calling it.
void checkHandler(const std::string& signal, std::span<const TypeInterface* const> given,
                  const AnyFunction& handler) {
  const auto wanted = handler.parameterTypes();
  try {
    checkArgumentCount(given.size(), wanted.size(), handler.takesAnyArguments());
    for (std::size_t i = 0; i < wanted.size(); ++i)
      if (neverConverts(given[i], wanted[i]))
        throw std::runtime_error("cannot convert " + typeName(given[i]) + " to " +
                                 typeName(wanted[i]) + " (argument " + std::to_string(i + 1) + ")");
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("the handler " + handler.parametersSignature().toString() +
                             " does not take the arguments of the signal '" + signal +
                             "': " + error.what());
  }
}

/// One emission on this thread, within those whose handlers emit.
class EmissionLevel {
 public:
  EmissionLevel() {
    constexpr int limit = 64;
    if (depth_ == limit)
      throw std::runtime_error("more than " + std::to_string(limit) +
                               " emissions within each other's handlers on one thread");
    ++depth_;
  }
  ~EmissionLevel() { --depth_; }
  EmissionLevel(const EmissionLevel&) = delete;
  EmissionLevel& operator=(const EmissionLevel&) = delete;

 private:
  static thread_local int depth_;
};

thread_local int EmissionLevel::depth_ = 0;

}  // namespace

void SignalTable::add(unsigned id, const std::string& name,
                      std::vector<const TypeInterface*> parameters) {
  auto declared = std::make_shared<const Declaration>(Declaration{name, std::move(parameters)});
  const std::lock_guard lock(mutex_);
  signals_[id].declaration = std::move(declared);
}

bool SignalTable::contains(unsigned id) const {
  const std::lock_guard lock(mutex_);
  return signals_.contains(id);
}

std::shared_ptr<const SignalTable::Declaration> SignalTable::declaration(unsigned id) const {
  const std::lock_guard lock(mutex_);
  const auto found = signals_.find(id);
  if (found == signals_.end())
    throw std::runtime_error("the object emits no signal with id " + std::to_string(id) +
                             " in this process");
  return found->second.declaration;
}

SignalLink SignalTable::connect(unsigned id, AnyFunction handler, MetaCallType callType) {
  const auto declared = declaration(id);
  checkHandler(declared->name, declared->parameters, handler);
  auto queue =
      callType == MetaCallType::Queued ? std::make_shared<SerialQueue>(getEventLoop()) : nullptr;
  auto subscriber =
      std::make_shared<Subscriber>(declared->name, std::move(handler), std::move(queue));
  std::shared_ptr<const Subscribers> outdated;  // dies after the unlock
  const std::lock_guard lock(mutex_);
  Signal& signal = signals_.at(id);
  const SignalLink link = newestLink.fetch_add(1, std::memory_order_relaxed) + 1;
  signal.links.emplace_hint(signal.links.end(), link, std::move(subscriber));
  signal.emitted.swap(outdated);
  return link;
}

Future<void> SignalTable::disconnect(SignalLink link) {
  std::shared_ptr<Subscriber> removed;  // these die after the unlock
  std::shared_ptr<const Subscribers> outdated;
  {
    const std::lock_guard lock(mutex_);
    for (auto& [id, signal] : signals_) {
      const auto found = signal.links.find(link);
      if (found == signal.links.end()) continue;
      removed = std::move(found->second);
      signal.links.erase(found);
      signal.emitted.swap(outdated);
      break;
    }
  }
  if (removed) return removed->disconnect();
  return makeFailedFuture<void>("there is no connection " + std::to_string(link) +
                                " to a signal of the object");
}

std::shared_ptr<const SignalTable::Subscribers> SignalTable::subscribers(unsigned id) {
  const std::lock_guard lock(mutex_);
  Signal& signal = signals_.at(id);
  if (!signal.emitted) {
    auto list = std::make_shared<Subscribers>();
    list->reserve(signal.links.size());
    for (const auto& [link, subscriber] : signal.links) list->push_back(subscriber);
    signal.emitted = std::move(list);
  }
  return signal.emitted;
}

void SignalTable::emit(unsigned id, std::span<const AnyReference> arguments) {
  const auto declared = declaration(id);
  std::optional<EmissionLevel> level;
  std::optional<ExactArguments> exact;
  try {
    level.emplace();
    exact.emplace(arguments, declared->parameters, false);
  } catch (...) {  // also of converting to the user's types
    throw std::runtime_error("signal '" + declared->name + "': " + detail::currentError().text);
  }
  const auto logNotQueued = [&declared] {
    GV_LOG(
        log::Level::Error, "gv.signal", "emit",
        "the signal '" + declared->name + "' could not be queued: " + detail::currentError().text);
  };
  std::optional<GenericFunctionParameters> owned;  // for queued handlers; none without a copy
  const auto listening = subscribers(id);
  try {
    if (std::any_of(listening->begin(), listening->end(),
                    [](const auto& subscriber) { return subscriber->isQueued(); }))
      owned = ownedCopies(exact->references());
  } catch (...) {
    logNotQueued();
  }
  // From the first handler on `this` may be gone.
  for (const auto& subscriber : *listening) {
    try {
      if (!subscriber->isQueued())
        subscriber->run(exact->references());
      else if (owned)
        subscriber->post(*owned);
    } catch (...) {
      logNotQueued();
    }
  }
}

}  // namespace gv
