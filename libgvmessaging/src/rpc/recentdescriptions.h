#pragma once

#include <gvtype/metaobjectdescription.h>

namespace gv::rpc {

/// As makeMetaObject. Descriptions that are equal to one of the last few share its content: objects
/// of one class, and of many sessions the one directory. Any thread.
MetaObject makeSharedMetaObject(const MetaObjectDescription& description);

}  // namespace gv::rpc
