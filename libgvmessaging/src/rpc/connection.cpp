#include "src/rpc/connection.h"

#include <atomic>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gvtype/callgate.h>
#include <gvtype/dynamicobject.h>

#include "src/net/readers.h"
#include "src/rpc/argumentlist.h"
#include "src/rpc/callcontext.h"
#include "src/rpc/frameworkmethods.h"
#include "src/rpc/releasedelsewhere.h"
#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace gv::rpc {
namespace {

constexpr const char* category = "gvmessaging.connection";

std::uint64_t nextConnectionId() {
  static std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

/// Methods of the framework's own never block, so that they are served even when all user code
/// does.
bool isDirectorys(const wire::FrameHeader& header) {
  return header.service == 1;
}

/// What runs no user code, so that whoever read it serves it: setting a property would run the
/// handlers of its signal.
bool isFrameworks(const wire::FrameHeader& header) {
  return isDirectorys(header) || header.member == static_cast<unsigned>(BuiltinMethod::MetaObject);
}

bool isPostOf(unsigned member, const wire::FrameHeader& header) {
  return header.type == wire::FrameType::Post && header.service == 0 && header.member == member;
}

/// Whether values of this signature may name objects.
bool mayNameObjects(const Signature& signature) {
  return signature.toString().find_first_of("ov*") != std::string::npos;
}

/// What the peer has sent and this side has not done with yet, as the connection counts it.
class BudgetShare {
 public:
  BudgetShare(std::shared_ptr<CallBudget> budget, std::size_t calls, std::size_t bytes)
      : budget_(std::move(budget)), calls_(calls), bytes_(bytes) {
    budget_->calls += calls_;
    budget_->bytes += bytes_;
  }
  ~BudgetShare() {
    budget_->calls -= calls_;
    budget_->bytes -= bytes_;
  }
  BudgetShare(const BudgetShare&) = delete;
  BudgetShare& operator=(const BudgetShare&) = delete;

 private:
  const std::shared_ptr<CallBudget> budget_;
  const std::size_t calls_;
  const std::size_t bytes_;
};

/// The values of an event until all handlers have had them.
struct ReceivedEvent {
  std::unique_ptr<BudgetShare> share;
  GenericFunctionParameters values;
};

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

}  // namespace

/// What a call is of.
struct CallTarget {
  Object<Empty> object;                // invalid for the framework's own
  const MetaMethod* method = nullptr;  // of the object's description, or the framework's
};

/// A call of the peer's that was read, waits for a thread of the event loop, and has not ended.
struct AcceptedCall {
  std::unique_ptr<BudgetShare> share;
  wire::Frame frame;
  CallTarget target;
  std::optional<GenericFunctionParameters> arguments;  // where they may name objects
};

std::shared_ptr<Connection> Connection::start(std::shared_ptr<net::Stream> stream, Role role,
                                              const Greeting& own, std::weak_ptr<ServiceHost> host,
                                              Events events, const wire::Limits& limits) {
  std::shared_ptr<Connection> connection(
      new Connection(std::move(stream), role, own, std::move(host), std::move(events), limits));
  const std::weak_ptr<Connection> weak = connection;
  connection->handshakeTimer_ = net::Timer::start(limits.handshakeTime, [weak] {
    if (const auto late = weak.lock()) late->close("the handshake took too long");
  });
  connection->stream_->start(connection);
  if (role == Role::Client) connection->send({wire::FrameType::Hello, encodeGreeting(own)});
  return connection;
}

Connection::Connection(std::shared_ptr<net::Stream> stream, Role role, const Greeting& own,
                       std::weak_ptr<ServiceHost> host, Events events, const wire::Limits& limits)
    : id_(nextConnectionId()),
      stream_(std::move(stream)),
      role_(role),
      own_(own),
      host_(host),
      limits_(limits),
      objects_(*this, std::move(host), limits_),
      relay_(std::make_shared<SignalRelay>(limits.subscriptions)),
      events_(std::move(events)),
      reader_(limits.handshakePayload) {}

bool Connection::hasEnded() const {
  const std::lock_guard lock(mutex_);
  return state_ == State::Closed;
}

bool Connection::isOpen() const {
  const std::lock_guard lock(mutex_);
  return state_ == State::Open;
}

// ---- Calls of this side

Future<AnyReference> Connection::call(const ObjectAddress& object, const MetaMethod& method,
                                      const GenericFunctionParameters& arguments,
                                      MetaCallType callType) {
  using State_ = FutureException::State;
  ObjectExchange::Sending sending(objects_);
  wire::Message message(&sending);
  try {
    encodeArguments(message, method, arguments);
  } catch (const std::exception& error) {
    return makeFailedFuture<AnyReference>(error.what(), State_::NotSent);
  }
  wire::FrameHeader header = makeHeader(object, method, callType);
  header.type = wire::FrameType::Call;
  Promise<AnyReference> promise;
  promise.setWaitAid(weak_from_this());
  {
    std::unique_lock lock(mutex_);
    if (state_ == State::Closed) {
      const std::string cause = cause_;
      lock.unlock();
      return makeFailedFuture<AnyReference>(
          "not sent: the connection to " + peerName() + " has ended: " + cause, State_::NotSent);
    }
    header.messageId = pending_.add({promise, method.returnSignature().toString()});
  }
  std::string failure;
  try {
    if (stream_->send(message.finish(header)))
      sending.wasSent();
    else
      failure = "the connection to " + peerName() + " has ended";
  } catch (const std::exception& error) {
    failure = error.what();
  }
  if (!failure.empty())
    if (const auto unsent = takePending(header.messageId))
      unsent->promise.setError("not sent: " + failure, State_::NotSent);
  return promise.future();
}

/// In a thread that waits for a reply.
void Connection::help(const detail::FutureState& awaited) noexcept {
  try {
    stream_->readWhile([&awaited] { return awaited.state() == gv::FutureState::Running; });
  } catch (const std::exception& error) {
    close(error.what());
  }
}

void Connection::post(const ObjectAddress& object, const MetaMethod& method,
                      const GenericFunctionParameters& arguments) {
  ObjectExchange::Sending sending(objects_);
  wire::Message message(&sending);
  encodeArguments(message, method, arguments);
  wire::FrameHeader header = makeHeader(object, method, MetaCallType::Queued);
  header.type = wire::FrameType::Post;
  header.messageId = nextCallId();
  if (!stream_->send(message.finish(header)))
    throw std::runtime_error("not sent: the connection to " + peerName() + " has ended");
  sending.wasSent();
}

void Connection::sendEvent(const ObjectAddress& object, const MetaSignal& signal,
                           std::uint64_t subscription, const std::vector<AnyValue>& values) {
  if (!relay_->isSubscribed(subscription)) return;  // its end is under way
  // An object that was unregistered or given back may emit on: that is no longer the peer's.
  if (!objects_.find(object)) return relay_->unsubscribe(subscription);
  if (stream_->pendingBytes() > limits_.outputSlow) {
    const std::string cause = "the peer did not read the events of its subscriptions: cut at " +
                              std::to_string(limits_.outputSlow >> 20) + " MiB";
    GV_LOG(log::Level::Warning, category, "sendEvent", peerName() + ": " + cause);
    relay_->end();
    return stream_->close(cause);
  }
  ObjectExchange::Sending sending(objects_);
  wire::Message message(&sending);
  std::vector<AnyReference> references;
  for (const AnyValue& value : values) references.push_back(value.asReference());
  wire::writeArguments(message, references, signal.signature().toString());
  checkSize(message, "an emission of the signal '" + signal.name() + "' takes ");
  wire::FrameHeader header;
  header.type = wire::FrameType::Event;
  header.service = object.service;
  header.object = object.object;
  header.member = signal.uid();
  header.messageId = subscription;
  if (stream_->send(message.finish(header))) sending.wasSent();
}

wire::FrameHeader Connection::makeHeader(const ObjectAddress& object, const MetaMethod& method,
                                         MetaCallType callType) const {
  wire::FrameHeader header;
  header.callType = static_cast<wire::CallType>(callType);
  header.service = object.service;
  header.object = object.object;
  header.member = method.uid();
  header.parentCall = CallContext::current().callId;
  header.traceId = traceIdForNewCall();
  return header;
}

void Connection::checkSize(const wire::Message& message, const std::string& what) const {
  if (message.payloadSize() > limits_.payload)
    throw std::runtime_error(what + std::to_string(message.payloadSize()) +
                             " bytes, more than the limit of " + std::to_string(limits_.payload));
}

void Connection::encodeArguments(wire::Message& message, const MetaMethod& method,
                                 const GenericFunctionParameters& arguments) const {
  wire::writeArguments(message, arguments, method.parametersSignature().toString());
  if (message.payloadSize() > limits_.payload)
    checkSize(message, "the arguments of '" + method.toString() + "' take ");
}

void Connection::send(const HandshakeFrame& frame) {
  wire::Message message;
  message.write(frame.payload.data(), frame.payload.size());
  wire::FrameHeader header;
  header.type = frame.type;
  stream_->send(message.finish(header));
}

std::optional<PendingCall> Connection::takePending(std::uint64_t messageId) {
  const std::lock_guard lock(mutex_);
  return pending_.take(messageId);
}

// ---- The end

void Connection::close(const std::string& cause) {
  fail(cause);
  stream_->closeAfterFlush(cause);
}

void Connection::fail(const std::string& cause) {
  std::vector<PendingCall> lost;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::Closed) return;
    state_ = State::Closed;
    cause_ = cause;
    lost = pending_.takeAll();
  }
  for (const PendingCall& pending : lost)
    pending.promise.setError("the connection to " + peerName() + " was lost: " + cause,
                             FutureException::State::ConnectionLost);
  relay_->end();
  objects_.end();
}

