#pragma once

// Forward declarations of libgvtype, for headers that only name its types.

namespace gv {

struct Empty;
struct TypeInterface;
struct ObjectTypeInterface;
struct AnyArguments;
template <class T>
struct TypeTraits;
template <class T>
class Object;
template <class T>
class WeakObject;
class AnyFunction;
class AnyReference;
class AnyValue;
class Buffer;
class DynamicObject;
class DynamicObjectBuilder;
class GenericFunctionParameters;
class GenericObject;
class MetaMethod;
class MetaMethodBuilder;
class MetaObject;
class MetaProperty;
class MetaSignal;
class Signature;

}  // namespace gv
