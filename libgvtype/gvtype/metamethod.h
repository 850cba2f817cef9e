#pragma once

#include <string>
#include <vector>

#include <gvtype/api.h>
#include <gvtype/signature.h>

namespace gv {

/// What a caller can know of one parameter.
class MetaMethodParameter {
 public:
  MetaMethodParameter(std::string name, std::string description)
      : name_(std::move(name)), description_(std::move(description)) {}
  const std::string& name() const { return name_; }
  const std::string& description() const { return description_; }

 private:
  std::string name_;
  std::string description_;
};

/// The description of one method of an object. A value; made by a MetaMethodBuilder.
class GVTYPE_API MetaMethod {
 public:
  /// The id by which the method is called, unique within its object.
  unsigned uid() const { return uid_; }
  const std::string& name() const { return name_; }
  /// The name with the parameters' signature: "greet(s)".
  std::string toString() const { return name_ + parametersSignature_.toString(); }
  const std::string& description() const { return description_; }
  const std::string& returnDescription() const { return returnDescription_; }
  const Signature& returnSignature() const { return returnSignature_; }
  /// The parameters as a tuple, "(si)".
  const Signature& parametersSignature() const { return parametersSignature_; }
  const std::vector<MetaMethodParameter>& parameters() const { return parameters_; }

 private:
  friend class MetaMethodBuilder;

  unsigned uid_ = 0;
  std::string name_;
  std::string description_;
  std::string returnDescription_;
  Signature returnSignature_;
  Signature parametersSignature_;
  std::vector<MetaMethodParameter> parameters_;
};

/// Collects the description of a method. Signatures default to "V" and "()".
class GVTYPE_API MetaMethodBuilder {
 public:
  MetaMethodBuilder();

  void setUid(unsigned uid) { method_.uid_ = uid; }
  void setName(std::string name) { method_.name_ = std::move(name); }
  void setDescription(std::string text) { method_.description_ = std::move(text); }
  void setReturnDescription(std::string text) { method_.returnDescription_ = std::move(text); }
  void appendParameter(std::string name, std::string description);
  void setReturnSignature(Signature signature) { method_.returnSignature_ = std::move(signature); }
  void setParametersSignature(Signature signature) {
    method_.parametersSignature_ = std::move(signature);
  }

  const MetaMethod& metaMethod() const { return method_; }

 private:
  MetaMethod method_;
};

/// Whether a text may name a method or a service: 1 to 255 bytes, no control characters, no `/`, no
/// `(`, not starting with a blank.
GVTYPE_API bool isValidName(const std::string& name);

}  // namespace gv
