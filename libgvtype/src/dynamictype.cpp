// How the framework reaches what derives from DynamicObject.

#include <gvtype/dynamicobject.h>
#include <gvtype/genericobject.h>

namespace gv {

const ObjectTypeInterface* getDynamicTypeInterface() {
  static const ObjectTypeInterface type = {
      .metaObject = [](const void* object) -> const MetaObject& {
        return static_cast<const DynamicObject*>(object)->metaObject();
      },
      .method = [](const void* object,
                   unsigned id) { return static_cast<const DynamicObject*>(object)->method(id); },
      .metaCall =
          [](void* object, const Object<Empty>& context, unsigned id,
             const GenericFunctionParameters& arguments, MetaCallType callType,
             const Signature& returnSignature) {
            return static_cast<DynamicObject*>(object)->metaCall(context, id, arguments, callType,
                                                                 returnSignature);
          },
      .metaPost =
          [](void* object, const Object<Empty>& context, unsigned id,
             const GenericFunctionParameters& arguments) {
            static_cast<DynamicObject*>(object)->metaPost(context, id, arguments);
          },
      .metaConnect =
          [](void* object, const Object<Empty>& context, unsigned id, AnyFunction handler,
             MetaCallType callType) {
            return static_cast<DynamicObject*>(object)->metaConnect(context, id, std::move(handler),
                                                                    callType);
          },
      .metaDisconnect =
          [](void* object, const Object<Empty>& context, SignalLink link) {
            return static_cast<DynamicObject*>(object)->metaDisconnect(context, link);
          },
      .metaProperty =
          [](void* object, const Object<Empty>& context, unsigned id) {
            return static_cast<DynamicObject*>(object)->metaProperty(context, id);
          },
      .metaSetProperty =
          [](void* object, const Object<Empty>& context, unsigned id, const AnyReference& value) {
            return static_cast<DynamicObject*>(object)->metaSetProperty(context, id, value);
          },
      .emitSignal =
          [](void* object, unsigned id, std::span<const AnyReference> arguments) {
            static_cast<DynamicObject*>(object)->emitSignal(id, arguments);
          },
      .callNow =
          [](void* object, unsigned id, std::span<const AnyReference> arguments,
             const TypeInterface* resultType, void* result) {
            return static_cast<DynamicObject*>(object)->callNow(id, arguments, resultType, result);
          },
      .callElsewhere =
          [](void* object, unsigned id, const GenericFunctionParameters& arguments,
             std::unique_ptr<ResultSink>& sink) {
            return static_cast<DynamicObject*>(object)->callElsewhere(id, arguments, sink);
          },
  };
  return &type;
}

}  // namespace gv
