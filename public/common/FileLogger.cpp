#include "public/common/FileLogger.h"

#include "public/common/Printable.h"
#include "public/common/PrivateFolder.h"
#include "public/common/ShownURL.h"

#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <cstdio>
#include <new>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace skein {

namespace {

constexpr std::size_t rotateAtBytes = std::size_t{5} << 20U;
constexpr std::size_t keptFiles = 3;
constexpr std::size_t waitingLines = 8192;

spdlog::level::level_enum levelOf(LogLevel level) {
    switch (level) {
        case LogLevel::trace: return spdlog::level::trace;
        case LogLevel::debug: return spdlog::level::debug;
        case LogLevel::info: return spdlog::level::info;
        case LogLevel::warning: return spdlog::level::warn;
        case LogLevel::error: return spdlog::level::err;
        case LogLevel::off: break;
    }
    return spdlog::level::off;
}

}  // namespace

std::optional<LogLevel> logLevelFrom(std::string_view name) noexcept {
    if (name == "trace") return LogLevel::trace;
    if (name == "debug") return LogLevel::debug;
    if (name == "info") return LogLevel::info;
    if (name == "warning") return LogLevel::warning;
    if (name == "error") return LogLevel::error;
    return std::nullopt;
}

struct FileLogger::Sink {
    explicit Sink(const std::filesystem::path& file) {
        createPrivateFolder(file.parent_path());
        spdlog::file_event_handlers handlers;
        handlers.after_open = [](const spdlog::filename_t&, std::FILE* opened) {
            ::fchmod(::fileno(opened), S_IRUSR | S_IWUSR);  // rotating opens a new file each time
        };
        auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file.string(), rotateAtBytes, keptFiles,
                                                                           false, handlers);
        try {
            writer = std::make_shared<spdlog::details::thread_pool>(waitingLines, 1);
            logger = std::make_shared<spdlog::async_logger>("skein", sink, writer,
                                                            spdlog::async_overflow_policy::overrun_oldest);
        } catch (const std::system_error&) {
            // No thread is to be had: whoever has something to say writes it.
            logger = std::make_shared<spdlog::logger>("skein", std::move(sink));
        }
        // spdlog itself would tell on stderr, where the program's own lines are expected.
        logger->set_error_handler([](const std::string&) {});
        logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %L %v");
        logger->set_level(spdlog::level::trace);
        logger->flush_on(spdlog::level::debug);
    }

    std::shared_ptr<spdlog::logger> logger;
    std::shared_ptr<spdlog::details::thread_pool>
        writer;  // goes first: writes out what waits, and joins its thread; null without one
};

FileLogger::FileLogger() : FileLogger(LogLevel::off) {}

FileLogger::FileLogger(LogLevel least) : least_(least) {}

FileLogger::FileLogger(const std::filesystem::path& file, LogLevel least) : least_(least) {
    try {
        sink_ = std::make_unique<Sink>(file);
    } catch (const std::bad_alloc&) {
        throw;  // the rest would fail as well, and say it again
    } catch (const std::exception& error) {
        std::fprintf(stderr, "skein: the log is off: %s\n", error.what());
        least_ = LogLevel::off;
    }
}

FileLogger::~FileLogger() = default;

void FileLogger::write(LogLevel level, std::string_view line) {
    if (!sink_) return;
    const bool isCut = line.size() > longestLineBytes;
    std::string clean = withShownURLs(printable(line.substr(0, longestLineBytes)));
    if (isCut) clean += "…";
    // As a view: spdlog would take a string for a format, and what a peer sent may hold braces.
    sink_->logger->log(levelOf(level), spdlog::string_view_t(clean));
}

}  // namespace skein
