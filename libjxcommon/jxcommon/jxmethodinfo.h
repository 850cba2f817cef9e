#pragma once

#include <string>
#include <utility>
#include <vector>

#include <jxcommon/api.h>
#include <jxcommon/fwd.h>
#include <boost/shared_ptr.hpp>

namespace JX {

/// The classic description of a bound method, kept so that code written against it compiles and
/// links. The library never fills one: what a module offers is told by its object's description.
///
/// A value: copies own their texts and lists and share the functor.
struct JXCOMMON_API JXMethodInfo {
  /// One parameter, in call order.
  struct JXParameterInfo {
    std::string name;
    std::string description;
    std::string type;
    std::string signature;
    bool optional = false;
  };

  JXMethodInfo();
  JXMethodInfo(const JXMethodInfo&);
  JXMethodInfo& operator=(const JXMethodInfo&);
  virtual ~JXMethodInfo();

  std::string moduleName;
  std::string methodName;
  std::string methodDescription;
  std::vector<JXParameterInfo> parameters;
  std::string returnDescription;
  std::vector<std::pair<std::string, std::string>> examples;  ///< language and text of each
  boost::shared_ptr<JXFunctorBase> functor;                   ///< the bound callable
  std::string returnName;
  std::string returnType;
  std::string parametersSignature;
  std::string returnSignature;
};

}  // namespace JX
