#include <gvtype/metaobjectdescription.h>

#include <stdexcept>

namespace gv {

MetaObjectDescription describeMetaObject(const MetaObject& metaObject) {
  std::vector<MetaMethodDescription> methods;
  for (const auto& [uid, method] : metaObject.methodMap()) {
    std::vector<std::pair<std::string, std::string>> parameters;
    for (const MetaMethodParameter& parameter : method.parameters())
      parameters.emplace_back(parameter.name(), parameter.description());
    methods.emplace_back(uid, method.name(), method.parametersSignature().toString(),
                         method.returnSignature().toString(), method.description(),
                         std::move(parameters), method.returnDescription());
  }
  return {metaObject.description(), std::move(methods)};
}

MetaObject makeMetaObject(const MetaObjectDescription& description) {
  constexpr std::size_t mostMethods = 10'000;
  constexpr std::size_t mostParameters = 1'000'000;
  if (std::get<1>(description).size() > mostMethods)
    throw std::runtime_error("the description of an object has more than " +
                             std::to_string(mostMethods) + " methods");
  std::size_t parameterCodes = 0;
  std::vector<MetaMethod> methods;
  for (const auto& [uid, name, parametersSignature, returnSignature, text, parameters, returnText] :
       std::get<1>(description)) {
    if (!isValidName(name))
      throw std::runtime_error("the description of an object names a method outside the grammar");
    if (!parametersSignature.starts_with('('))
      throw std::runtime_error("the parameters of method '" + name + "' are no tuple");
    parameterCodes += parametersSignature.size();
    if (parameterCodes > mostParameters)
      throw std::runtime_error("the description of an object has too many parameters");
    MetaMethodBuilder builder;
    builder.setUid(uid);
    builder.setName(name);
    builder.setParametersSignature(parametersSignature);
    builder.setReturnSignature(returnSignature);
    builder.setDescription(text);
    for (const auto& [parameter, parameterText] : parameters)
      builder.appendParameter(parameter, parameterText);
    builder.setReturnDescription(returnText);
    methods.push_back(builder.metaMethod());
  }
  return MetaObject(std::move(methods), std::get<0>(description));
}

}  // namespace gv
