#include "app/Command.h"
#include "app/EngineHost.h"
#include "app/TransferOptions.h"
#include "app/TransferRun.h"
#include "app/TransferSource.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace skein {

namespace {

class GetCommand final : public Command {
public:
    GetCommand() : Command({"get", "Download torrents", "skein get 'magnet:?xt=urn:btih:…' --dir ~/papers"}) {}

    void declare(CLI::App& options) override {
        options.add_option("SOURCE", sources_, "A magnet link, a .torrent file, or the HTTP(S) address of one")
            ->required();
        options_.declare(options);
        options_.declarePlace(options);
        options.add_flag("--seed", goal_.seedsAfterwards, "Keep serving after completion, until interrupted");
        options.add_option("--timeout", timeoutSeconds_, "Give up when not complete by then")
            ->type_name("SECONDS")
            ->check(CLI::PositiveNumber);
    }

    int run(const GlobalOptions& global) override {
        if (!options_.output.empty() && sources_.size() > 1)
            throw CommandFailure("--output", "one name cannot be given to several downloads");
        EngineHost host(global.home(), LocalBinding(options_.bind));
        goal_.timeout = std::chrono::seconds(timeoutSeconds_);
        TransferRun transfers(host, options_, goal_);
        auto sources = readTransferSources(sources_, host, transfers.interrupt());
        if (!sources) return transfers.interrupt().exitStatus();
        const bool needsPeers = std::any_of(sources->begin(), sources->end(), [](const TransferSource& source) {
            return !std::holds_alternative<WebFile>(source);
        });
        if (needsPeers) host.listen(options_.port, options_.dhtOptions());
        for (std::size_t i = 0; i < sources->size(); ++i) transfers.add(std::move((*sources)[i]), sources_[i]);
        return transfers.run();
    }

private:
    std::vector<std::string> sources_;
    TransferOptions options_;
    TransferRun::Goal goal_;
    int timeoutSeconds_ = 0;
};

}  // namespace

std::unique_ptr<Command> makeGetCommand() { return std::make_unique<GetCommand>(); }

}  // namespace skein
