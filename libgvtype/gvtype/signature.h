#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gvtype/api.h>

namespace gv {

/// The signature of a type, as a text of type codes:
/// `V` void, `b` bool, `c y n q i u x t` integers (int8, uint8, int16, ... uint64), `f d` floats,
/// `s` string, `r` raw bytes, `v` dynamic, `o` object instance, `aT` list, `a{KV}` map, `mT`
/// optional, `(..)` tuple, `X` what has no signature: a type without description, and a struct
/// within itself. A struct is a tuple with its name and the names of its fields behind it:
/// `(ii)<Point,x,y>`. In a list of parameters the last code may be `*`: any number of any
/// arguments.
class GVTYPE_API Signature {
 public:
  /// How deep types may nest.
  static constexpr int maxDepth = 64;
  /// How long a text may be.
  static constexpr std::size_t maxLength = 4096;

  /// The empty signature: no type.
  Signature() = default;
  /// Exactly one complete type, or the empty text. Throws std::runtime_error naming the position
  /// and the reason where the text is malformed, nests deeper than maxDepth or is longer
  /// than maxLength.
  Signature(std::string text);  // NOLINT: implicit, so that a text can be passed as it is
  Signature(const char* text) : Signature(std::string(text)) {}

  const std::string& toString() const { return text_; }
  bool isEmpty() const { return text_.empty(); }
  bool operator==(const Signature&) const = default;

 private:
  std::string text_;
};

/// Takes "name(params)" apart into the name and "(params)"; the second is empty for a bare name.
GVTYPE_API std::pair<std::string, std::string> signatureSplit(const std::string& nameOrSignature);

/// The text between the angle brackets of a well-formed struct's signature, "Point,x,y"; empty for
/// every other type. The view points into `tuple`.
GVTYPE_API std::string_view signatureAnnotation(std::string_view tuple);

/// Whether a well-formed signature has this type code anywhere.
GVTYPE_API bool signatureHasCode(std::string_view text, char code);

/// The length of the complete type that a well-formed, non-empty signature text starts with.
GVTYPE_API std::size_t signatureLength(std::string_view text);

/// The complete types of a well-formed tuple "(..)", in order; what is not a tuple gives none.
/// The views point into `tuple`.
template <class Sequence = std::vector<std::string_view>>
Sequence signatureMembers(std::string_view tuple) {
  Sequence members;
  if (!tuple.starts_with('(')) return members;
  std::string_view rest = tuple.substr(1, tuple.rfind(')') - 1);
  while (!rest.empty()) {
    members.push_back(rest.substr(0, signatureLength(rest)));
    rest.remove_prefix(members.back().size());
  }
  return members;
}

}  // namespace gv
