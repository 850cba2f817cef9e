#include <gvtype/metaobject.h>

#include <functional>
#include <stdexcept>

#include <boost/unordered_map.hpp>

#include <gvtype/conversion.h>

#include "nearestnames.h"

namespace gv {
namespace {

/// A method as overload resolution sees it.
struct Candidate {
  const MetaMethod* method;
  std::vector<std::string_view> parameters;
  std::string codes;  // of the parameters, where each has one letter and there is no tail
  bool isSimple;      // `codes` tells all
  bool hasTail;

  bool isExactly(std::span<const AnyReference> arguments) const {
    if (!isSimple || arguments.size() != codes.size()) return false;
    for (std::size_t i = 0; i < codes.size(); ++i)
      if (!arguments[i].isValid() || arguments[i].type()->code != codes[i]) return false;
    return true;
  }
};

Candidate makeCandidate(const MetaMethod& method) {
  Candidate candidate{
      &method, signatureMembers(method.parametersSignature().toString()), {}, true, false};
  if (!candidate.parameters.empty() && candidate.parameters.back() == "*") {
    candidate.parameters.pop_back();
    candidate.hasTail = true;
    candidate.isSimple = false;
  }
  for (const std::string_view parameter : candidate.parameters) {
    candidate.codes += parameter;
    if (parameter.size() != 1) candidate.isSimple = false;
  }
  return candidate;
}

bool acceptsCount(const Candidate& candidate, std::size_t count) {
  return count == candidate.parameters.size() ||
         (candidate.hasTail && count > candidate.parameters.size());
}

/// The sum of what the arguments cost; negative when one does not convert. A tail fits anything and
/// therefore worst.
int costOf(const Candidate& candidate, std::span<const AnyReference> arguments,
           bool* looksAtValue) {
  constexpr int tailCost = 20;
  int total = candidate.hasTail ? tailCost : 0;
  for (std::size_t i = 0; i < candidate.parameters.size(); ++i) {
    const int cost = conversionCost(arguments[i], candidate.parameters[i], looksAtValue);
    if (cost < 0) return cost;
    total += cost;
  }
  return total;
}

/// The method whose parameters the arguments fit best; negative where several do equally or none.
int cheapest(std::span<const Candidate> candidates, std::span<const AnyReference> arguments,
             bool* canCache) {
  const Candidate* best = nullptr;
  int bestCost = 0;
  bool isAmbiguous = false;
  bool looksAtValue = false;
  for (const Candidate& candidate : candidates) {
    if (!acceptsCount(candidate, arguments.size())) continue;
    const int cost = costOf(candidate, arguments, &looksAtValue);
    if (cost < 0 || (best && cost > bestCost)) continue;
    if (best && cost == bestCost) {
      // The same name and parameters again: the lowest id stands for all of them.
      if (candidate.parameters != best->parameters) isAmbiguous = true;
      continue;
    }
    best = &candidate;
    bestCost = cost;
    isAmbiguous = false;
  }
  if (canCache) *canCache = !looksAtValue;
  return best && !isAmbiguous ? static_cast<int>(best->method->uid()) : -1;
}

std::string argumentsText(std::span<const AnyReference> arguments) {
  std::string text = "(";
  for (const AnyReference& argument : arguments) text += argument.signature();
  return text + ")";
}

struct NameHash {
  std::size_t operator()(std::string_view name) const noexcept {
    return std::hash<std::string_view>()(name);
  }
};

template <class Member>
void addMembers(std::map<unsigned, Member>& map, std::vector<Member> members) {
  for (Member& member : members) {
    const unsigned uid = member.uid();
    if (!map.emplace(uid, std::move(member)).second)
      throw std::runtime_error("two members of an object have the id " + std::to_string(uid));
  }
}

/// Of several members of a name the one with the lowest id. Boost's map divides by no prime.
template <class Member>
using ByName = boost::unordered_map<std::string_view, const Member*, NameHash>;

template <class Member>
ByName<Member> indexByName(const std::map<unsigned, Member>& members) {
  ByName<Member> index;
  for (const auto& [uid, member] : members) index.emplace(member.name(), &member);
  return index;
}

template <class Member>
const Member& memberNamed(const ByName<Member>& index, const std::map<unsigned, Member>& members,
                          const char* kind, const std::string& name) {
  if (const auto found = index.find(name); found != index.end()) return *found->second;
  throw std::runtime_error("unknown " + std::string(kind) + " '" + name + "'" +
                           suggestNearest(name, members));
}

}  // namespace

struct MetaObject::Content {
  std::map<unsigned, MetaMethod> methods;
  std::map<unsigned, MetaSignal> signals;
  std::map<unsigned, MetaProperty> properties;
  boost::unordered_map<std::string_view, std::vector<Candidate>, NameHash> byName;
  ByName<MetaSignal> signalsByName;
  ByName<MetaProperty> propertiesByName;
  std::string description;

  const std::vector<Candidate>& named(std::string_view name) const {
    static const std::vector<Candidate> none;
    const auto found = byName.find(name);
    return found == byName.end() ? none : found->second;
  }

