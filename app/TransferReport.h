#pragma once

#include "Core/engine/TorrentSession.h"
#include "app/ProgressLine.h"
#include "public/common/Clock.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// How far one torrent is, as its session last said.
struct TransferStatus {
    std::string infoHashHex;
    std::string url;  ///< of a web file, which has no info-hash
    std::string name;
    TorrentSession::State::Kind state = TorrentSession::State::Kind::idle;
    double progress = 0;
    std::optional<std::int64_t> total;  ///< bytes; nothing while it is not known
    std::int64_t downloaded = 0;        ///< verified bytes
    std::int64_t present = 0;           ///< those of `downloaded` that were there before the transfer began
    std::int64_t uploaded = 0;
    std::int64_t downloadRate = 0;  ///< bytes a second
    std::int64_t uploadRate = 0;
    std::size_t peers = 0;  ///< connected
    double verified = 0;    ///< the fraction checked while existing data is verified
    std::string stall;      ///< why nothing moves; empty while something does
};

/// Tells the user what transfers do: one JSON object a line on stdout, or a progress line on stderr and results on
/// stdout.
///
/// Owner and thread: the transfer's strand.
class TransferReport {
public:
    TransferReport(Clock& clock, bool isJSON);
    ~TransferReport();

    /// `dhtPort` is 0 when the DHT does not run.
    void listening(const TransferStatus& of, std::uint16_t port, std::uint16_t dhtPort);
    void state(const TransferStatus& of, const std::string& message);
    void status(const TransferStatus& of, const std::string& message);
    void metadata(const TransferStatus& of, const TorrentMetaInfo& metaInfo);
    /// A web server said what it sends.
    void fileInfo(const TransferStatus& of);
    /// Why nothing moves; nothing: something does.
    void stall(TransferStatus& of, const std::optional<StallReason>& reason);
    void progress(const TransferStatus& of);
    void peers(const TransferStatus& of, const std::vector<PeerRuntimeInfo>& rows);
    void trackers(const TransferStatus& of, const std::vector<TrackerRuntimeInfo>& rows);
    /// `hasDownloaded`: not all of it was there from the start.
    void completed(const TransferStatus& of, double seconds, bool hasDownloaded);
    void error(const TransferStatus& of, const std::string& message);
    /// The progress line of all transfers together.
    void overview(const std::vector<const TransferStatus*>& all);

private:
    class JSONLine;

    Clock& clock_;
    const bool isJSON_;
    std::unique_ptr<ProgressLine> line_;
    std::string lastStatus_;
};

/// As interface texts have it: "downloading", "seeding", …
std::string_view textOf(TorrentSession::State::Kind kind) noexcept;

}  // namespace skein
