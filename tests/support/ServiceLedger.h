#pragma once

#include <boost/json/object.hpp>

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace skein {

/// What the test service knows: who holds what, which bytes were counted, who owes whom.
///
/// Credit: 1 MiB that a peer verified costs the downloader the cost rate, and gives the uploader its share of that;
/// nothing between peers of which the uploader serves for free. Thread: one. A wrong request throws
/// std::invalid_argument, whose text is the service's "error"; JSON of other types throws too.
class ServiceLedger {
public:
    using Fields = boost::json::object;
    using Query = std::map<std::string, std::string>;
    /// Who asks, and from where.
    struct Caller {
        std::string user;
        std::string device;
        std::string ip;
    };
    /// What one user moved of one torrent, in all.
    struct Account {
        std::string status = "offline";
        std::int64_t uploaded = 0;
        std::int64_t downloaded = 0;
        std::int64_t fromPlatform = 0;    ///< of `downloaded`: what the reports lay at some peer
        std::int64_t carriedByRelay = 0;  ///< to the user, by the relay's own account: blocks and what is around them
        double earned = 0;
        double spent = 0;

        std::int64_t fromRelay() const { return std::min(fromPlatform, carriedByRelay); }
    };

    // Not the client's defaults, so that a client shows it listened.
    static constexpr double downloadCostRate = 0.002;
    static constexpr double uploaderShareRatio = 0.75;
    static constexpr double bytesPerUnit = 1 << 20;

    // The endpoints: what each is given, and what it answers.
    Fields registerResource(const Caller& caller, const Fields& registration);
    /// `infoHash` empty: all that the device holds.
    Fields release(const Caller& caller, const std::string& infoHash);
    Fields complete(const Caller& caller, const std::string& infoHash);
    Fields countBatch(const Caller& caller, const Fields& batch);
    Fields balance(const std::string& user) const;
    Fields peers(const Caller& caller, const std::string& infoHash, const std::string& mode) const;
    Fields settle(const std::string& user);
    Fields transfer(const std::string& from, const Fields& order);
    Fields transactions(const std::string& user, const Query& query) const;
    Fields pending(const std::string& user, const Query& query) const;
    /// All of it, for people to read.
    Fields describe() const;

    Account& account(const std::string& user, const std::string& infoHash) { return accounts_[{user, infoHash}]; }
    std::int64_t repeatedEvents() const { return repeatedEvents_; }

    std::map<std::string, double> wallets;       ///< settled credit by user; who is not here is nobody
    std::map<std::string, Fields> peerOverlays;  ///< by user: what is said of that peer in place of what it registered

private:
    struct Edge {
        std::int64_t id = 0;
        std::int64_t downloaderBytes = 0;
        std::int64_t uploaderBytes = 0;
        double spent() const { return static_cast<double>(downloaderBytes) / bytesPerUnit * downloadCostRate; }
        double earned() const { return spent() * uploaderShareRatio; }
    };
    using EdgeKey = std::tuple<std::string, std::string, std::string>;  // info-hash, downloader, uploader

    void count(const std::string& user, const Fields& item);
    bool isFree(const std::string& user, const std::string& infoHash) const;
    boost::json::array itemsOf(const std::string& user) const;
    double netOf(const std::string& user) const;
    void book(const std::string& owner, Fields transaction, double amount, bool isIn);

    std::map<std::tuple<std::string, std::string, std::string>, Fields> holdings_;  // info-hash, user, device
    std::map<std::pair<std::string, std::string>, Account> accounts_;               // user, info-hash
    std::map<EdgeKey, Edge> edges_;
    std::map<std::string, std::vector<Fields>> transactions_;  // by user
    std::set<std::string> events_;
    std::int64_t repeatedEvents_ = 0;
    std::int64_t lastId_ = 0;
};

}  // namespace skein
