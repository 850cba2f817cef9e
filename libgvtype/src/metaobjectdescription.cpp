#include <gvtype/metaobjectdescription.h>

#include <stdexcept>

namespace gv {
namespace {

/// Counts what a description holds, against hostile ones.
class Budget {
 public:
  /// Throws std::runtime_error for a name outside the grammar, or when there is too much.
  void take(const std::string& name, const std::string& signature) {
    constexpr std::size_t mostMembers = 10'000;
    constexpr std::size_t mostCodes = 1'000'000;
    if (!isValidName(name))
      throw std::runtime_error("the description of an object names a member outside the grammar");
    if (++members_ > mostMembers)
      throw std::runtime_error("the description of an object has more than " +
                               std::to_string(mostMembers) + " members");
    codes_ += signature.size();
    if (codes_ > mostCodes)
      throw std::runtime_error("the description of an object has too many parameters");
  }

 private:
  std::size_t members_ = 0;
  std::size_t codes_ = 0;
};

void checkTuple(const std::string& name, const std::string& signature) {
  if (!signature.starts_with('('))
    throw std::runtime_error("the parameters of '" + name + "' are no tuple");
}

MetaMethod makeMethod(const MetaMethodDescription& description, Budget& budget) {
  const auto& [uid, name, parametersSignature, returnSignature, text, parameters, returnText] =
      description;
  budget.take(name, parametersSignature);
  checkTuple(name, parametersSignature);
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
    budget.take(name, signature);
    checkTuple(name, signature);
    madeSignals.emplace_back(uid, name, signature);
  }
  std::vector<MetaProperty> madeProperties;
  for (const auto& [uid, name, signature] : properties) {
    budget.take(name, signature);
    if (signature.empty()) throw std::runtime_error("the property '" + name + "' has no type");
    madeProperties.emplace_back(uid, name, signature);
  }
  return MetaObject(std::move(madeMethods), std::move(madeSignals), std::move(madeProperties),
                    text);
}

}  // namespace gv
