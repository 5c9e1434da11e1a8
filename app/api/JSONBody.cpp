#include "app/api/JSONBody.h"

#include "public/common/PlainJSON.h"

#include <boost/json/parse.hpp>

#include <stdexcept>

namespace skein {

namespace json = boost::json;

json::object objectIn(const HTTPServerRequest& request) {
    boost::system::error_code error;
    const json::value value = json::parse(request.body, error);
    if (error || !value.is_object()) throw std::runtime_error("the body is no JSON object");
    return value.as_object();
}

HTTPServerResponse jsonReply(const json::value& value) { return {200, "application/json", plainJSON(value), {}}; }

HTTPServerResponse jsonDone() { return jsonReply(json::object{{"ok", true}}); }

}  // namespace skein
