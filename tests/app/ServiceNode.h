#pragma once

#include "app/ServiceBridge.h"
#include "tests/support/ManagerHost.h"
#include "tests/support/SkeinTestService.h"

#include <string>

namespace skein {

/// A daemon's inside with its account at a service.
class ServiceNode : public ManagerHost {
public:
    ServiceNode(Simulation& time, SkeinTestService& at, char name) : ManagerHost(time, name) {
        settings.set(ServiceAccount::serverURLKey, at.url());
        service = &bridge_;
        resources = &client_;
    }
    ~ServiceNode() { close(); }

    void signIn(const std::string& user) {
        simulation.finish(account_.signIn(user, "secret of " + user));
        if (!manager) return;
        manager->syncWithServer();
        simulation.runUntil([&] { return manager->signedInUserID() == user; });
    }
    void signOut() {
        simulation.finish(manager->prepareForAccountLogout());
        simulation.finish(account_.signOut());
    }
    DownloadManager::Task add(const Bytes& torrentData) {
        return simulation.finish(manager->addTorrentFile(torrentData));
    }
    SkeinServiceClient& client() { return client_; }
    const ServiceAccount& account() const { return account_; }
    bool hasLogged(std::string_view text) const { return log.count(text) > 0; }

private:
    ServiceAccount account_{ActorSettings(settings, simulation.executor()), random};
    SkeinServiceClient client_{http, account_, simulation, log};
    ServiceBridge bridge_{client_};
};

}  // namespace skein
