#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace skein {

enum class LogLevel : std::uint8_t { trace, debug, info, warning, error, off };

/// The level of that name ("info"); nothing for another text.
std::optional<LogLevel> logLevelFrom(std::string_view name) noexcept;

/// The program's log: one line an event, opened by a bracketed tag ("[Session] …").
///
/// `trace` is for lines a block or datagram, `debug` for lines a piece or peer, `info` for the rest. A line whose level
/// is off costs one load; its text is not put together. Lines are written by a thread of the logger's own; when it
/// falls behind, the oldest waiting lines are dropped. Thread: any.
class FileLogger {
public:
    /// A longer line is cut: what waits to be written stays small however much a remote side had us quote.
    static constexpr std::size_t longestLineBytes = 8192;

    /// A logger that drops everything.
    FileLogger();
    /// Appends to `file`, which is created with its folders; at 5 MiB it is rotated, three older files are kept.
    /// A file that cannot be opened is reported once on stderr; the logger then drops everything.
    FileLogger(const std::filesystem::path& file, LogLevel least);
    FileLogger(const FileLogger&) = delete;
    FileLogger& operator=(const FileLogger&) = delete;
    /// Writes out what waits.
    virtual ~FileLogger();

    /// Drops what is below `least` from now on.
    void setLeast(LogLevel least) noexcept { least_.store(least, std::memory_order_relaxed); }
    bool wants(LogLevel level) const noexcept { return level >= least_.load(std::memory_order_relaxed); }

    template <class... Parts>
    void log(LogLevel level, const Parts&... parts) {
        if (!wants(level)) return;
        std::string line;
        (appendPart(line, parts), ...);
        write(level, line);
    }
    template <class... Parts>
    void trace(const Parts&... parts) {
        log(LogLevel::trace, parts...);
    }
    template <class... Parts>
    void debug(const Parts&... parts) {
        log(LogLevel::debug, parts...);
    }
    template <class... Parts>
    void info(const Parts&... parts) {
        log(LogLevel::info, parts...);
    }
    template <class... Parts>
    void warning(const Parts&... parts) {
        log(LogLevel::warning, parts...);
    }
    template <class... Parts>
    void error(const Parts&... parts) {
        log(LogLevel::error, parts...);
    }

protected:
    /// For a logger that keeps its lines elsewhere (tests): takes all lines from `least` on through `write`.
    explicit FileLogger(LogLevel least);
    /// What of `line` is not `printable` (a peer may have sent it) is written as "?".
    virtual void write(LogLevel level, std::string_view line);

private:
    template <class Part>
    static void appendPart(std::string& line, const Part& part) {
        if constexpr (std::is_arithmetic_v<Part> && !std::is_same_v<Part, char>) {
            line += std::to_string(part);
        } else {
            line += part;
        }
    }

    struct Sink;
    std::atomic<LogLevel> least_;
    std::unique_ptr<Sink> sink_;
};

}  // namespace skein
