#include "Core/engine/TorrentBuilder.h"
#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "app/Command.h"
#include "app/Interrupt.h"
#include "app/ProgressLine.h"
#include "app/Quantities.h"
#include "public/common/Printable.h"
#include "public/common/RenameFile.h"
#include "public/common/ThreadPools.h"
#include "public/common/WholeFile.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <bit>
#include <iostream>
#include <system_error>
#include <unistd.h>

namespace skein {

namespace {

namespace fs = std::filesystem;

std::string checkTracker(const std::string& url) {
    for (const char* scheme : {"http://", "https://", "udp://"})
        if (url.starts_with(scheme) && isValidUTF8(asBytes(url))) return {};
    return "Not the address of a tracker (http://, https:// or udp://): " + url;
}

std::string checkPieceLength(const std::string& text) {
    const auto bytes = parseByteCount(text);
    if (bytes && *bytes >= TorrentBuilder::minPieceLength && *bytes <= TorrentBuilder::maxPieceLength &&
        std::has_single_bit(static_cast<std::uint64_t>(*bytes)))
        return {};
    return "Not a power of two from 16K to 64M: " + text;
}

std::string checkText(const std::string& text) {
    return isValidUTF8(asBytes(text)) ? std::string() : "Not valid UTF-8";
}

class CreateCommand final : public Command {
public:
    CreateCommand()
        : Command({"create", "Make a .torrent of a file or folder",
                   "skein create music/ -o music.torrent --tracker udp://tracker.example:6969"}) {}

    void declare(CLI::App& options) override {
        options.add_option("PATH", source_, "The file or folder to share")->required();
        options.add_option("-o,--output", output_, "The .torrent file to write")->required()->type_name("OUT.torrent");
        options.add_option("--tracker", trackers_, "A tracker's address, repeatable")
            ->type_name("URL")
            ->check(CLI::Validator(checkTracker, ""))
            ->expected(1)
            ->take_all();
        options.add_option("--piece-length", pieceLength_, "A power of two from 16K to 64M (default: by the size)")
            ->type_name("BYTES")
            ->check(CLI::Validator(checkPieceLength, ""));
        options.add_flag("--overwrite", overwrites_, "Rename a file of that name to NAME.before");
        options.add_flag("--private", isPrivate_, "Only for peers that the trackers tell of");
        options.add_option("--comment", comment_, "A text to go with it")
            ->type_name("TEXT")
            ->check(CLI::Validator(checkText, ""));
    }

    int run(const GlobalOptions& /*global*/) override {
        try {
            return create();
        } catch (const TorrentBuildException& failure) {
            throw CommandFailure("create", failure.what());
        }
    }

private:
    int create() {
        checkOutput();
        TorrentBuilder::Options options{.source = source_, .leftOut = output_};
        if (!pieceLength_.empty()) options.pieceLength = parseByteCount(pieceLength_);
        TorrentBuilder builder(options);
        if (builder.leftOutCount() > 0)
            std::cerr << "skein: create: left out links and special files: " << builder.leftOutCount() << std::endl;

        if (const int status = hash(builder); status != exitStatus::done) return status;
        const Bytes file = TorrentWriter::write(described(builder.torrent()));
        write(file);
        printResult(TorrentParser::parse(file));
        return exitStatus::done;
    }

    /// Before hours of hashing, what would fail after them.
    void checkOutput() const {
        std::error_code error;
        const fs::file_status status = fs::status(output_, error);
        if (fs::is_directory(status)) refuseOutput("is a folder");
        if (fs::exists(status) && fs::equivalent(output_, source_, error)) refuseOutput("is what is to be shared");
        refuseToOverwrite();
        const fs::path folder = output_.has_parent_path() ? output_.parent_path() : fs::path(".");
        if (::access(folder.c_str(), W_OK | X_OK) != 0)
            refuseOutput(std::error_code(errno, std::generic_category()).message());
    }

    void refuseToOverwrite() const {
        std::error_code error;
        if (fs::exists(fs::symlink_status(output_, error)) && !overwrites_)
            refuseOutput("exists - choose another name (-o), or have it moved aside (--overwrite)");
    }

    [[noreturn]] void refuseOutput(std::string_view why) const {
        throw CommandFailure("create: " + output_.string(), why);
    }

    static int hash(TorrentBuilder& builder) {
        const TorrentMetaInfo& torrent = builder.torrent();
        RealClock clock;
        ThreadPools pools;
        const Interrupt interrupt(pools.io());
        ProgressLine progress(clock);
        const auto start = clock.now();
        const std::string total = formatByteCount(torrent.totalSize);
        try {
            builder.hashPieces(pools.disk(), interrupt.token(), [&](std::int64_t hashed) {
                const double seconds = std::chrono::duration<double>(clock.now() - start).count();
                const auto rate = static_cast<std::int64_t>(static_cast<double>(hashed) / std::max(seconds, 0.001));
                const auto percent =
                    static_cast<int>(100.0 * static_cast<double>(hashed) / static_cast<double>(torrent.totalSize));
                progress.show("hashing: " + std::to_string(percent) + " %, " + formatByteCount(hashed) + " of " +
                              total + ", " + formatByteCount(rate) + "/s");
            });
        } catch (const TorrentBuildException&) {
            if (interrupt.exitStatus() == 0) throw;
        }
        return interrupt.exitStatus();
    }

    TorrentMetaInfo described(TorrentMetaInfo torrent) const {
        for (const std::string& tracker : trackers_) torrent.announceList.push_back({tracker});
        torrent.isPrivate = isPrivate_;
        if (!comment_.empty()) torrent.comment = comment_;
        torrent.createdBy = "skein " SKEIN_VERSION;
        torrent.creationDate = std::chrono::floor<std::chrono::seconds>(RealClock().wallNow());
        return torrent;
    }

    void write(const Bytes& file) const {
        refuseToOverwrite();  // it may have come while the pieces were hashed
        try {
            if (fs::exists(fs::symlink_status(output_))) moveAside(output_);
            replaceWholeFile(output_, file, sharedFile);
        } catch (const std::system_error& failure) {
            refuseOutput(failure.code().message());
        }
    }

    void printResult(const TorrentMetaInfo& torrent) const {
        std::cout << printable(output_.string()) << ": " << torrent.files.size()
                  << (torrent.files.size() == 1 ? " file, " : " files, ") << formatByteCount(torrent.totalSize) << ", "
                  << torrent.pieceCount() << (torrent.pieceCount() == 1 ? " piece of " : " pieces of ")
                  << formatByteCount(torrent.pieceLength) << "\ninfo hash: " << torrent.infoHashHex << '\n';
    }

    fs::path source_;
    fs::path output_;
    std::vector<std::string> trackers_;
    std::string pieceLength_;
    bool isPrivate_ = false;
    bool overwrites_ = false;
    std::string comment_;
};

}  // namespace

std::unique_ptr<Command> makeCreateCommand() { return std::make_unique<CreateCommand>(); }

}  // namespace skein