void Connection::onClosed(const std::string& cause) {
  fail(cause);
  handshakeTimer_.reset();
  std::string reason;
  {
    const std::lock_guard lock(mutex_);
    reason = cause_;
  }
  const Events events = std::move(events_);
  events_ = {};
  if (events.closed) events.closed(shared_from_this(), reason);
}

// ---- Frames of the peer

void Connection::onInput(std::size_t count) {
  reader_.fill(count);
  wire::Frame frame;
  while (reader_.next(frame)) {
    onFrame(frame);
    if (stream_->hasLostTurn()) return;
  }
  // Whoever closed it meanwhile may have output under way that is to leave first.
  if (reader_.error().empty() || hasEnded()) return;
  GV_LOG(log::Level::Verbose, category, "onInput",
         "closing the connection of " + peerName() + ": " + reader_.error());
  fail(reader_.error());
  stream_->close(reader_.error());
}

void Connection::onFrame(wire::Frame& frame) {
  State state;
  {
    const std::lock_guard lock(mutex_);
    state = state_;
  }
  if (state == State::Closed) return reader_.stop("the connection has ended");
  if (state == State::Handshaking) return onHandshakeFrame(frame);
  switch (frame.header.type) {
    case wire::FrameType::Reply:
    case wire::FrameType::Error: {
      const net::Readers::ForeignCode callbacks;
      return onReply(frame);
    }
    case wire::FrameType::Call:
    case wire::FrameType::Post:
      return onCall(frame);
    case wire::FrameType::Event:
      return onEvent(frame);
    default:
      reader_.stop("the peer sent a handshake frame after the handshake");
  }
}

