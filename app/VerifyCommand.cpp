#include "Core/engine/PieceManager.h"
#include "Core/engine/StoredPaths.h"
#include "Core/engine/TorrentFile.h"
#include "Core/formats/TorrentParser.h"
#include "app/Command.h"
#include "app/Interrupt.h"
#include "app/ProgressLine.h"
#include "app/Quantities.h"
#include "public/common/PlainJSON.h"
#include "public/common/Printable.h"
#include "public/common/ThreadPools.h"
#include "public/common/WholeFile.h"

#include <CLI/CLI.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/object.hpp>

#include <algorithm>
#include <functional>
#include <future>
#include <iostream>
#include <optional>
#include <stop_token>
#include <system_error>

namespace skein {

namespace {

class VerifyCommand final : public Command {
public:
    VerifyCommand()
        : Command({"verify", "Hash the files of a torrent and say what is good",
                   "skein verify paper.torrent --dir ~/papers"}) {}

    void declare(CLI::App& options) override {
        options.add_option("FILE.torrent", source_, "The torrent")->required();
        options.add_option("--dir", folder_, "Where its files are")->type_name("DIR")->required();
        options.add_flag("--json", isJSON_, "One JSON object");
    }

    int run(const GlobalOptions& /*global*/) override {
        const auto metaInfo = storedIn(folder_, {}, std::make_shared<const TorrentMetaInfo>(parse()));
        ThreadPools pools;
        RealClock clock;
        FileLogger log;
        const Interrupt interrupt(pools.io());
        TaskGroup tasks(pools.io());
        const PieceManager::Environment environment{tasks.strand(), pools.disk(), clock, log};
        PieceManager pieces(metaInfo, folder_, environment, PieceManager::Mode::readOnly);
        ProgressLine progress(clock);
        pieces.setVerifyProgressCallback([&](int checked, int total) {
            progress.show("verifying: " + std::to_string(100LL * checked / std::max(total, 1)) + " %");
        });
        std::future<void> cancelled;
        std::optional<std::stop_callback<std::function<void()>>> onInterrupt(std::in_place, interrupt.token(), [&] {
            cancelled = asio::co_spawn(pools.io(), tasks.stop(), asio::use_future);
        });
        std::string failure;
        try {
            asio::co_spawn(pools.io(), tasks.call(pieces.setup()), asio::use_future).get();
        } catch (const std::exception& error) {
            failure = error.what();
        }
        onInterrupt.reset();
        if (cancelled.valid()) cancelled.get();
        asio::co_spawn(pools.io(), tasks.stop(), asio::use_future).get();
        if (interrupt.exitStatus() != 0) return interrupt.exitStatus();
        if (!failure.empty()) throw CommandFailure(source_, failure);
        return report(*metaInfo, pieces);
    }

private:
    TorrentMetaInfo parse() const {
        try {
            return TorrentParser::parse(readWholeFile(source_, TorrentFile::maxBytes));
        } catch (const std::system_error& error) {
            throw CommandFailure(source_, error.code().message());
        } catch (const std::exception& error) {
            throw CommandFailure(source_, error.what());
        }
    }

    int report(const TorrentMetaInfo& metaInfo, const PieceManager& pieces) const {
        const auto& conditions = pieces.verifiedConditions();
        const auto countOf = [&](PieceCondition condition) {
            return std::count(conditions.begin(), conditions.end(), condition);
        };
        const auto good = countOf(PieceCondition::good);
        const auto bad = countOf(PieceCondition::bad);
        const auto missing = countOf(PieceCondition::missing);
        if (isJSON_) {
            const boost::json::object line{{"infoHash", metaInfo.infoHashHex},
                                           {"name", metaInfo.name},
                                           {"good", good},
                                           {"bad", bad},
                                           {"missing", missing},
                                           {"pieceCount", metaInfo.pieceCount()}};
            std::cout << plainJSON(line) << '\n';
        } else {
            std::cout << printable(metaInfo.name) << ": " << good << " good, " << bad << " bad, " << missing
                      << " missing pieces\n";
        }
        return good == metaInfo.pieceCount() ? exitStatus::done : exitStatus::failed;
    }

    std::string source_;
    std::filesystem::path folder_;
    bool isJSON_ = false;
};

}  // namespace

std::unique_ptr<Command> makeVerifyCommand() { return std::make_unique<VerifyCommand>(); }

}  // namespace skein
