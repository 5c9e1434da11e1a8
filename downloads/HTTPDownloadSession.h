#pragma once

#include "downloads/DownloadProgress.h"
#include "downloads/FinishedDownloads.h"
#include "downloads/PartFile.h"
#include "downloads/ResumeData.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/HTTPClient.h"
#include "public/common/HTTPStream.h"
#include "public/common/Notifier.h"
#include "public/common/Random.h"
#include "public/common/TaskGroup.h"
#include "public/common/Throttle.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace skein {

/// Downloads one file over HTTP or HTTPS, with pause and resume, also after the process was killed.
///
/// The body goes to NAME.part in the target folder, which takes its name when it is whole; what is needed to go on from
/// there lies in the resume folder; what was begun from the same address with another query is gone on with where the
/// server's validators and size say that it is the same file. A lost connection is made anew `maxRetries` times, and so
/// often is a busy server asked again. What the server has changed in between, or will not send in part, is downloaded
/// from the start; so is a part that another program changed, and what could not be synced is fetched again. A file
/// that was finished by the same URL and folder before, and that the server still has, is complete without another
/// download. Owner: a command or the download manager, which awaits `stop()` before it lets go; a stopped session is at
/// its end, and a new one with the same URL and folder goes on. Thread: any; the state lives on one strand, on which
/// the callbacks come too. Failures become the state `failed`, never exceptions. Source: RFC 9110 (14, ranges), RFC
/// 6266.
class HTTPDownloadSession {
public:
    static constexpr int maxRetries = 5;
    /// Doubled with each retry.
    static constexpr std::chrono::seconds firstRetryDelay{1};
    /// A retry that brought so much further has recovered: the next loss is a first one.
    static constexpr std::int64_t recoveryBytes = std::int64_t{1} << 20U;
    /// A server that sends nothing for so long is a lost connection.
    static constexpr std::chrono::seconds stallLimit{60};
    /// Whatever a busy server asks for: who waits for a download sees by then that it does not come.
    static constexpr std::chrono::seconds longestRetryDelay{3600};
    static constexpr std::chrono::seconds recordInterval{5};
    static constexpr std::string_view userAgent =
        "Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.0 "
        "Safari/605.1.15";

    struct State {
        enum class Kind : std::uint8_t { idle, connecting, downloading, paused, completed, failed };
        Kind kind = Kind::idle;
        std::string message;  ///< with `failed`
    };

    /// `totalBytes` is -1 while it is not known; the fraction is then 0.
    struct Callbacks {
        std::function<void(const State&)> onStateChanged;
        std::function<void(double fraction, std::int64_t downloadedBytes, std::int64_t totalBytes,
                           double bytesPerSecond)>
            onProgressUpdated;
        /// With each response, and again when the file had to be given another name in the end.
        std::function<void(const std::string& fileName, std::int64_t totalBytes)> onFileInfoReceived;
        std::function<void(const std::string&)> onStatusMessage;
    };

    /// What the process shares among its sessions; all of it outlives them.
    struct Environment {
        asio::any_io_executor io;
        asio::any_io_executor disk;
        Clock& clock;
        Random& random;
        FileLogger& log;
        HTTPClient& http;
        std::filesystem::path resumeFolder;      ///< created when missing
        SharedThrottle* downloadRate = nullptr;  ///< of all downloads together; none: not limited
        FileCalls& files = FileCalls::real();
    };

    /// `savePath` is an existing folder. A `fileName`, reduced to one path component, goes before what the server says.
    HTTPDownloadSession(const Environment& environment, std::string url, std::filesystem::path savePath,
                        std::optional<std::string> fileName = std::nullopt);
    HTTPDownloadSession(const HTTPDownloadSession&) = delete;
    HTTPDownloadSession& operator=(const HTTPDownloadSession&) = delete;
    ~HTTPDownloadSession();

    /// Before `start`.
    void setCallbacks(Callbacks callbacks) { callbacks_ = std::move(callbacks); }

    /// Before `start`: the resume data outlives the completion and then says so, until `clearResumeData`. For an owner
    /// who has yet to put down what it hears; a session that is started meanwhile is completed at once, without asking
    /// the server. Of what was downloaded by other owners nothing is known then.
    void keepRecord() noexcept { keepsRecord_ = true; }

    /// Begins, from resume data when there is some. Returns at once; nothing happens when it runs already.
    asio::awaitable<void> start();
    /// Returns when nothing is transferred any more and the resume data is saved. Without effect unless it runs.
    asio::awaitable<void> pause();
    /// Goes on after `pause` or a failure. Returns at once.
    asio::awaitable<void> resume();
    /// Saves the resume data; after it nothing of the session runs, and no callback comes. May be called again.
    asio::awaitable<void> stop();
    /// Forgets the resume data and deletes the unfinished file that it speaks of; not while the session runs.
    /// May be called after `stop`.
    asio::awaitable<void> clearResumeData();
    /// Bytes a second from now on; 0 for no limit.
    asio::awaitable<void> setDownloadLimit(std::int64_t bytesPerSecond);
    asio::awaitable<State> state();
    /// Where the file is, or will be as far as is known now. Empty before there is a name.
    asio::awaitable<std::filesystem::path> destinationURL();

