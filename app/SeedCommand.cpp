#include "app/Command.h"
#include "app/EngineHost.h"
#include "app/TransferOptions.h"
#include "app/TransferRun.h"
#include "app/TransferSource.h"

#include <CLI/CLI.hpp>

namespace skein {

namespace {

class SeedCommand final : public Command {
public:
    SeedCommand()
        : Command({"seed", "Verify what is there and serve it until interrupted",
                   "skein seed paper.torrent --dir ~/papers"}) {}

    void declare(CLI::App& options) override {
        options.add_option("FILE.torrent", sources_, "What to serve; several may be named")->required();
        options_.declare(options);
    }

    int run(const GlobalOptions& global) override {
        EngineHost host(global.home(), LocalBinding(options_.bind));
        TransferRun::Goal goal;
        goal.seedsOnly = true;
        TransferRun transfers(host, options_, goal);
        auto sources = readTransferSources(sources_, host, transfers.interrupt());
        if (!sources) return transfers.interrupt().exitStatus();
        host.listen(options_.port, options_.dhtOptions());
        for (std::size_t i = 0; i < sources->size(); ++i) transfers.add(std::move((*sources)[i]), sources_[i]);
        return transfers.run();
    }

private:
    std::vector<std::string> sources_;
    TransferOptions options_;
};

}  // namespace

std::unique_ptr<Command> makeSeedCommand() { return std::make_unique<SeedCommand>(); }

}  // namespace skein
