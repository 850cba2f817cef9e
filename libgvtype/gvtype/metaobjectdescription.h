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
/// Of each signal or property: id, name, signature of the signal's parameters as a tuple or of the
/// property's value. A property's own signal is not listed.
using MetaMemberDescription = std::tuple<unsigned, std::string, std::string>;
/// The object's own description, its methods, its signals, its properties.
using MetaObjectDescription =
    std::tuple<std::string, std::vector<MetaMethodDescription>, std::vector<MetaMemberDescription>,
               std::vector<MetaMemberDescription>>;

GVTYPE_API MetaObjectDescription describeMetaObject(const MetaObject& metaObject);

/// Throws std::runtime_error for what describes no object: a malformed signature, a name outside
/// the grammar, an id twice, more than 10,000 members.
GVTYPE_API MetaObject makeMetaObject(const MetaObjectDescription& description);

}  // namespace gv
