#include "chat/AccelerateMessage.h"

#include "public/common/PlainJSON.h"
#include "public/common/Printable.h"

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>

namespace skein {

namespace json = boost::json;

std::string AccelerateMessage::orderedJSONString() const {
    json::object fields{
        {"type", "下载加速"}, {"name", name}, {"user", user}, {"magnet", magnet}, {"totalSize", totalSize}};
    std::string text = plainJSON(fields);
    boost::system::error_code error;
    json::parse(text, error);
    if (!error) return text;
    // Names of torrents are whatever bytes their makers wrote; a frame of text must be UTF-8.
    fields["name"] = printable(name);
    fields["user"] = printable(user);
    fields["magnet"] = printable(magnet);
    return plainJSON(fields);
}

}  // namespace skein
