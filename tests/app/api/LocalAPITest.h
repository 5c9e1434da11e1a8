#pragma once

#include "app/api/AccountRoutes.h"
#include "app/api/LocalAPI.h"
#include "tests/support/ManagerHost.h"

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace skein {

/// A download manager and its API, served on loopback to whoever says "secret".
class LocalAPITest : public testing::Test {
protected:
    LocalAPITest() {
        accountRoutes.addTo(api.router());
        api.listen("127.0.0.1", 0, "secret");
    }
    ~LocalAPITest() override { simulation.finish(api.stop()); }

    std::string address() const { return "127.0.0.1:" + std::to_string(api.port()); }
    HTTPResponse ask(const std::string& method, const std::string& path, const std::string& body = {},
                     std::vector<HTTPHeader> headers = {{"Authorization", "Bearer secret"}}) {
        HTTPRequest request;
        request.method = method;
        request.url = "http://" + address() + path;
        request.headers = std::move(headers);
        request.body = toBytes(body);
        request.usesProxy = false;
        return simulation.finish(host.http.fetch(std::move(request)));
    }
    static boost::json::object objectIn(const HTTPResponse& response) {
        return boost::json::parse(asText(response.body)).as_object();
    }

    Simulation simulation;
    ManagerHost host{simulation, 'a', LogLevel::trace};
    DownloadManager& manager = host.open();
    MsgCenter& center = host.center;
    ServiceAccount account{ActorSettings(host.settings, simulation.executor()), host.random};
    SkeinServiceClient serviceClient{host.http, account, simulation, host.log};
    AccountRoutes accountRoutes{serviceClient, account, &manager, [] {}};
    int stopsAsked = 0;
    LocalAPI api{manager, center, host.http, simulation, host.log, [this] { ++stopsAsked; }};
};

}  // namespace skein
