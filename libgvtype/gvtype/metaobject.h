#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gvtype/genericfunctionparameters.h>
#include <gvtype/metamethod.h>

namespace gv {

/// The description of an object: its methods and its own text. Immutable; copies share one content,
/// so that copying is cheap and any thread may read.
///
/// Ids up to maxBuiltinId belong to the framework's own methods of every object; an object's own
/// methods start at firstOwnId.
class GVTYPE_API MetaObject {
 public:
  static constexpr unsigned maxBuiltinId = 98;
  static constexpr unsigned firstOwnId = 100;

  /// The description of an object without methods.
  MetaObject();
  /// Throws std::runtime_error where two methods share an id.
  MetaObject(std::vector<MetaMethod> methods, std::string description);

  /// All methods by id, ascending.
  const std::map<unsigned, MetaMethod>& methodMap() const;
  const std::string& description() const;

  /// The method of that id, or null. Borrowed from this object.
  const MetaMethod* method(unsigned id) const;

  /// All methods of a name, by ascending id.
  std::vector<MetaMethod> findMethod(const std::string& name) const;

  /// The methods that a call of this name or full signature could mean: of the full signature where
  /// it is one, else all of the name.
  std::vector<MetaMethod> findCompatibleMethod(const std::string& nameOrSignature) const;

  /// The one method that a call with these arguments means, or a negative number when there is none
  /// or several fit equally well. Of methods with the same parameters it is the lowest id.
  /// `*canCache` tells whether the choice depended on the static types of the arguments alone.
  int findMethod(const std::string& nameOrSignature, const GenericFunctionParameters& arguments,
                 bool* canCache = nullptr) const;

  /// Why findMethod found nothing, for the caller of a method: what was asked for and what there
  /// is.
  std::string explainNoMatch(const std::string& nameOrSignature,
                             const GenericFunctionParameters& arguments) const;

 private:
  struct Content;
  std::shared_ptr<const Content> content_;
};

}  // namespace gv
