#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace skein {

/// How to reach the daemon of a home, as `daemon.json` says it.
struct DaemonAddress {
    std::string address;  ///< a literal
    std::uint16_t port = 0;
    std::int64_t processID = 0;
    std::string token;

    /// "http://127.0.0.1:7070/"
    std::string url() const;
    /// Where a server that listens on `address` is found on its own machine: itself, or loopback for all addresses.
    static std::string reachable(const std::string& address);
    /// Whether a daemon runs for `home`, or starts or stops.
    static bool isClaimed(const std::filesystem::path& home);
    /// Nothing when no daemon runs for `home`.
    static std::optional<DaemonAddress> find(const std::filesystem::path& home);
};

/// A daemon's claim on its home. Made before it serves; `publish` tells others where it is. Both go with it, and the
/// claim also with its process, however that ends.
class DaemonFile {
public:
    /// Throws CommandFailure when a daemon runs already for `home`, which exists.
    explicit DaemonFile(std::filesystem::path home);
    DaemonFile(const DaemonFile&) = delete;
    DaemonFile& operator=(const DaemonFile&) = delete;
    ~DaemonFile();

    /// Writes `daemon.json`, readable by its owner alone. Throws CommandFailure.
    void publish(const DaemonAddress& daemon);

private:
    const std::filesystem::path home_;
    int lock_ = -1;
    bool isPublished_ = false;
};

}  // namespace skein
