#include "src/rpc/callserver.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <gv/eventloop.h>
#include <gvtype/callcontext.h>
#include <gvtype/callgate.h>
#include <gvtype/callorigin.h>
#include <gvtype/dynamicobject.h>

#include "src/net/readers.h"
#include "src/rpc/argumentlist.h"
#include "src/rpc/callcontext.h"
#include "src/rpc/connection.h"
#include "src/rpc/frameworkmethods.h"
#include "src/rpc/peerlog.h"
#include "src/rpc/releasedelsewhere.h"
#include "src/wire/message.h"
#include "src/wire/valuewriter.h"

namespace gv::rpc {
namespace {

constexpr const char* category = "gvmessaging.connection";

/// As many as may be under way take little memory.
constexpr std::size_t smallReply = 4u << 10;

/// Methods of the framework's own never block, so that they are served even when all user code
/// does.
bool isDirectorys(const wire::FrameHeader& header) {
  return header.service == 1;
}

bool isPostOf(unsigned member, const wire::FrameHeader& header) {
  return header.type == wire::FrameType::Post && header.service == 0 && header.member == member;
}

bool isOfFigures(const wire::FrameHeader& header) {
  return header.type == wire::FrameType::Call &&
         header.member == static_cast<unsigned>(BuiltinMethod::Figures);
}

/// What runs no user code, so that whoever read it serves it: setting a property would run the
/// handlers of its signal.
bool isFrameworks(const wire::FrameHeader& header) {
  return isDirectorys(header) || isPostOf(unsubscribeId, header) ||
         header.member == static_cast<unsigned>(BuiltinMethod::MetaObject) || isOfFigures(header);
}

/// Whether values of this signature may name objects.
bool mayNameObjects(const Signature& signature) {
  return signature.toString().find_first_of("ov*") != std::string::npos;
}

bool isSingleThreaded(const Object<Empty>& object) {
  const GenericObject& generic = *object.share();
  return generic.type == getDynamicTypeInterface() &&
         static_cast<const DynamicObject*>(generic.value)->threadingModel() ==
             ObjectThreadingModel::SingleThread;
}

std::string noService(unsigned id) {
  return "there is no service with id " + std::to_string(id) + " here (any more)";
}

std::string noObject(const ObjectAddress& address) {
  return address.service != 0 ? noService(address.service)
                              : "there is no lent object with number " +
                                    std::to_string(address.object) + " here (any more)";
}

ObjectAddress addressOf(const wire::FrameHeader& header) {
  return {header.service, header.object};
}

/// Once a service was withdrawn no body starts, that of a call that waits for its turn included.
void checkService(const void* host, unsigned id) {
  if (!host || !static_cast<const ServiceHost*>(host)->findService(id))
    throw std::runtime_error(noService(id));
}

std::string shortened(const std::string& text) {
  constexpr std::size_t longest = 64u << 10;
  return text.size() <= longest ? text : text.substr(0, longest) + "... (shortened)";
}

/// The thread serves a call; the service directory is told who calls.
struct Serving {
  Serving(const Connection& connection, const wire::FrameHeader& header)
      : context({connection.id(), header.messageId, header.traceId}),
        caller(isDirectorys(header) ? &connection : nullptr) {}

  const CallContextScope context;
  const DirectoryCallerScope caller;
};

}  // namespace

/// What a call is of.
struct CallTarget {
  Object<Empty> object;                   // invalid for the framework's own
  const MetaMethod* method = nullptr;     // of the object's description, or the framework's
  const AnyFunction* function = nullptr;  // behind it, where it is in this process
};

/// Keeps a call's part of the budget, and lists it, while nothing on a stack does.
struct HeldCall {
  HeldCall(std::shared_ptr<CallBudget> budget, std::size_t bytes,
           std::optional<ServedCalls::Entry>&& listed)
      : share(std::move(budget), 1, bytes), entry(std::move(listed)) {}

  CallBudget::Share share;  // keeps the list
  std::optional<ServedCalls::Entry> entry;
};

/// A call of the peer's that was read, waits for a thread of the event loop, and has not ended.
struct AcceptedCall {
  std::shared_ptr<HeldCall> held;
  wire::Frame frame;
  CallTarget target;
  std::optional<GenericFunctionParameters> arguments;  // where they may name objects
};

/// One that whoever comes first runs or refuses.
struct CallServer::WaitingCall {
  WaitingCall(CallServer& owner, std::shared_ptr<AcceptedCall> accepted, EventLoop& eventLoop)
      : server(owner),
        connection(owner.connection_.shared_from_this()),
        call(std::move(accepted)),
        loop(eventLoop) {}

