#include <gvtype/metaobjectdescription.h>

#include <limits>
#include <stdexcept>

#include "membercheck.h"

namespace gv {
namespace {

/// Counts what a description holds, against hostile ones.
class Budget {
 public:
  /// Throws std::runtime_error for an id or name out of bounds, or when there is too much.
  void take(unsigned uid, const std::string& name, const std::string& signature) {
    constexpr std::size_t mostCodes = 1'000'000;
    if (uid > std::numeric_limits<int>::max())
      throw std::runtime_error("the description of an object has a member of id " +
                               std::to_string(uid) + ", which is too high");
    if (!isValidName(name))
      throw std::runtime_error("the description of an object names a member outside the grammar");
    const bool isOwn = uid >= MetaObject::firstOwnId;
    if (++(isOwn ? own_ : frameworks_) >
        (isOwn ? MetaObject::mostOwnMembers : MetaObject::firstOwnId))
      throw std::runtime_error("the description of an object has more than " +
                               std::to_string(MetaObject::mostOwnMembers) + " members");
    codes_ += signature.size();
    if (codes_ > mostCodes)
      throw std::runtime_error("the description of an object has too many parameters");
  }

 private:
  std::size_t own_ = 0;
  std::size_t frameworks_ = 0;
  std::size_t codes_ = 0;
};

MetaMethod makeMethod(const MetaMethodDescription& description, Budget& budget) {
  const auto& [uid, name, parametersSignature, returnSignature, text, parameters, returnText] =
      description;
  budget.take(uid, name, parametersSignature);
  checkParameters(name, parametersSignature);
  checkType(name, returnSignature);
  MetaMethodBuilder builder;
  builder.setUid(uid);
  builder.setName(name);
  builder.setParametersSignature(parametersSignature);
  builder.setReturnSignature(returnSignature);
  builder.setDescription(text);
  for (const auto& [parameter, parameterText] : parameters)
    builder.appendParameter(parameter, parameterText);
  builder.setReturnDescription(returnText);
  return builder.metaMethod();
}

MetaMethodDescription describeMethod(const MetaMethod& method) {
  std::vector<std::pair<std::string, std::string>> parameters;
  for (const MetaMethodParameter& parameter : method.parameters())
    parameters.emplace_back(parameter.name(), parameter.description());
  return {method.uid(),
          method.name(),
          method.parametersSignature().toString(),
          method.returnSignature().toString(),
          method.description(),
          std::move(parameters),
          method.returnDescription()};
}

template <class Member>
MetaMemberDescription describeMember(const Member& member) {
  return {member.uid(), member.name(), member.signature().toString()};
}

}  // namespace

MetaObjectDescription describeMetaObject(const MetaObject& metaObject) {
  MetaObjectDescription description;
  auto& [text, methods, signals, properties] = description;
  text = metaObject.description();
  for (const auto& [uid, method] : metaObject.methodMap())
    methods.push_back(describeMethod(method));
  for (const auto& [uid, signal] : metaObject.signalMap())
    if (!metaObject.propertyMap().contains(uid)) signals.push_back(describeMember(signal));
  for (const auto& [uid, property] : metaObject.propertyMap())
    properties.push_back(describeMember(property));
  return description;
}

MetaObject makeMetaObject(const MetaObjectDescription& description) {
  const auto& [text, methods, signals, properties] = description;
  Budget budget;
  std::vector<MetaMethod> madeMethods;
  for (const MetaMethodDescription& method : methods)
    madeMethods.push_back(makeMethod(method, budget));
  std::vector<MetaSignal> madeSignals;
  for (const auto& [uid, name, signature] : signals) {
    budget.take(uid, name, signature);
    checkParameters(name, signature);
    madeSignals.emplace_back(uid, name, signature);
  }
  std::vector<MetaProperty> madeProperties;
  for (const auto& [uid, name, signature] : properties) {
    budget.take(uid, name, signature);
    checkType(name, signature);
    madeProperties.emplace_back(uid, name, signature);
  }
  return MetaObject(std::move(madeMethods), std::move(madeSignals), std::move(madeProperties),
                    text);
}

}  // namespace gv
