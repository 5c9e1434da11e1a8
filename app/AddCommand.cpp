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
        options.add_option("--dir", folder_, "Where the files go, instead of the download folder")->type_name("DIR");
        options.add_option("--output,-o", output_, "What the file or folder is to be called, instead of its own name")
            ->type_name("NAME");
        options.add_flag("--overwrite", overwrites_, "Rename a file that is in the way to NAME.before");
    }

protected:
    int talk(DaemonClient& daemon) override {
        if (!output_.empty() && sources_.size() > 1)
            throw CommandFailure("--output", "one name cannot be given to several downloads");
        return forEach(sources_, [&](const std::string& source) {
            const json::value task = add(daemon, source);
            if (task.at("status") == "error") failIfError(source, task);
        });
    }

private:
    json::value add(DaemonClient& daemon, const std::string& source) const {
        switch (sourceKindOf(source)) {
            case SourceKind::magnetLink:
            case SourceKind::webTorrent:
            case SourceKind::webFile: break;
            case SourceKind::otherWeb: throw CommandFailure(source, unsupportedSource);
            case SourceKind::file: return daemon.addTorrent(readTorrentFile(source), place());
        }
        return daemon.post("api/v1/tasks" + place(), json::object{{"source", source}});
    }

    /// As the query of the request.
    std::string place() const {
        std::string query = "?overwrite=" + std::string(overwrites_ ? "true" : "false");
        if (!folder_.empty()) query += "&folder=" + percentEncoded(std::filesystem::absolute(folder_).string());
        if (!output_.empty()) query += "&output=" + percentEncoded(output_);
        return query;
    }

    std::vector<std::string> sources_;
    std::filesystem::path folder_;
    std::string output_;
    bool overwrites_ = false;
};

}  // namespace

std::unique_ptr<Command> makeAddCommand() { return std::make_unique<AddCommand>(); }

}  // namespace skein
