#include <gvtype/metaobject.h>

#include <stdexcept>
#include <string_view>
#include <unordered_map>

#include <gvtype/conversion.h>

namespace gv {
namespace {

/// A method as overload resolution sees it.
struct Candidate {
  const MetaMethod* method;
  std::vector<std::string_view> parameters;
  bool hasTail;
};

Candidate makeCandidate(const MetaMethod& method) {
  Candidate candidate{&method, signatureMembers(method.parametersSignature().toString()), false};
  if (!candidate.parameters.empty() && candidate.parameters.back() == "*") {
    candidate.parameters.pop_back();
    candidate.hasTail = true;
  }
  return candidate;
}

bool acceptsCount(const Candidate& candidate, std::size_t count) {
  return count == candidate.parameters.size() ||
         (candidate.hasTail && count > candidate.parameters.size());
}

/// The sum of what the arguments cost; negative when one does not convert. A tail fits anything and
/// therefore worst.
int costOf(const Candidate& candidate, const GenericFunctionParameters& arguments,
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

std::string argumentsText(const GenericFunctionParameters& arguments) {
  std::string text = "(";
  for (const AnyReference& argument : arguments) text += argument.signature();
  return text + ")";
}

}  // namespace

struct MetaObject::Content {
  std::map<unsigned, MetaMethod> methods;
  std::unordered_map<std::string, std::vector<Candidate>> byName;
  std::string description;

  const std::vector<Candidate>& named(const std::string& name) const {
    static const std::vector<Candidate> none;
    const auto found = byName.find(name);
    return found == byName.end() ? none : found->second;
  }
};

MetaObject::MetaObject() : MetaObject({}, {}) {}

MetaObject::MetaObject(std::vector<MetaMethod> methods, std::string description) {
  auto content = std::make_shared<Content>();
  content->description = std::move(description);
  for (MetaMethod& method : methods) {
    const unsigned uid = method.uid();
    if (!content->methods.emplace(uid, std::move(method)).second)
      throw std::runtime_error("two methods have the id " + std::to_string(uid));
  }
  for (const auto& [uid, method] : content->methods)
    content->byName[method.name()].push_back(makeCandidate(method));
  content_ = std::move(content);
}

const std::map<unsigned, MetaMethod>& MetaObject::methodMap() const {
  return content_->methods;
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
  if (canCache) *canCache = true;
  if (nameOrSignature.find('(') != std::string::npos) {
    const std::vector<MetaMethod> exact = findCompatibleMethod(nameOrSignature);
    return exact.empty() ? -1 : static_cast<int>(exact.front().uid());
  }
  const Candidate* best = nullptr;
  int bestCost = 0;
  bool isAmbiguous = false;
  bool looksAtValue = false;
  for (const Candidate& candidate : content_->named(nameOrSignature)) {
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

std::string MetaObject::explainNoMatch(const std::string& nameOrSignature,
                                       const GenericFunctionParameters& arguments) const {
  const auto [name, parameters] = signatureSplit(nameOrSignature);
  const auto& candidates = content_->named(name);
  const std::string asked = parameters.empty() ? name + argumentsText(arguments) : nameOrSignature;
  if (candidates.empty()) return "unknown method '" + asked + "': there is no method of that name";
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
