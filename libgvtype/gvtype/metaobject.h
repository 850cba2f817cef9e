#pragma once

#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gvtype/genericfunctionparameters.h>
#include <gvtype/metamethod.h>
#include <gvtype/metaproperty.h>
#include <gvtype/metasignal.h>

namespace gv {

/// The description of an object: its methods, signals and properties, and its own text. Immutable;
/// copies share one content, so that copying is cheap and any thread may read.
///
/// Ids up to maxBuiltinId belong to the framework's own methods of every object; an object's own
/// members start at firstOwnId. A method of an object hides the framework's own of the same name
/// from look-ups by name.
class GVTYPE_API MetaObject {
 public:
  static constexpr unsigned maxBuiltinId = 98;
  static constexpr unsigned firstOwnId = 100;
  /// How many members an object may have, the framework's own not counted.
  static constexpr unsigned mostOwnMembers = 10'000;

  /// The description of an object without members.
  MetaObject();
  /// Each property brings a signal of its own. Throws std::runtime_error where two members share an
  /// id.
  MetaObject(std::vector<MetaMethod> methods, std::vector<MetaSignal> signals,
             std::vector<MetaProperty> properties, std::string description);

  /// All members of a kind by id, ascending.
  const std::map<unsigned, MetaMethod>& methodMap() const;
  const std::map<unsigned, MetaSignal>& signalMap() const;
  const std::map<unsigned, MetaProperty>& propertyMap() const;
  const std::string& description() const;

  /// The method of that id, or null. Borrowed from this object.
  const MetaMethod* method(unsigned id) const;

  /// The signal or property of a name, of several the one with the lowest id. Borrowed from this
  /// object. Throws std::runtime_error, naming what is nearest, where there is none.
  const MetaSignal& signalNamed(const std::string& name) const;
  const MetaProperty& propertyNamed(const std::string& name) const;

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
  /// The same for arguments that stand anywhere. Allocates nothing where the arguments are exactly
  /// a method's parameters, all of them scalars or strings.
  int resolve(std::string_view nameOrSignature, std::span<const AnyReference> arguments,
              bool* canCache = nullptr) const;

  /// Why findMethod found nothing, for the caller of a method: what was asked for and what there
  /// is, or which names are nearest.
  std::string explainNoMatch(const std::string& nameOrSignature,
                             std::span<const AnyReference> arguments) const;

 private:
  struct Content;
  std::shared_ptr<const Content> content_;
};

}  // namespace gv
