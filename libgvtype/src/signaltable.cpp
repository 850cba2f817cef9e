#include "signaltable.h"

#include <atomic>
#include <optional>
#include <stdexcept>

#include <gv/eventloop.h>
#include <gv/log.h>

#include "exactarguments.h"

namespace gv {
namespace {

std::atomic<SignalLink> newestLink{0};

/// Whether the handler takes that many arguments, found out without calling it.
void checkHandler(const std::string& signal, std::size_t given, const AnyFunction& handler) {
  const std::size_t wanted = handler.parameterTypes().size();
  try {
    checkArgumentCount(given, wanted, handler.takesAnyArguments());
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("the handler " + handler.parametersSignature().toString() +
                             " does not take the arguments of the signal '" + signal +
                             "': " + error.what());
  }
}

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
  checkHandler(declared->name, declared->parameters.size(), handler);
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
  std::optional<ExactArguments> exact;
  try {
    exact.emplace(arguments, declared->parameters, false);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("signal '" + declared->name + "': " + error.what());
  }
  GenericFunctionParameters owned;
  bool isCopied = false;
  // From the first handler on `this` may be gone.
  const auto listening = subscribers(id);
  for (const auto& subscriber : *listening) {
    if (!subscriber->isQueued()) {
      subscriber->run(exact->references());
      continue;
    }
    try {
      if (!std::exchange(isCopied, true)) owned = ownedCopies(exact->references());
      subscriber->post(owned);
    } catch (const std::exception& error) {
      GV_LOG(log::Level::Error, "gv.signal", "emit",
             "the signal '" + declared->name + "' could not be queued: " + error.what());
    }
  }
}

}  // namespace gv
