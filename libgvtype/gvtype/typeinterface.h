#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>

#include <gvtype/api.h>
#include <gvtype/functionref.h>
#include <gvtype/fwd.h>

namespace gv {

enum class FutureState;

/// What a type is to conversions and codecs. Kinds before List hold no other values.
enum class TypeKind {
  Void,
  Bool,
  Int,
  Float,
  String,
  Raw,
  List,
  Map,
  Tuple,
  Optional,
  Dynamic,
  Object,
  Future,
  Unknown
};

/// Strings and raw bytes: contiguous characters.
struct BytesOps {
  std::string_view (*view)(const void* value);
  void (*assign)(void* value, std::string_view bytes);
  /// As assign, without a copy: `owner` keeps the bytes, which nobody changes. Null where values
  /// own their bytes alone.
  void (*share)(void* value, std::string_view bytes, const std::shared_ptr<const void>& owner);
};

/// Sequences. Elements come as references in place, valid until the list changes.
struct ListOps {
  const TypeInterface* (*elementType)();
  std::size_t (*size)(const void* list);
  void (*forEach)(const void* list, FunctionRef<void(const AnyReference&)> visit);
  void (*clear)(void* list);
  /// Appends a default element and refers to it. Null where elements have no address (bit vectors):
  /// then `push` copies one in.
  AnyReference (*emplace)(void* list);
  void (*push)(void* list, const void* element);
};

struct MapOps {
  std::size_t (*size)(const void* map);
  void (*forEach)(const void* map,
                  FunctionRef<void(const AnyReference& key, const AnyReference& value)> visit);
  void (*clear)(void* map);
  /// A default key and a default value, as an entry of this map would hold them.
  AnyValue (*makeKey)(const void* map);
  AnyValue (*makeValue)(const void* map);
  /// Takes both contents over. A map of C++ replaces the value of a key that is already there, and
  /// does not grow: who must not lose an entry compares sizes. A MapValue keeps every entry.
  void (*insert)(void* map, AnyValue&& key, AnyValue&& value);
};

struct TupleOps {
  std::size_t (*size)(const void* tuple);
  AnyReference (*member)(const void* tuple, std::size_t index);
};

/// A value of one type, or nothing.
struct OptionalOps {
  const TypeInterface* (*elementType)();
  /// The content in place; an invalid reference when empty.
  AnyReference (*content)(const void* optional);
  void (*reset)(void* optional);
  /// Replaces the content by a default one and refers to it.
  AnyReference (*emplace)(void* optional);
};

/// A value that holds a value of any type, or nothing.
struct DynamicOps {
  /// The content in place, invalid where there is none; good until the dynamic value changes.
  AnyReference (*content)(const void* dynamic);
  /// Replaces the content by a copy; an invalid reference empties it.
  void (*assign)(void* dynamic, const AnyReference& content);
};

/// A strong handle on an object.
struct ObjectOps {
  /// The same handle on whatever class the object is of; invalid for an empty one.
  Object<Empty> (*get)(const void* handle);
  /// False, and nothing has changed, where the object is not of the handle's class or lives in
  /// another process.
  bool (*set)(void* handle, const Object<Empty>& object);
};

struct FutureOps {
  /// How a future ended: its value where it has one, else the error's text and kind.
  struct Ending;
  const TypeInterface* (*valueType)();
  /// Calls `callback` once when the future has settled, in the settling thread (at once if it has).
  void (*connect)(const void* future, std::function<void(const Ending&)> callback);
  /// How it ended; false while it runs and for an empty future. Never waits.
  bool (*peek)(const void* future, Ending& ending);
};

/// What the run-time type system knows of one C++ type: a record of plain functions that a template
/// layer fills once, so that every algorithm works on the record and is compiled once.
///
/// A value is a pair (TypeInterface*, storage). Records are immutable and live to the process's
/// end. Each shared library may have its own record of a type: compare with sameType(), not by
/// address.
struct TypeInterface {
  const std::type_info* info;
  TypeKind kind;
  char code;  ///< the signature of a type of one letter, else 0
  std::size_t size;
  std::size_t alignment;
  bool isSigned;     ///< integers only
  bool nothrowMove;  ///< moving cannot throw, so that a value may live inline
  /// Life of a value in storage of the right size and alignment; null where the type cannot.
  void (*construct)(void* storage);
  void (*copy)(void* storage, const void* from);
  void (*move)(void* storage, void* from);
  void (*destroy)(void* value);
  void (*assign)(void* value, const void* from);
  /// The signature of one value, for types whose values carry their own; null where the type has
  /// one.
  const std::string& (*ownSignature)(const void* value);
  /// The operations of the type's kind; the others are null.
  const BytesOps* bytes;
  const ListOps* list;
  const MapOps* map;
  const TupleOps* tuple;
  const OptionalOps* optional;
  const DynamicOps* dynamic;
  const ObjectOps* object;
  const FutureOps* future;
  /// Types of a map's key and value, or of a tuple's members; null for generic maps and tuples.
  /// Asked late, since a struct may hold containers of itself.
  const TypeInterface* (*memberType)(std::size_t index);
  std::size_t memberCount;
  /// Name and fields of a struct, "Point,x,y"; empty for every other type.
  std::string_view annotation;
};

/// Whether two records describe the same C++ type, also when they come from two libraries.
inline bool sameType(const TypeInterface* a, const TypeInterface* b) {
  return a == b || (a && b && *a->info == *b->info);
}

/// A name for people: "int32", "list<string>", a struct's own name, the C++ name for what is not
/// described.
GVTYPE_API std::string typeName(const TypeInterface* type);

/// Appends the static signature of a type ("i", "as", "(sv)"). A struct within itself is an `X`, as
/// is a future of nothing within another type.
GVTYPE_API void appendSignature(std::string& text, const TypeInterface* type);

}  // namespace gv