  void run() {
    if (isTaken.exchange(true)) return;
    server.serveAccepted(*call);
    *call = AcceptedCall();
  }
  void refuse() {
    if (isTaken.exchange(true)) return;
    ++connection->discarded().calls;
    server.replyError(call->frame.header, loop.refusalText());
    call->held.reset();
  }
  void runInItsTurn(const std::shared_ptr<WaitingCall>& self, bool isLetThrough) {
    const auto enqueue = [self](bool isLetThroughNow) {
      const auto runLater = [self, isLetThroughNow] { self->runInItsTurn(self, isLetThroughNow); };
      const auto refuse = [self] { self->refuse(); };
      if (!self->loop.tryPost(runLater, refuse)) net::Readers::post(refuse);
    };
    if (server.paced_->mayBegin(isLetThrough) || !server.paced_->add(enqueue)) run();
  }

  CallServer& server;
  const std::shared_ptr<Connection> connection;  // of which the server is part
  const std::shared_ptr<AcceptedCall> call;
  EventLoop& loop;
  std::atomic<bool> isTaken{false};
};

class OfThisPeer final : public CallOrigin {
 public:
  OfThisPeer(const CallServer& server, const wire::FrameHeader& header)
      : server_(server), header_(header) {}

 private:
  std::shared_ptr<const void> hold() const override { return server_.holdLeftRunning(header_); }

