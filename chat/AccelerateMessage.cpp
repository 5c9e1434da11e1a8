#include "chat/AccelerateMessage.h"

#include "public/common/PlainJSON.h"

#include <boost/json/object.hpp>

namespace skein {

namespace json = boost::json;

std::string AccelerateMessage::orderedJSONString() const {
    // Names of torrents are whatever bytes their makers wrote; what is no UTF-8 in them becomes U+FFFD.
    return plainJSON(json::object{
        {"type", "下载加速"}, {"name", name}, {"user", user}, {"magnet", magnet}, {"totalSize", totalSize}});
}

}  // namespace skein
