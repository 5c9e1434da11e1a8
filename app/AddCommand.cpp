#include "app/SourceKind.h"
#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

namespace skein {

namespace {

namespace json = boost::json;

class AddCommand final : public ClientCommand {
public:
    AddCommand()
        : ClientCommand({"add", "Give the daemon something to download", "skein add 'magnet:?xt=urn:btih:…'"}) {}

    void declare(CLI::App& options) override {
        options.add_option("SOURCE", sources_, "A magnet link, a .torrent file, or an HTTP(S) address")->required();
    }

protected:
    int talk(DaemonClient& daemon) override {
        return forEach(sources_, [&](const std::string& source) {
            const json::value task = add(daemon, source);
            if (task.at("status") == "error") failIfError(source, task);
        });
    }

private:
    static json::value add(DaemonClient& daemon, const std::string& source) {
        switch (sourceKindOf(source)) {
            case SourceKind::magnetLink:
            case SourceKind::webFile: break;
            case SourceKind::webTorrent: return daemon.addTorrent(daemon.fetch(source));
            case SourceKind::file: return daemon.addTorrent(readTorrentFile(source));
        }
        return daemon.post("api/v1/tasks", json::object{{"source", source}});
    }

    std::vector<std::string> sources_;
};

}  // namespace

std::unique_ptr<Command> makeAddCommand() { return std::make_unique<AddCommand>(); }

}  // namespace skein
