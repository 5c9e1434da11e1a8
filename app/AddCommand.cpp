#include "Core/engine/TorrentFile.h"
#include "app/client/ClientCommand.h"
#include "public/common/WholeFile.h"

#include <CLI/CLI.hpp>
#include <boost/json/object.hpp>

#include <system_error>

namespace skein {

namespace {

namespace json = boost::json;

bool isWebAddress(const std::string& source) { return source.starts_with("http://") || source.starts_with("https://"); }

class AddCommand final : public ClientCommand {
public:
    AddCommand()
        : ClientCommand({"add", "Give the daemon something to download", "skein add 'magnet:?xt=urn:btih:…'"}) {}

    void declare(CLI::App& options) override {
        options.add_option("SOURCE", sources_, "A magnet link, a .torrent file, or an HTTP(S) address")->required();
    }

protected:
    int talk(DaemonClient& daemon) override {
        for (const std::string& source : sources_) add(daemon, source);
        return exitStatus::done;
    }

private:
    static void add(DaemonClient& daemon, const std::string& source) {
        const bool isTorrent = source.substr(0, source.find_first_of("?#")).ends_with(".torrent");
        if (isWebAddress(source) && isTorrent) {
            daemon.addTorrent(daemon.fetch(source));
        } else if (isWebAddress(source) || source.starts_with("magnet:")) {
            daemon.post("api/v1/tasks", json::object{{"source", source}});
        } else {
            daemon.addTorrent(read(source));
        }
    }

    static Bytes read(const std::string& file) {
        try {
            return readWholeFile(file, TorrentFile::maxBytes);
        } catch (const std::system_error& error) {
            throw CommandFailure(file, error.code().message());
        }
    }

    std::vector<std::string> sources_;
};

}  // namespace

std::unique_ptr<Command> makeAddCommand() { return std::make_unique<AddCommand>(); }

}  // namespace skein
