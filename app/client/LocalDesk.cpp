#include "app/client/LocalDesk.h"

#include "app/Command.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/url/parse.hpp>

namespace skein {

LocalDesk::LocalDesk(const std::filesystem::path& home)
    : host_(home, {}),
      service_(host_.http(), host_.account(), host_.clock(), host_.log()),
      chat_(host_, center_),
      account_(service_, host_.account(), nullptr, [] {}),
      chatRoutes_(chat_, {.serverPatience = chatPatience}) {
    account_.addTo(router_);
    chatRoutes_.addTo(router_);
}

boost::json::value LocalDesk::send(const std::string& method, const std::string& path, const std::string& contentType,
                                   Bytes body) {
    const std::string target = "/" + path;
    const boost::urls::url_view url = boost::urls::parse_origin_form(target).value();
    HTTPServerRequest request;
    request.method = method;
    request.path = std::string(url.encoded_path());
    request.headers["content-type"] = contentType;
    for (const auto& parameter : url.params()) request.query[parameter.key] = parameter.value;
    request.body = asText(body);
    auto answered = asio::co_spawn(asio::make_strand(host_.pools().io()), router_.answer(request), asio::use_future);
    const HTTPServerResponse response = answered.get();
    boost::json::value answer = boost::json::parse(response.body);
    if (response.status >= 200 && response.status <= 299) return answer;
    throw CommandFailure(request.path.substr(request.path.rfind('/') + 1), std::string(answer.at("error").as_string()));
}

}  // namespace skein
