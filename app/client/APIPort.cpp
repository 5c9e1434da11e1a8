#include "app/client/APIPort.h"

#include "public/common/PlainJSON.h"

#include <boost/url/encode.hpp>
#include <boost/url/rfc/unreserved_chars.hpp>

namespace skein {

namespace json = boost::json;

namespace {

constexpr const char* jsonType = "application/json";

}  // namespace

json::value APIPort::get(const std::string& path) { return send("GET", path, jsonType, {}); }

json::value APIPort::post(const std::string& path, const json::value& body) {
    return send("POST", path, jsonType, toBytes(body.is_null() ? "{}" : plainJSON(body)));
}

json::value APIPort::patch(const std::string& path, const json::value& body) {
    return send("PATCH", path, jsonType, toBytes(plainJSON(body)));
}

json::value APIPort::remove(const std::string& path) { return send("DELETE", path, jsonType, {}); }

std::string percentEncoded(const std::string& text) { return boost::urls::encode(text, boost::urls::unreserved_chars); }

}  // namespace skein
