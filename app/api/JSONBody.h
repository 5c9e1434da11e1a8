#pragma once

#include "app/api/HTTPServer.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

namespace skein {

/// The object that a request's body is. Throws std::exception with a text for the caller.
boost::json::object objectIn(const HTTPServerRequest& request);
HTTPServerResponse jsonReply(const boost::json::value& value);
/// {"ok": true}
HTTPServerResponse jsonDone();

}  // namespace skein