void Connection::onHandshakeFrame(const wire::Frame& frame) {
  HandshakeStep step = stepHandshake(role_, own_, limits_, frame);
  if (step.answer) send(*step.answer);
  if (!step.peer) {
    reader_.stop(step.refusal);
    return close(step.refusal);
  }
  peer_ = std::move(*step.peer);
  becomeOpen();
}

void Connection::becomeOpen() {
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Handshaking) return;
    state_ = State::Open;
  }
  handshakeTimer_.reset();
  reader_.setLimit(limits_.payload);
  const auto opened = std::move(events_.opened);
  if (opened) opened(shared_from_this());
}

void Connection::onReply(const wire::Frame& frame) {
  ObjectExchange::Receiving receiving(objects_, frame.bytes());
  const auto pending = takePending(frame.header.messageId);
  if (!pending) {
    GV_LOG(log::Level::Verbose, category, "onReply",
           "ignoring a reply of " + peerName() + " to no pending call");
    return;
  }
  AnyReference result;
  try {
    if (frame.header.type == wire::FrameType::Error) {
      std::string text;
      wire::readValue(frame.bytes(), AnyReference::from(text), limits_);
      return pending->promise.setError(std::move(text));
    }
    auto value = std::make_shared<AnyValue>(AnyValue::makeDefault(pending->returnSignature));
    const AnyReference target = value->asReference();
    wire::readValue(frame.bytes(), target, limits_, &receiving);
    receiving.wasRead();
    result = AnyReference(target.type(), target.pointer(), std::move(value));
  } catch (const std::exception& error) {
    return pending->promise.setError("the reply of " + peerName() +
                                     " cannot be read: " + error.what());
  }
  pending->promise.setValue(result);
}

// ---- Signals of the peer's objects

