#pragma once

#include <boost/json/fwd.hpp>

#include <string>

namespace skein {

// JSON text in which every number is a plain decimal ("12.5", "1795452204.797", never "1.25E1"), as scripts expect it.
// Boost.JSON's own serialize writes exponents. What is not finite becomes null.
std::string plainJSON(const boost::json::value& value);
std::string plainJSON(const boost::json::object& object);
std::string plainJSON(const boost::json::array& array);

}  // namespace skein
