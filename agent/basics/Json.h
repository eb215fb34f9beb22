// JSON values (RFC 8259) and their texts. The one library for them: what files hold is read with its parser alone,
// which makes no values of large ones.
#pragma once

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <ostream>
#include <string>
#include <string_view>

namespace Agent {

using Json = boost::json::value;
using JsonArray = boost::json::array;
using JsonObject = boost::json::object;  // in the order of insertion

// What stands under the name; null: the value is no object, or has no such member.
Json const * memberOf( Json const & object, std::string_view name );

// All in one line. Bytes that are no UTF-8, as file names may have, are replaced.
std::string lineOf( Json const & value );

// The same with a line for each member and element.
void writeLines( std::ostream & out, Json const & value );

}  // namespace Agent