    const std::string& url() const noexcept { return url_; }

    /// The name that a URL suggests, as one path component: its last one, or "download_" and random digits.
    static std::string deriveFileName(std::string_view url, Random& random);
    /// The name that a Content-Disposition header suggests, as one path component.
    static std::optional<std::string> parseContentDisposition(std::string_view header);
    /// Whether the link is taken for a file: http or https, and a path extension of `downloadableExtensions`.
    static bool isDownloadableURL(std::string_view url);
    static std::span<const std::string_view> downloadableExtensions() noexcept;

private:
    /// How one request of several ended.
    enum class Ending : std::uint8_t {
        complete,
        more,  ///< the server ended a range before the end of the file
        lost,
        busy,
        spoilt,  ///< the part was dropped, or what was not synced of it
        adopted,
        startAgain,
        failed
    };
    /// What an earlier run has left.
    enum class Opening : std::uint8_t { usable, finished, unusable };
    /// Why it did not bring the file.
    struct Failure {
        std::string message;
        std::string status;
    };
    class Turn;

    asio::awaitable<void> waitForTurn();
    asio::awaitable<void> begin(bool isResumption);
    asio::awaitable<void> doPause();
    asio::awaitable<void> shutDown();
    asio::awaitable<void> endRun();
    asio::awaitable<void> doSetLimit(std::int64_t bytesPerSecond);
    asio::awaitable<State> readState();
    asio::awaitable<std::filesystem::path> readDestination();

    asio::awaitable<void> run(bool isResumption);
    asio::awaitable<Opening> openPart(bool isResumption);
    asio::awaitable<Ending> attempt();
    asio::awaitable<Ending> transfer(HTTPStream& stream);
    asio::awaitable<void> handleResponse(const HTTPResponse& head, bool restarts, std::int64_t totalBytes);
    asio::awaitable<bool> adoptPart(const HTTPResponse& head, std::int64_t totalBytes);
    asio::awaitable<void> preparePart(ResumeData data);
    asio::awaitable<bool> store(std::vector<Bytes>& chunks);
    asio::awaitable<void> storeSlowly(ByteView bytes);
    asio::awaitable<void> waitToRetry(int retry, Ending why);
    asio::awaitable<bool> startAgain();
    // File calls, on the disk pool.
    void findFinished();
    void trustPart();
    bool settlePart();
    void putDownPart();
    void finishPart();

    asio::awaitable<Ending> handleCompletion();
    asio::awaitable<void> handleError();
    asio::awaitable<bool> saveResumeData();
    asio::awaitable<void> closePart();
    asio::awaitable<void> reportRegularly();
    void handleProgress();

    void takeOver(std::int64_t totalBytes);
    std::string nameFor(const HTTPResponse& head) const;
    void setState(State::Kind kind, std::string message = {});
    void setStatus(const std::string& text) const;
    void reportFileInfo() const;
    void noteFailure(std::string message, std::string_view forLog);
    void noteFileFailure(const std::system_error& error);
    bool isRunning() const noexcept;
    bool isWhole() const noexcept;

    const Environment environment_;
    const std::string url_;
    const std::filesystem::path savePath_;
    const std::optional<std::string> fileName_;
    const std::filesystem::path resumeDataURL_;
    const FinishedDownloads finished_;
    Callbacks callbacks_;
    bool keepsRecord_ = false;

    State state_;
    ResumeData resumeData_;
    bool isFinishedBefore_ = false;   ///< `resumeData_` speaks of a file that is whole, unless the server has another
    std::unique_ptr<PartFile> part_;  ///< open while it is written
    std::filesystem::path destination_;
    std::int64_t bodyEnd_ = -1;  ///< where in the file the response ends; -1: not known
    DownloadProgress progress_;
    Throttle throttle_;
    Failure failure_;                                 ///< of the last attempt
    std::optional<std::chrono::seconds> retryAfter_;  ///< what the server said, when it was busy
    bool hadResponse_ = false;                        ///< in this run
    Clock::TimePoint lastReportAt_{};
    Clock::TimePoint lastRecordAt_{};

    bool isChanging_ = false;  ///< one of start, pause, resume and stop is at work
    TaskGroup tasks_;
    Notifier changed_;
    std::unique_ptr<TaskGroup> run_;  ///< what `pause` ends
};

}  // namespace skein
