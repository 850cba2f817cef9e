#include "membertable.h"

#include <stdexcept>
#include <utility>

namespace gv {

Method::Method(MetaMethod described, AnyFunction body, MetaCallType type)
    : description(std::move(described)),
      function(std::move(body)),
      callType(type),
      isDirect(type != MetaCallType::Queued && function &&
               function.returnType()->kind != TypeKind::Future) {}

unsigned MemberTable::takeId() {
  const std::lock_guard lock(mutex_);
  return takeIdLocked();
}

unsigned MemberTable::takeIdLocked() {
  if (nextId_ - MetaObject::firstOwnId == MetaObject::mostOwnMembers)
    throw std::runtime_error("an object cannot have more than " +
                             std::to_string(MetaObject::mostOwnMembers) + " members");
  return nextId_++;
}

unsigned MemberTable::addMethod(MetaMethodBuilder method, AnyFunction function,
                                MetaCallType callType) {
  const std::lock_guard lock(mutex_);
  const unsigned uid = takeIdLocked();
  method.setUid(uid);
  methods_.push_back(
      std::make_unique<const Method>(method.metaMethod(), std::move(function), callType));
  setChangedLocked();
  return uid;
}

void MemberTable::addSignal(MetaSignal signal) {
  const std::lock_guard lock(mutex_);
  signals_.push_back(std::move(signal));
  setChangedLocked();
}

void MemberTable::addProperty(MetaProperty property) {
  const std::lock_guard lock(mutex_);
  properties_.push_back(std::move(property));
  setChangedLocked();
}

void MemberTable::setDescription(const std::string& text) {
  const std::lock_guard lock(mutex_);
  description_ = text;
  setChangedLocked();
}

void MemberTable::replace(const MetaObject& metaObject) {
  const std::lock_guard lock(mutex_);
  publishLocked({{}, {}, metaObject});
}

const Members& MemberTable::collect() {
  const std::lock_guard lock(mutex_);
  if (const Members* newest = newest_.load(std::memory_order_relaxed)) return *newest;
  if (builtins_.empty()) builtins_ = makeBuiltins_();
  Members members;
  std::vector<MetaMethod> descriptions;
  descriptions.reserve(builtins_.size() + methods_.size());
  for (const Method& method : builtins_) {
    descriptions.push_back(method.description);
    members.builtin.push_back(&method);
  }
  for (const auto& method : methods_) {
    descriptions.push_back(method->description);
    members.own.resize(method->description.uid() - MetaObject::firstOwnId + 1);
    members.own.back() = method.get();
  }
  members.metaObject = MetaObject(std::move(descriptions), signals_, properties_, description_);
  publishLocked(std::move(members));
  return *published_.back();
}

void MemberTable::publishLocked(Members members) {
  published_.push_back(std::make_unique<const Members>(std::move(members)));
  newest_.store(published_.back().get(), std::memory_order_release);
}

}  // namespace gv
