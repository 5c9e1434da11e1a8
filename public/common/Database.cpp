#include "public/common/Database.h"

#include "public/common/FileIdentity.h"
#include "public/common/FileLogger.h"
#include "public/common/PrivateFolder.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace skein {

namespace {

/// How long a call waits for another process that writes; its transactions take milliseconds.
constexpr int busyTimeoutMilliseconds = 10'000;

DatabaseError errorOf(int code) noexcept {
    switch (code & 0xFF) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED: return DatabaseError::busy;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB: return DatabaseError::damaged;
        case SQLITE_CANTOPEN: return DatabaseError::cannotOpen;
        default: return DatabaseError::failed;
    }
}

std::filesystem::path besides(const std::filesystem::path& file, const char* suffix) {
    std::filesystem::path path = file;
    path += suffix;
    return path;
}

class FileDescriptor {
public:
    FileDescriptor(const std::filesystem::path& path, int flags) : number_(::open(path.c_str(), flags, 0600)) {
        if (number_ < 0) throw DatabaseException(DatabaseError::cannotOpen, std::strerror(errno));
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { ::close(number_); }
    int number() const noexcept { return number_; }

private:
    const int number_;
};

/// Held while a process opens the file: two that find it damaged must not both set it aside, the second one with
/// what the first began afresh.
class OpeningLock {
public:
    explicit OpeningLock(const std::filesystem::path& file)
        : lock_(besides(file, ".lock"), O_CREAT | O_RDWR | O_CLOEXEC) {
        while (::flock(lock_.number(), LOCK_EX) != 0)
            if (errno != EINTR) throw DatabaseException(DatabaseError::cannotOpen, std::strerror(errno));
    }

private:
    const FileDescriptor lock_;  // closing it unlocks
};

void createFolderOf(const std::filesystem::path& file) {
    try {
        createPrivateFolder(file.parent_path());
    } catch (const std::system_error& error) {
        throw DatabaseException(DatabaseError::cannotOpen, error.code().message());
    }
}

void createPrivately(const std::filesystem::path& file) {
    // One that is there is not even opened: closing it would release the locks that this process's other connections
    // hold on it (POSIX locks belong to the process, not to the descriptor).
    if (!std::filesystem::exists(file)) const FileDescriptor created(file, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC);
}

}  // namespace

std::string_view textOf(DatabaseError error) noexcept {
    switch (error) {
        case DatabaseError::cannotOpen: return "The database cannot be opened: ";
        case DatabaseError::busy: return "The database is in use: ";
        case DatabaseError::damaged: return "The database is damaged: ";
        case DatabaseError::failed: break;
    }
    return "The database failed: ";
}

DatabaseException::DatabaseException(DatabaseError why, std::string_view detail)
    : std::runtime_error(std::string(textOf(why)).append(detail)), error(why) {}

/// An open SQLite file, and the running of statements on it.
class Database::Connection {
public:
    explicit Connection(const std::filesystem::path& file) {
        const int code = sqlite3_open_v2(file.c_str(), &handle_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
        if (code != SQLITE_OK) {
            const std::string detail = sqlite3_errstr(code);
            sqlite3_close(handle_);
            throw DatabaseException(errorOf(code), detail);
        }
        sqlite3_busy_timeout(handle_, busyTimeoutMilliseconds);
        identity_ = FileIdentity::at(file);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { sqlite3_close(handle_); }

    /// The statements of `sql`, whose rows go unread.
    void runAll(const std::string& sql) { check(sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr)); }

    std::vector<DatabaseRow> run(std::string_view sql, const std::vector<DatabaseValue>& values) {
        sqlite3_stmt* prepared = nullptr;
        check(sqlite3_prepare_v2(handle_, sql.data(), static_cast<int>(sql.size()), &prepared, nullptr));
        const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement(prepared, sqlite3_finalize);
        for (std::size_t i = 0; i < values.size(); ++i) bind(prepared, static_cast<int>(i) + 1, values[i]);
        std::vector<DatabaseRow> rows;
        int code = SQLITE_ROW;
        while ((code = sqlite3_step(prepared)) == SQLITE_ROW) rows.push_back(rowOf(prepared));
        if (code != SQLITE_DONE) check(code);
        return rows;
    }

    /// False once `file` names another file than the one that was opened.
    bool isOf(const std::filesystem::path& file) const { return FileIdentity::at(file) == identity_; }
    bool isInTransaction() const noexcept { return sqlite3_get_autocommit(handle_) == 0; }

private:
    void check(int code) const {
        if (code != SQLITE_OK) throw DatabaseException(errorOf(code), sqlite3_errmsg(handle_));
    }

    void bind(sqlite3_stmt* statement, int index, const DatabaseValue& value) const {
        check(std::visit(
            [&](const auto& typed) {
                using Type = std::decay_t<decltype(typed)>;
                if constexpr (std::is_same_v<Type, std::int64_t>) {
                    return sqlite3_bind_int64(statement, index, typed);
                } else if constexpr (std::is_same_v<Type, double>) {
                    return sqlite3_bind_double(statement, index, typed);
                } else if constexpr (std::is_same_v<Type, std::string>) {
                    return sqlite3_bind_text64(statement, index, typed.data(), typed.size(), SQLITE_STATIC,
                                               SQLITE_UTF8);
                } else if constexpr (std::is_same_v<Type, Bytes>) {
                    // A null pointer, which an empty vector may have, would bind NULL.
                    const void* data = typed.empty() ? static_cast<const void*>("") : typed.data();
                    return sqlite3_bind_blob64(statement, index, data, typed.size(), SQLITE_STATIC);
                } else {
                    return sqlite3_bind_null(statement, index);
                }
            },
            value));
    }

    static DatabaseValue valueOf(sqlite3_stmt* statement, int column) {
        const auto size = [&] { return static_cast<std::size_t>(sqlite3_column_bytes(statement, column)); };
        switch (sqlite3_column_type(statement, column)) {
            case SQLITE_INTEGER: return std::int64_t{sqlite3_column_int64(statement, column)};
            case SQLITE_FLOAT: return sqlite3_column_double(statement, column);
            case SQLITE_TEXT: {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
                return std::string(text, size());
            }
            case SQLITE_BLOB: {
                const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, column));
                return data == nullptr ? Bytes() : Bytes(data, data + size());
            }
            default: return std::monostate();
        }
    }

    static DatabaseRow rowOf(sqlite3_stmt* statement) {
        DatabaseRow row;
        for (int column = 0; column < sqlite3_column_count(statement); ++column)
            row.push_back(valueOf(statement, column));
        return row;
    }

    sqlite3* handle_ = nullptr;
    FileIdentity identity_;
};

