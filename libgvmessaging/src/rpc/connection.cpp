#include "src/rpc/connection.h"

#include <atomic>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gvtype/callgate.h>
#include <gvtype/dynamicobject.h>

#include "src/net/readers.h"
#include "src/rpc/argumentlist.h"
#include "src/rpc/callcontext.h"
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

/// What runs no user code, so that the network's thread serves it: setting a property would run
/// the handlers of its signal.
bool isFrameworks(const wire::FrameHeader& header) {
  return isDirectorys(header) || header.member == static_cast<unsigned>(BuiltinMethod::MetaObject);
}

/// One call of the peer's that was read and has not ended, as its connection counts it.
class AcceptedCall {
 public:
  AcceptedCall(wire::Frame frame, std::shared_ptr<CallBudget> budget)
      : frame_(std::move(frame)), budget_(std::move(budget)) {
    budget_->calls += 1;
    budget_->bytes += frame_.payload.size();
  }
  ~AcceptedCall() {
    budget_->calls -= 1;
    budget_->bytes -= frame_.payload.size();
  }
  AcceptedCall(const AcceptedCall&) = delete;
  AcceptedCall& operator=(const AcceptedCall&) = delete;

  const wire::Frame& frame() const { return frame_; }

 private:
  const wire::Frame frame_;
  const std::shared_ptr<CallBudget> budget_;
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
      host_(std::move(host)),
      limits_(limits),
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

Future<AnyReference> Connection::call(unsigned service, const MetaMethod& method,
                                      const GenericFunctionParameters& arguments,
                                      MetaCallType callType) {
  using State_ = FutureException::State;
  wire::Message message;
  try {
    encodeArguments(message, method, arguments);
  } catch (const std::exception& error) {
    return makeFailedFuture<AnyReference>(error.what(), State_::NotSent);
  }
  wire::FrameHeader header = makeHeader(service, method, callType);
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
    if (!stream_->send(message.finish(header)))
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
bool Connection::help(const detail::FutureState& awaited) noexcept {
  try {
    return stream_->readWhile([&awaited] { return awaited.state() == gv::FutureState::Running; });
  } catch (const std::exception& error) {
    close(error.what());
    return false;
  }
}

void Connection::post(unsigned service, const MetaMethod& method,
                      const GenericFunctionParameters& arguments) {
  wire::Message message;
  encodeArguments(message, method, arguments);
  wire::FrameHeader header = makeHeader(service, method, MetaCallType::Queued);
  header.type = wire::FrameType::Post;
  header.messageId = nextCallId();
  if (!stream_->send(message.finish(header)))
    throw std::runtime_error("not sent: the connection to " + peerName() + " has ended");
}

wire::FrameHeader Connection::makeHeader(unsigned service, const MetaMethod& method,
                                         MetaCallType callType) const {
  wire::FrameHeader header;
  header.callType = static_cast<wire::CallType>(callType);
  header.service = service;
  header.member = method.uid();
  header.parentCall = CallContext::current().callId;
  header.traceId = traceIdForNewCall();
  return header;
}

void Connection::encodeArguments(wire::Message& message, const MetaMethod& method,
                                 const GenericFunctionParameters& arguments) const {
  wire::writeArguments(message.bytes(), arguments, method.parametersSignature().toString());
  if (message.payloadSize() > limits_.payload)
    throw std::runtime_error("the arguments of '" + method.toString() + "' take " +
                             std::to_string(message.payloadSize()) +
                             " bytes, more than the limit of " + std::to_string(limits_.payload));
}

void Connection::send(const HandshakeFrame& frame) {
  wire::Message message;
  message.bytes().insert(message.bytes().end(), frame.payload.begin(), frame.payload.end());
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
    wire::readValue(frame.bytes(), target, limits_);
    result = AnyReference(target.type(), target.pointer(), std::move(value));
  } catch (const std::exception& error) {
    return pending->promise.setError("the reply of " + peerName() +
                                     " cannot be read: " + error.what());
  }
  pending->promise.setValue(result);
}

// ---- Calls of the peer

void Connection::onCall(wire::Frame& frame) {
  const bool isHere = net::Readers::mayRunForeignCode();
  if (!isHere) stream_->expectUnasked();
  if (isFrameworks(frame.header)) return serve(frame, MetaCallType::Direct);
  const auto callType = static_cast<MetaCallType>(frame.header.callType);
  if (isHere && callType != MetaCallType::Queued && getEventLoop()->hasRoom())
    serve(frame, callType);
  else
    serveOnEventLoop(frame);
}

void Connection::serveOnEventLoop(wire::Frame& frame) {
  if (budget_->calls >= limits_.acceptedCalls || budget_->bytes >= limits_.acceptedBytes)
    return replyError(frame.header, "too many calls of this connection are under way");
  const auto call = std::make_shared<const AcceptedCall>(std::move(frame), budget_);
  EventLoop* loop = getEventLoop();
  const auto refuse = [self = shared_from_this(), call, loop] {
    self->replyError(call->frame().header, loop->refusalText());
  };
  const auto run = [self = shared_from_this(), call] {
    const auto callType = static_cast<MetaCallType>(call->frame().header.callType);
    self->serve(call->frame(), callType == MetaCallType::Queued ? MetaCallType::Direct : callType);
  };
  if (!loop->tryPost(run, refuse)) refuse();
}

void Connection::serve(const wire::Frame& frame, MetaCallType callType) {
  const wire::FrameHeader& header = frame.header;
  // Outlives the object: its destructor is foreign, too.
  std::optional<net::Readers::ForeignCode> foreign;
  try {
    const auto host = host_.lock();
    const auto object = host ? host->findService(header.service) : Object<Empty>();
    if (!object || header.object != 0) return replyError(header, noService(header.service));
    // Calls of a single-threaded object are only put in its queue: in the order of their frames.
    if (!isFrameworks(header) && !isSingleThreaded(object)) foreign.emplace();
    callMethod(frame, object, callType);
    if (!foreign) foreign.emplace();
  } catch (const std::exception& error) {
    replyError(header, error.what());
  } catch (...) {
    replyError(header, "unknown exception");
  }
}

void Connection::callMethod(const wire::Frame& frame, const Object<Empty>& object,
                            MetaCallType callType) {
  const wire::FrameHeader& header = frame.header;
  const MetaMethod* method = object.metaObject().method(header.member);
  if (!method && header.type == wire::FrameType::Post)
    return replyError(header, "the object has no method with id " + std::to_string(header.member));
  CallContext context{.callId = header.messageId, .traceId = header.traceId};
  if (isDirectorys(header)) context.caller = this;
  const CallContextScope scope(context);
  const GenericFunctionParameters arguments =
      method ? readArgumentList(frame.bytes(), object, *method, limits_)
             : GenericFunctionParameters();
  const CallGate gate{host_, header.service, &checkService};
  const CallGateScope gated(gate);
  const Future<AnyReference> result = object.metaCall(header.member, arguments, callType);
  if (header.type == wire::FrameType::Post) return;
  replyWhenSettled(header, method ? method->returnSignature().toString() : "V", result);
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
  wire::Message message;
  try {
    wire::writeValue(message.bytes(), result, returnSignature);
    if (message.payloadSize() > limits_.payload)
      throw std::runtime_error("the result takes " + std::to_string(message.payloadSize()) +
                               " bytes, more than the limit of " + std::to_string(limits_.payload));
  } catch (const std::exception& error) {
    return replyError(call, error.what());
  } catch (...) {
    return replyError(call, "unknown exception");
  }
  wire::FrameHeader header;
  header.type = wire::FrameType::Reply;
  header.messageId = call.messageId;
  stream_->send(message.finish(header));
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
  wire::writeValue(message.bytes(), AnyReference::from(sent), "s");
  wire::FrameHeader header;
  header.type = wire::FrameType::Error;
  header.messageId = call.messageId;
  stream_->send(message.finish(header));
}

}  // namespace gv::rpc