void Connection::onEvent(const wire::Frame& frame) {
  ObjectExchange::Receiving receiving(objects_, frame.bytes());
  const auto target = eventTargets_.find(frame.header.messageId);
  if (!target) return;  // it crossed the end of its subscription
  if (budget_->bytes >= limits_.acceptedBytes)
    return reader_.stop("its events come faster than they are handled");
  try {
    const auto event = releasedElsewhere(ReceivedEvent{
        std::make_unique<BudgetShare>(budget_, 0, wire::frameHeaderSize + frame.payload.size()),
        readArgumentList(frame.bytes(), target->source->signature(), limits_, receiving)});
    receiving.wasRead();
    GenericFunctionParameters values;
    for (const AnyReference& value : event->values)
      values.emplace_back(value.type(), value.pointer(), event);
    target->object->metaPost(target->object, target->signal, values);
  } catch (const std::exception& error) {
    GV_LOG(log::Level::Warning, category, "onEvent",
           "dropping an emission of the signal '" + target->source->name() + "' of " + peerName() +
               ": " + error.what());
  }
}

// ---- Calls of the peer

void Connection::onCall(wire::Frame& frame) {
  if (isPostOf(releaseId, frame.header)) return objects_.onRelease(frame);
  const bool isHere = net::Readers::mayRunForeignCode();
  if (!isHere) stream_->expectUnasked();
  if (isFrameworks(frame.header)) return serve(frame, MetaCallType::Direct);
  const auto callType = static_cast<MetaCallType>(frame.header.callType);
  if (isHere && callType != MetaCallType::Queued && getEventLoop()->hasRoom())
    serve(frame, callType);
  else
    serveOnEventLoop(frame);
}

/// Looks up, and decodes what may name objects, in the order of the frames: what follows may give
/// back the object that is called here, or one among the arguments.
void Connection::serveOnEventLoop(wire::Frame& frame) {
  const wire::FrameHeader header = frame.header;
  const auto call = releasedElsewhere(AcceptedCall());
  try {
    if (budget_->calls >= limits_.acceptedCalls || budget_->bytes >= limits_.acceptedBytes) {
      objects_.giveBack(frame.bytes());
      throw std::runtime_error("too many calls of this connection are under way");
    }
    call->share = std::make_unique<BudgetShare>(budget_, 1, frame.payload.size());
    call->target = findTarget(frame);
    if (mayNameObjects(call->target.method->parametersSignature()))
      call->arguments = readArguments(frame, call->target);
  } catch (const std::exception& error) {
    return replyError(header, error.what());
  } catch (...) {
    return replyError(header, "unknown exception");
  }
  call->frame = std::move(frame);
  EventLoop* loop = getEventLoop();
  const auto refuse = [self = shared_from_this(), call, loop] {
    self->replyError(call->frame.header, loop->refusalText());
  };
  const auto run = [self = shared_from_this(), call] { self->serveAccepted(*call); };
  if (!loop->tryPost(run, refuse)) refuse();
}

void Connection::serveAccepted(const AcceptedCall& call) {
  const wire::FrameHeader& header = call.frame.header;
  const auto callType = static_cast<MetaCallType>(header.callType);
  try {
    // A service that was withdrawn meanwhile starts no body; an object that was given back does.
    if (header.service != 0 && !objects_.find(addressOf(header)))
      return replyError(header, noService(header.service));
    callMethod(header, call.target,
               call.arguments ? *call.arguments : readArguments(call.frame, call.target),
               callType == MetaCallType::Queued ? MetaCallType::Direct : callType);
  } catch (const std::exception& error) {
    replyError(header, error.what());
  } catch (...) {
    replyError(header, "unknown exception");
  }
}

void Connection::serve(const wire::Frame& frame, MetaCallType callType) {
  const wire::FrameHeader& header = frame.header;
  // Outlives the object: its destructor is foreign, too.
  std::optional<net::Readers::ForeignCode> foreign;
  try {
    const CallTarget target = findTarget(frame);
    // Calls of a single-threaded object are only put in its queue: in the order of their frames. So
    // are arguments read that may name objects: what follows may give them back.
    const bool isQueued = isFrameworks(header) || !target.object || isSingleThreaded(target.object);
    if (!isQueued && !mayNameObjects(target.method->parametersSignature())) foreign.emplace();
    const auto arguments = readArguments(frame, target);
    if (!isQueued && !foreign) foreign.emplace();
    callMethod(header, target, arguments, callType);
    if (!foreign) foreign.emplace();
  } catch (const std::exception& error) {
    replyError(header, error.what());
  } catch (...) {
    replyError(header, "unknown exception");
  }
}

