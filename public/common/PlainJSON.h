#pragma once

#include <boost/json/fwd.hpp>

#include <string>

namespace skein {

// JSON text in which every number is a plain decimal ("12.5", "1795452204.797", never "1.25E1"), as scripts expect it.
// Boost.JSON's own serialize writes exponents. What is not finite becomes null,
// and bytes of a string that are no UTF-8 become U+FFFD: whatever was stored, what is written is JSON. Odd characters
// (see OddCharacters.h) are escaped ("\u202e"), so that the text does nothing to a terminal either.
std::string plainJSON(const boost::json::value& value);
std::string plainJSON(const boost::json::object& object);
std::string plainJSON(const boost::json::array& array);
/// The same with the bytes of strings as they are: for what only this program reads, which has to find its files again,
/// and for what is refused where it is no UTF-8.
std::string plainJSONOfBytes(const boost::json::object& object);

}  // namespace skein
