#include "Core/engine/FileClaims.h"

#include "public/common/Database.h"

#include <algorithm>

namespace skein {

namespace {

constexpr const char* schema =
    "CREATE TABLE IF NOT EXISTS downloads(id INTEGER PRIMARY KEY, digest BLOB NOT NULL UNIQUE,"
    " folder TEXT NOT NULL, isListed INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS files(download INTEGER NOT NULL, file INTEGER NOT NULL, device INTEGER NOT NULL,"
    " inode INTEGER NOT NULL, born INTEGER NOT NULL, PRIMARY KEY(download, file)) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS filesByInode ON files(inode, device);";

// SQLite's integers are signed; the bits of an unsigned number come back as they were.
std::int64_t stored(std::uint64_t number) { return static_cast<std::int64_t>(number); }
std::int64_t numberIn(const DatabaseValue& value) {
    const auto* const number = std::get_if<std::int64_t>(&value);
    return number == nullptr ? 0 : *number;
}
FileIdentity identityIn(const DatabaseRow& row, std::size_t first) {
    return {static_cast<std::uint64_t>(numberIn(row[first])), static_cast<std::uint64_t>(numberIn(row[first + 1])),
            numberIn(row[first + 2])};
}
Bytes keyOf(const SHA1Digest& download) { return {download.begin(), download.end()}; }

void insert(const Database::Run& run, std::int64_t download, const std::vector<FileClaims::Claim>& claims) {
    for (const auto& [file, identity] : claims)
        run("INSERT OR REPLACE INTO files VALUES(?, ?, ?, ?, ?)",
            {download, stored(file), stored(identity.device), stored(identity.inode), identity.born});
}

std::int64_t idOf(const Database::Run& run, const SHA1Digest& download) {
    const auto rows = run("SELECT id FROM downloads WHERE digest = ?", {keyOf(download)});
    return rows.empty() ? 0 : numberIn(rows[0][0]);
}

}  // namespace

FileClaims::FileClaims(std::filesystem::path database, FileLogger& log) : path_(std::move(database)), log_(log) {}
FileClaims::~FileClaims() = default;

Database& FileClaims::database() {
    const std::lock_guard lock(opening_);
    if (!database_) database_ = std::make_unique<Database>(path_, schema, log_);
    return *database_;
}

std::vector<FileClaims::Claim> FileClaims::claimsOf(const SHA1Digest& download) {
    std::vector<Claim> claims;
    const auto rows = database().run(
        "SELECT file, device, inode, born FROM files WHERE download = (SELECT id FROM downloads WHERE digest = ?)",
        {keyOf(download)});
    claims.reserve(rows.size());
    for (const DatabaseRow& row : rows)
        claims.push_back({static_cast<std::size_t>(numberIn(row[0])), identityIn(row, 1)});
    return claims;
}

std::optional<FileClaims::Holder> FileClaims::holderOf(const FileIdentity& file) {
    const auto rows = database().run(
        "SELECT digest, folder, isListed, device, inode, born FROM files JOIN downloads ON id = download"
        " WHERE inode = ? AND device = ?",
        {stored(file.inode), stored(file.device)});
    for (const DatabaseRow& row : rows) {
        if (identityIn(row, 3) != file) continue;
        Holder holder;
        const auto& digest = std::get<Bytes>(row[0]);
        std::copy_n(digest.begin(), std::min(digest.size(), holder.download.size()), holder.download.begin());
        holder.folder = std::get<std::string>(row[1]);
        holder.isListed = numberIn(row[2]) != 0;
        return holder;
    }
    return std::nullopt;
}

void FileClaims::begin(const Holder& holder, const std::vector<Claim>& claims) {
    database().transaction([&](const Database::Run& run) {
        run("INSERT INTO downloads(digest, folder, isListed) VALUES(?1, ?2, ?3) ON CONFLICT(digest)"
            " DO UPDATE SET folder = ?2, isListed = max(isListed, ?3)",
            {keyOf(holder.download), holder.folder.string(), std::int64_t{holder.isListed ? 1 : 0}});
        insert(run, idOf(run, holder.download), claims);
    });
}

void FileClaims::settle(const SHA1Digest& download, const std::vector<Claim>& claims) {
    database().transaction([&](const Database::Run& run) {
        for (const Claim& claim : claims)
            run("DELETE FROM files WHERE inode = ? AND device = ?",
                {stored(claim.identity.inode), stored(claim.identity.device)});
        insert(run, idOf(run, download), claims);
    });
}

void FileClaims::forget(const SHA1Digest& download) {
    database().transaction([&](const Database::Run& run) {
        run("DELETE FROM files WHERE download = ?", {idOf(run, download)});
        run("DELETE FROM downloads WHERE digest = ?", {keyOf(download)});
    });
}

void FileClaims::keepListed(const std::set<SHA1Digest>& downloads) {
    database().transaction([&](const Database::Run& run) {
        for (const DatabaseRow& row : run("SELECT id, digest FROM downloads WHERE isListed", {})) {
            const auto& bytes = std::get<Bytes>(row[1]);
            SHA1Digest digest{};
            std::copy_n(bytes.begin(), std::min(bytes.size(), digest.size()), digest.begin());
            if (!downloads.contains(digest)) run("UPDATE downloads SET isListed = 0 WHERE id = ?", {row[0]});
        }
    });
}

}  // namespace skein