  const CallServer& server_;
  const wire::FrameHeader& header_;
};

CallServer::CallServer(Connection& connection, net::Stream& stream, ObjectExchange& objects,
                       std::weak_ptr<ServiceHost> host, const wire::Limits& limits)
    : connection_(connection),
      stream_(stream),
      objects_(objects),
      limits_(limits),
      host_(std::move(host)),
      relay_(std::make_shared<SignalRelay>(limits.subscriptions)),
      paced_(std::make_shared<PacedCalls>(stream, limits)) {}

void CallServer::onCall(wire::Frame& frame) {
  if (isPostOf(releaseId, frame.header)) return objects_.onRelease(frame);
  const bool isHere = net::Readers::mayRunForeignCode();
  if (!isHere) stream_.expectUnasked();
  if (isFrameworks(frame.header)) return serve(frame, MetaCallType::Direct);
  const auto callType = static_cast<MetaCallType>(frame.header.callType);
  if (isHere && callType != MetaCallType::Queued && getEventLoop()->hasRoom())
    serve(frame, callType);
  else
    serveElsewhere(frame, callType);
}

/// Looks up, and decodes what may name objects, in the order of the frames: what follows may give
/// back the object that is called here, or one among the arguments.
void CallServer::serveElsewhere(wire::Frame& frame, MetaCallType callType) {
  const wire::FrameHeader header = frame.header;
  const auto call = releasedElsewhere(AcceptedCall());
  try {
    checkBudget(frame);
    if (budget_->calls > limits_.acceptedCalls / 10) stream_.restAfterTurn();
    OptionalEntry entry(std::in_place, budget_->served, header);
    call->held = hold(header, entry);
    call->target = findTarget(frame);
    if (mayNameObjects(call->target.method->parametersSignature()))
      call->arguments = readArguments(frame, call->target);
  } catch (const std::exception& error) {
    return replyError(header, error.what());
  } catch (...) {
    return replyError(header, "unknown exception");
  }
  call->frame = std::move(frame);
  EventLoop& loop = *getEventLoop();
  const auto waiting = std::make_shared<WaitingCall>(*this, call, loop);
  const auto run = [waiting] { waiting->run(); };
  const auto refuse = [waiting] { waiting->refuse(); };
  if (callType == MetaCallType::Queued && header.type != wire::FrameType::Post) {
    const auto runInItsTurn = [waiting] { waiting->runInItsTurn(waiting, false); };
    if (!loop.tryPost(runInItsTurn, refuse)) refuse();
    return;
  }
  const TaskHandle queued = loop.tryPost(run, refuse);
  if (!queued) return refuse();
  if (callType == MetaCallType::Queued) return;
  // The pool may be busy for ever, and then the call is one that would stop a task. Nor does the
  // pool keep anything of a call that it does not come to.
  const auto withdrawing = [&queued](const auto& task) {
    return [queued, task] {
      queued.cancel();
      task();
    };
  };
  net::Readers::postWhenThereIsRoom(
      {withdrawing(run), withdrawing(refuse),
       std::shared_ptr<std::atomic<bool>>(waiting, &waiting->isTaken)});
}

void CallServer::serveAccepted(const AcceptedCall& call) {
  const wire::FrameHeader& header = call.frame.header;
  const auto callType = static_cast<MetaCallType>(header.callType);
  try {
    if (header.type != wire::FrameType::Post) checkRoom("not run");
    // A service that was withdrawn meanwhile starts no body; an object that was given back does.
    if (header.service != 0 && !objects_.find(addressOf(header)))
      return replyError(header, noService(header.service));
    callMethod(header, call.target,
               call.arguments ? *call.arguments : readArguments(call.frame, call.target),
               callType == MetaCallType::Queued ? MetaCallType::Direct : callType,
               call.held->entry);
  } catch (const std::exception& error) {
    replyError(header, error.what());
  } catch (...) {
    replyError(header, "unknown exception");
  }
}

void CallServer::serve(const wire::Frame& frame, MetaCallType callType) {
  const wire::FrameHeader& header = frame.header;
  // Outlives the object: its destructor is foreign, too.
  std::optional<net::Readers::ForeignCode> foreign;
  std::shared_ptr<CallTarget> released;  // keeps it from being destroyed by who must not do that
  CallTarget target;
  OptionalEntry entry;
  try {
    if (!isFrameworks(header)) {
      checkBudget(frame);
      entry.emplace(budget_->served, header);
    }
    target = findTarget(frame);
    if (!net::Readers::mayRunForeignCode()) released = releasedElsewhere(CallTarget(target));
    // Calls of a single-threaded object are only put in its queue: in the order of their frames. So
    // are arguments read that may name objects: what follows may give them back.
    const bool isQueued = isFrameworks(header) || !target.object || isSingleThreaded(target.object);
    if (!isQueued && !mayNameObjects(target.method->parametersSignature())) foreign.emplace();
    const auto arguments = readArguments(frame, target);
    if (!isQueued && !foreign) foreign.emplace();
    callMethod(header, target, arguments, callType, entry);
  } catch (const std::exception& error) {
    replyError(header, error.what());
  } catch (...) {
    replyError(header, "unknown exception");
  }
  if (!foreign) foreign.emplace();
}

void CallServer::checkBudget(const wire::Frame& frame) {
  if (budget_->calls < limits_.acceptedCalls && budget_->bytes < limits_.acceptedBytes) return;
  objects_.giveBack(frame.bytes());
  ++connection_.discarded().calls;
  throw std::runtime_error("too many calls of this connection are under way");
}

/// Not counted with the calls: whoever has too much running must be able to stop it.
std::shared_ptr<const void> CallServer::holdLeftRunning(const wire::FrameHeader& header) const {
  if (leftRunning_->calls >= limits_.acceptedCalls || leftRunning_->bytes >= limits_.acceptedBytes)
    throw std::runtime_error("too many posted calls of this connection have not ended: at most " +
                             std::to_string(limits_.acceptedCalls) + ", and " +
                             std::to_string(limits_.acceptedBytes >> 20) + " MiB of arguments");
  return std::make_shared<CallBudget::Share>(leftRunning_, 1, header.payloadSize);
}

std::shared_ptr<HeldCall> CallServer::hold(const wire::FrameHeader& header,
                                           OptionalEntry& entry) const {
  return std::make_shared<HeldCall>(budget_, header.payloadSize, std::move(entry));
}

CallTarget CallServer::findTarget(const wire::Frame& frame) {
  const wire::FrameHeader& header = frame.header;
  if (isPostOf(unsubscribeId, header)) return {{}, &unsubscribeMethod()};
  CallTarget target{objects_.find(addressOf(header))};
  const bool isOfSession = header.service == 0 && header.object == 0;
  if (isOfFigures(header) && (target.object || isOfSession)) {
    target.method = &figuresMethod();
  } else if (target.object && header.member == subscribeId &&
             header.type == wire::FrameType::Call) {
    target.method = &subscribeMethod();
  } else if (target.object) {
    const GenericObject& generic = *target.object.share();
    target.method = generic.metaObject().method(header.member);
    target.function = generic.type->method(generic.value, header.member);
  }
  if (target.method) return target;
  objects_.giveBack(frame.bytes());
  throw std::runtime_error(target.object
                               ? "the object has no method with id " + std::to_string(header.member)
                               : noObject(addressOf(header)));
}

GenericFunctionParameters CallServer::readArguments(const wire::Frame& frame,
                                                    const CallTarget& target) {
  ObjectExchange::Receiving receiving(objects_, frame.bytes());
  auto arguments = readArgumentList(frame, target.function, target.method->parametersSignature(),
                                    limits_, receiving);
  receiving.wasRead();
  return arguments;
}

void CallServer::callMethod(const wire::FrameHeader& header, const CallTarget& target,
                            const GenericFunctionParameters& arguments, MetaCallType callType,
                            OptionalEntry& entry) {
  const bool mayBeQueued = callType == MetaCallType::Queued || header.type == wire::FrameType::Post;
  if (!mayBeQueued && callNow(header, target, arguments)) return;
  const Future<AnyReference> result = startMethod(header, target, arguments, callType);
  if (header.type != wire::FrameType::Post)
    replyWhenSettled(header, target.method->returnSignature().toString(), result, entry);
  else if (result.isRunning())
    result.connect([held = hold(header, entry)](const auto&) {}, FutureCallbackType::Sync);
}

/// What most calls take: without a future. False: nothing has run.
bool CallServer::callNow(const wire::FrameHeader& header, const CallTarget& target,
                         const GenericFunctionParameters& arguments) {
  const TypeInterface* type = target.function ? target.function->returnType() : nullptr;
  if (!type || type->kind == TypeKind::Future) return false;
  const GenericObject& object = *target.object.share();
  AnyValue result;
  {
    const Serving serving(connection_, header);
    const auto call = [&](void* place) {
      return object.type->callNow(object.value, header.member, arguments, place ? type : nullptr,
                                  place);
    };
    if (!(type->kind == TypeKind::Void ? call(nullptr) : result.emplace(type, call))) return false;
  }
  reply(header, target.method->returnSignature().toString(),
        type->kind == TypeKind::Void ? AnyReference::ofVoid() : result.asReference());
  return true;
}

AnyReference CallServer::figures() const {
  const auto host = host_.lock();
  if (!host) throw std::runtime_error("the session has ended");
  return AnyReference::own(AnyValue::from(host->figures()));
}

Future<AnyReference> CallServer::startMethod(const wire::FrameHeader& header,
                                             const CallTarget& target,
                                             const GenericFunctionParameters& arguments,
                                             MetaCallType callType) {
  if (target.method == &figuresMethod()) return makeReadyFuture(figures());
  if (target.method == &unsubscribeMethod()) {
    relay_->unsubscribe(arguments[0].to<std::uint64_t>());
    return makeReadyFuture(AnyReference::ofVoid());
  }
  if (target.method == &subscribeMethod())
    return relay_->subscribe(connection_.shared_from_this(), addressOf(header), target.object,
                             arguments[0].to<unsigned>(), arguments[1].to<std::uint64_t>());
  const Serving serving(connection_, header);
  const OfThisPeer peer(*this, header);
  const CallOrigin::Scope served(peer);
  const CallGate gate{host_, header.service, &checkService};
  std::optional<CallGateScope> gated;
  if (header.service != 0) gated.emplace(gate);
  return target.object.metaCall(header.member, arguments, callType);
}

void CallServer::replyWhenSettled(const wire::FrameHeader& call, const std::string& returnSignature,
                                  const Future<AnyReference>& result, OptionalEntry& entry) {
  const auto isPlain = [](const AnyReference& value) {
    return !value.isValid() || value.type()->kind != TypeKind::Future;
  };
  if (result.isFinished() && result.hasValue(0) && isPlain(result.value(0)))
    return reply(call, returnSignature, result.value(0));
  Promise<AnyReference> flattened(FutureCallbackType::Sync);
  flattened.future().connect(
      [this, self = connection_.shared_from_this(), call, returnSignature,
       held = hold(call, entry)](const Future<AnyReference>& settled) {
        try {
          reply(call, returnSignature, settled.value());
        } catch (const std::exception& error) {
          replyError(call, error.what());
        }
      },
      FutureCallbackType::Sync);
  result.connect(
      [flattened](const Future<AnyReference>& settled) {
        try {
          handleFuture<AnyReference>(settled.value(), flattened);
        } catch (const FutureException& error) {
          flattened.setError(error.what(), error.state());
        }
      },
      FutureCallbackType::Sync);
}

/// Calls under way go on while the peer's requests are not read any more.
void CallServer::checkRoom(const char* otherwise) const {
  if (stream_.pendingBytes() <= limits_.outputStop) return;
  throw std::runtime_error(std::string(otherwise) + ": more than " +
                           std::to_string(limits_.outputStop >> 20) +
                           " MiB wait for the caller to read them");
}

void CallServer::reply(const wire::FrameHeader& call, const std::string& returnSignature,
                       const AnyReference& result) {
  ObjectExchange::Sending sending(objects_);
  wire::Message message(&sending);
  try {
    wire::writeValue(message, result, returnSignature);
    if (message.payloadSize() > limits_.payload)
      throw message.tooLarge("the result takes", limits_.payload);
    if (message.payloadSize() > smallReply) checkRoom("the result was dropped");
  } catch (const std::exception& error) {
    sending.takeBack();  // before the caller knows, and may ask for as much again
    return replyError(call, error.what());
  } catch (...) {
    return replyError(call, "unknown exception");
  }
  wire::FrameHeader header;
  header.type = wire::FrameType::Reply;
  header.messageId = call.messageId;
  if (stream_.send(message.finish(header))) sending.wasSent();
}

void CallServer::replyError(const wire::FrameHeader& call, const std::string& text) {
  if (call.type == wire::FrameType::Post) {
    ++connection_.discarded().posts;
    logOfPeer(log::Level::Warning, category, "post", connection_.peerAddress(), [&] {
      return "a post of " + connection_.peerName() + " to service " + std::to_string(call.service) +
             " was dropped: " + shortened(text);
    });
    return;
  }
  const std::string sent = shortened(text);
  wire::Message message;
  wire::writeValue(message, AnyReference::from(sent), "s");
  wire::FrameHeader header;
  header.type = wire::FrameType::Error;
  header.messageId = call.messageId;
  stream_.send(message.finish(header));
}

// ---- Signals of this side's objects

/// Which bound the output passes that a subscriber does not take; empty for none. Large replies
/// wait there too, for a peer that reads as fast as it can.
std::string CallServer::exceededOutput() {
  const std::size_t pending = stream_.pendingBytes();
  std::size_t events = pendingEvents_;
  while (events > pending && !pendingEvents_.compare_exchange_weak(events, pending)) {
  }
  if (std::min(events, pending) > limits_.outputSlow)
    return std::to_string(limits_.outputSlow >> 20) + " MiB";
  if (pending == 0 || stream_.stalledFor() < limits_.outputPatience) return {};
  return std::to_string(limits_.outputPatience.count()) + " ms";
}

void CallServer::sendEvent(const ObjectAddress& object, const MetaSignal& signal,
                           std::uint64_t subscription, const std::vector<AnyValue>& values) {
  if (!relay_->isSubscribed(subscription)) return;  // its end is under way
  // An object that was unregistered or given back may emit on: that is no longer the peer's.
  if (!objects_.find(object)) return relay_->unsubscribe(subscription);
  if (const std::string bound = exceededOutput(); !bound.empty()) {
    const std::string cause =
        "the peer did not read the events of its subscriptions: cut at " + bound;
    logOfPeer(log::Level::Warning, category, "sendEvent", connection_.peerAddress(),
              [&] { return connection_.peerName() + ": " + cause; });
    relay_->end();
    return stream_.close(cause);
  }
  ObjectExchange::Sending sending(objects_);
  wire::Message message(&sending);
  std::vector<AnyReference> references;
  for (const AnyValue& value : values) references.push_back(value.asReference());
  wire::writeArguments(message, references, signal.signature().toString());
  if (message.payloadSize() > limits_.payload)
    throw message.tooLarge("an emission of the signal '" + signal.name() + "' takes",
                           limits_.payload);
  wire::FrameHeader header;
  header.type = wire::FrameType::Event;
  header.service = object.service;
  header.object = object.object;
  header.member = signal.uid();
  header.messageId = subscription;
  if (!stream_.send(message.finish(header))) return;
  sending.wasSent();
  pendingEvents_ += wire::frameHeaderSize + message.payloadSize();
}

}  // namespace gv::rpc
