#pragma once

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gvtype/metaobject.h>

namespace gv {

/// The description of an object as plain values, in the shape in which it crosses between
/// processes. Of each method: id, name, signature of the parameters, of the result, description,
/// (name, description) of each parameter, description of the result.
using MetaMethodDescription =
    std::tuple<unsigned, std::string, std::string, std::string, std::string,
               std::vector<std::pair<std::string, std::string>>, std::string>;
/// The object's own description, then its methods.
using MetaObjectDescription = std::tuple<std::string, std::vector<MetaMethodDescription>>;

GVTYPE_API MetaObjectDescription describeMetaObject(const MetaObject& metaObject);

/// Throws std::runtime_error for what describes no object: a malformed signature, a name outside
/// the grammar, an id twice, more than 10,000 methods.
GVTYPE_API MetaObject makeMetaObject(const MetaObjectDescription& description);

}  // namespace gv
