#pragma once

#include "public/common/Bytes.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace skein {

class FileLogger;

/// Why the database failed.
enum class DatabaseError { cannotOpen, busy, damaged, failed };
std::string_view textOf(DatabaseError error) noexcept;

/// `what()` is the text, followed by what SQLite or the system says.
class DatabaseException : public std::runtime_error {
public:
    DatabaseException(DatabaseError why, std::string_view detail);
    const DatabaseError error;
};

/// Nothing, an integer, a real number, text or bytes.
using DatabaseValue = std::variant<std::monostate, std::int64_t, double, std::string, Bytes>;
using DatabaseRow = std::vector<DatabaseValue>;

/// An SQLite file that several threads and processes use at once, and that a killed process leaves whole.
///
/// A file that is damaged is renamed to `<name>.damaged` (over an older one) and a fresh one is begun. The file is
/// readable by its owner alone. Beside it stand SQLite's `-wal` and `-shm` and the empty `<name>.lock`, which is
/// held while the file is opened.
/// Thread: any but those of the `io` pool: every call may wait for the disk, for another thread or another process.
class Database {
public:
    /// Runs one SQL statement, with `values` for its `?`, and returns the rows of its result.
    using Run = std::function<std::vector<DatabaseRow>(std::string_view sql, const std::vector<DatabaseValue>& values)>;

    /// Opens or creates `file` and its folders. `schema` holds statements that may be run at every opening.
    /// `log` outlives the database. Throws DatabaseException (cannotOpen, busy).
    Database(std::filesystem::path file, std::string schema, FileLogger& log);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database();

    /// One statement by itself. Throws DatabaseException (busy, damaged, failed).
    std::vector<DatabaseRow> run(std::string_view sql, const std::vector<DatabaseValue>& values = {});
    /// `work`'s statements, all or (when it throws) none of them; no other process writes in between. `work` runs
    /// again when the file turns out to be damaged, and calls no other operation of this database.
    void transaction(const std::function<void(const Run& run)>& work);

private:
    class Connection;

    std::unique_ptr<Connection> open();
    void setAside();
    /// Runs `work` on the connection; when that finds the file damaged, once more on a fresh one.
    void withConnection(const std::function<void(Connection&)>& work);

    const std::filesystem::path file_;
    const std::string schema_;
    FileLogger& log_;
    std::mutex mutex_;  ///< one connection is one statement at a time
    std::unique_ptr<Connection> connection_;
};

}  // namespace skein