Database::Database(std::filesystem::path file, std::string schema, FileLogger& log)
    : file_(std::move(file)), schema_(std::move(schema)), log_(log), connection_(open()) {}

Database::~Database() = default;

std::unique_ptr<Database::Connection> Database::open() {
    createFolderOf(file_);
    const OpeningLock lock(file_);
    createPrivately(file_);
    for (bool isSecond = false;; isSecond = true) {
        try {
            auto connection = std::make_unique<Connection>(file_);
            const auto faults = connection->run("PRAGMA quick_check(1)", {});
            if (faults.size() != 1 || faults[0] != DatabaseRow{std::string("ok")})
                throw DatabaseException(DatabaseError::damaged, "quick_check");
            // Readers and a writer do not wait for each other, and a commit is on the disk when it returns.
            connection->runAll("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;" + schema_);
            return connection;
        } catch (const DatabaseException& failure) {
            if (failure.error != DatabaseError::damaged || isSecond) throw;
            log_.error("[Database] ❌ ", file_.string(), " is damaged, set aside: ", failure.what());
        }
        setAside();
    }
}

void Database::setAside() {
    std::error_code error;
    // First the journal: left beside a fresh file, it would be replayed into that.
    std::filesystem::rename(besides(file_, "-wal"), besides(file_, ".damaged-wal"), error);
    std::filesystem::remove(besides(file_, "-shm"), error);
    std::filesystem::rename(file_, besides(file_, ".damaged"), error);
    if (error) throw DatabaseException(DatabaseError::cannotOpen, error.message());
    createPrivately(file_);
}

void Database::withConnection(const std::function<void(Connection&)>& work) {
    const std::lock_guard lock(mutex_);
    // Another process may have set the file aside: what is written to the old one would be lost.
    if (connection_ && !connection_->isOf(file_)) connection_.reset();
    if (!connection_) connection_ = open();
    try {
        work(*connection_);
        return;
    } catch (const DatabaseException& failure) {
        if (failure.error != DatabaseError::damaged) throw;
    }
    connection_.reset();
    connection_ = open();
    work(*connection_);
}

std::vector<DatabaseRow> Database::run(std::string_view sql, const std::vector<DatabaseValue>& values) {
    std::vector<DatabaseRow> rows;
    withConnection([&](Connection& connection) { rows = connection.run(sql, values); });
    return rows;
}

void Database::transaction(const std::function<void(const Run& run)>& work) {
    withConnection([&](Connection& connection) {
        connection.runAll("BEGIN IMMEDIATE");
        try {
            work([&](std::string_view sql, const std::vector<DatabaseValue>& values) {
                return connection.run(sql, values);
            });
            connection.runAll("COMMIT");
        } catch (...) {
            if (connection.isInTransaction()) connection.runAll("ROLLBACK");
            throw;
        }
    });
}

}  // namespace skein