CallTarget Connection::findTarget(const wire::Frame& frame) {
  const wire::FrameHeader& header = frame.header;
  if (isPostOf(unsubscribeId, header)) return {{}, &unsubscribeMethod()};
  CallTarget target{objects_.find(addressOf(header)), nullptr};
  if (target.object)
    target.method = header.member == subscribeId && header.type == wire::FrameType::Call
                        ? &subscribeMethod()
                        : target.object.metaObject().method(header.member);
  if (target.method) return target;
  objects_.giveBack(frame.bytes());
  throw std::runtime_error(target.object
                               ? "the object has no method with id " + std::to_string(header.member)
                               : noObject(addressOf(header)));
}

GenericFunctionParameters Connection::readArguments(const wire::Frame& frame,
                                                    const CallTarget& target) {
  ObjectExchange::Receiving receiving(objects_, frame.bytes());
  auto arguments =
      target.object
          ? readArgumentList(frame.bytes(), target.object, *target.method, limits_, receiving)
          : readArgumentList(frame.bytes(), target.method->parametersSignature(), limits_,
                             receiving);
  receiving.wasRead();
  return arguments;
}

void Connection::callMethod(const wire::FrameHeader& header, const CallTarget& target,
                            const GenericFunctionParameters& arguments, MetaCallType callType) {
  const Future<AnyReference> result = startMethod(header, target, arguments, callType);
  if (header.type == wire::FrameType::Post) return;
  replyWhenSettled(header, target.method->returnSignature().toString(), result);
}

Future<AnyReference> Connection::startMethod(const wire::FrameHeader& header,
                                             const CallTarget& target,
                                             const GenericFunctionParameters& arguments,
                                             MetaCallType callType) {
  if (target.method == &unsubscribeMethod()) {
    relay_->unsubscribe(arguments[0].to<std::uint64_t>());
    return makeReadyFuture(AnyReference::ofVoid());
  }
  if (target.method == &subscribeMethod())
    return relay_->subscribe(shared_from_this(), addressOf(header), target.object,
                             arguments[0].to<unsigned>(), arguments[1].to<std::uint64_t>());
  CallContext context{.callId = header.messageId, .traceId = header.traceId};
  if (isDirectorys(header)) context.caller = this;
  const CallContextScope scope(context);
  const CallGate gate{host_, header.service, &checkService};
  std::optional<CallGateScope> gated;
  if (header.service != 0) gated.emplace(gate);
  return target.object.metaCall(header.member, arguments, callType);
}

void Connection::replyWhenSettled(const wire::FrameHeader& call, const std::string& returnSignature,
                                  const Future<AnyReference>& result) {
  const auto isPlain = [](const AnyReference& value) {
    return !value.isValid() || value.type()->kind != TypeKind::Future;
  };
  if (result.isFinished() && result.hasValue(0) && isPlain(result.value(0)))
    return reply(call, returnSignature, result.value(0));
  Promise<AnyReference> flattened(FutureCallbackType::Sync);
  flattened.future().connect(
      [self = shared_from_this(), call, returnSignature](const Future<AnyReference>& settled) {
        try {
          self->reply(call, returnSignature, settled.value());
        } catch (const std::exception& error) {
          self->replyError(call, error.what());
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

void Connection::reply(const wire::FrameHeader& call, const std::string& returnSignature,
                       const AnyReference& result) {
  ObjectExchange::Sending sending(objects_);
  wire::Message message(&sending);
  try {
    wire::writeValue(message, result, returnSignature);
    checkSize(message, "the result takes ");
  } catch (const std::exception& error) {
    sending.takeBack();  // before the caller knows, and may ask for as much again
    return replyError(call, error.what());
  } catch (...) {
    return replyError(call, "unknown exception");
  }
  wire::FrameHeader header;
  header.type = wire::FrameType::Reply;
  header.messageId = call.messageId;
  if (stream_->send(message.finish(header))) sending.wasSent();
}

void Connection::replyError(const wire::FrameHeader& call, const std::string& text) {
  if (call.type == wire::FrameType::Post) {
    GV_LOG(log::Level::Warning, category, "post",
           "a post of " + peerName() + " to service " + std::to_string(call.service) +
               " was dropped: " + shortened(text));
    return;
  }
  const std::string sent = shortened(text);
  wire::Message message;
  wire::writeValue(message, AnyReference::from(sent), "s");
  wire::FrameHeader header;
  header.type = wire::FrameType::Error;
  header.messageId = call.messageId;
  stream_->send(message.finish(header));
}

}  // namespace gv::rpc