  void addCandidate(const MetaMethod& method) {
    std::vector<Candidate>& candidates = byName[method.name()];
    if (method.uid() >= firstOwnId && !candidates.empty() &&
        candidates.front().method->uid() <= maxBuiltinId)
      candidates.clear();
    candidates.push_back(makeCandidate(method));
  }

  void checkIds() const {
    for (const auto& [uid, signal] : signals)
      if (methods.contains(uid))
        throw std::runtime_error("two members of an object have the id " + std::to_string(uid));
  }
};

MetaObject::MetaObject() : MetaObject({}, {}, {}, {}) {}

MetaObject::MetaObject(std::vector<MetaMethod> methods, std::vector<MetaSignal> signals,
                       std::vector<MetaProperty> properties, std::string description) {
  auto content = std::make_shared<Content>();
  content->description = std::move(description);
  for (const MetaProperty& property : properties)
    signals.emplace_back(property.uid(), property.name(),
                         "(" + property.signature().toString() + ")");
  addMembers(content->methods, std::move(methods));
  addMembers(content->signals, std::move(signals));
  addMembers(content->properties, std::move(properties));
  content->checkIds();
  for (const auto& [uid, method] : content->methods) content->addCandidate(method);
  content->signalsByName = indexByName(content->signals);
  content->propertiesByName = indexByName(content->properties);
  content_ = std::move(content);
}

const std::map<unsigned, MetaMethod>& MetaObject::methodMap() const {
  return content_->methods;
}

const std::map<unsigned, MetaSignal>& MetaObject::signalMap() const {
  return content_->signals;
}

const std::map<unsigned, MetaProperty>& MetaObject::propertyMap() const {
  return content_->properties;
}

const MetaSignal& MetaObject::signalNamed(const std::string& name) const {
  return memberNamed(content_->signalsByName, content_->signals, "signal", name);
}

const MetaProperty& MetaObject::propertyNamed(const std::string& name) const {
  return memberNamed(content_->propertiesByName, content_->properties, "property", name);
}

const std::string& MetaObject::description() const {
  return content_->description;
}

const MetaMethod* MetaObject::method(unsigned id) const {
  const auto found = content_->methods.find(id);
  return found == content_->methods.end() ? nullptr : &found->second;
}

std::vector<MetaMethod> MetaObject::findMethod(const std::string& name) const {
  std::vector<MetaMethod> methods;
  for (const Candidate& candidate : content_->named(name)) methods.push_back(*candidate.method);
  return methods;
}

std::vector<MetaMethod> MetaObject::findCompatibleMethod(const std::string& nameOrSignature) const {
  const auto [name, parameters] = signatureSplit(nameOrSignature);
  std::vector<MetaMethod> methods = findMethod(name);
  if (!parameters.empty())
    std::erase_if(methods, [&wanted = parameters](const MetaMethod& method) {
      return method.parametersSignature().toString() != wanted;
    });
  return methods;
}

int MetaObject::findMethod(const std::string& nameOrSignature,
                           const GenericFunctionParameters& arguments, bool* canCache) const {
  return resolve(nameOrSignature, arguments, canCache);
}

int MetaObject::resolve(std::string_view nameOrSignature, std::span<const AnyReference> arguments,
                        bool* canCache) const {
  if (canCache) *canCache = true;
  const std::size_t open = nameOrSignature.find('(');
  const auto& candidates = content_->named(nameOrSignature.substr(0, open));
  if (open == std::string_view::npos) {
    for (const Candidate& candidate : candidates)
      if (candidate.isExactly(arguments)) return static_cast<int>(candidate.method->uid());
    return cheapest(candidates, arguments, canCache);
  }
  for (const Candidate& candidate : candidates) {
    if (candidate.method->parametersSignature().toString() != nameOrSignature.substr(open))
      continue;
    if (candidate.isExactly(arguments)) return static_cast<int>(candidate.method->uid());
    return cheapest({&candidate, 1}, arguments, canCache);
  }
  return -1;
}

std::string MetaObject::explainNoMatch(const std::string& nameOrSignature,
                                       std::span<const AnyReference> arguments) const {
  const auto [name, parameters] = signatureSplit(nameOrSignature);
  const auto& candidates = content_->named(name);
  const std::string asked = parameters.empty() ? name + argumentsText(arguments) : nameOrSignature;
  if (candidates.empty())
    return "unknown method '" + asked + "': there is no method of that name" +
           suggestNearest(name, content_->methods);
  std::string text = "no single method matches '" + asked + "'; candidate(s):";
  for (const Candidate& candidate : candidates) text += " " + candidate.method->toString();
  if (candidates.size() > 1 || !acceptsCount(candidates[0], arguments.size())) return text;
  bool looksAtValue = false;
  for (std::size_t i = 0; i < candidates[0].parameters.size(); ++i) {
    if (conversionCost(arguments[i], candidates[0].parameters[i], &looksAtValue) >= 0) continue;
    return text + "; argument " + std::to_string(i + 1) + " cannot convert from " +
           (arguments[i].isValid() ? arguments[i].signature() : "nothing") + " to " +
           std::string(candidates[0].parameters[i]);
  }
  return text;
}

}  // namespace gv
