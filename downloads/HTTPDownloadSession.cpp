#include "downloads/HTTPDownloadSession.h"

#include "downloads/HTTPFileName.h"
#include "downloads/ResponsePlan.h"
#include "public/common/HTTPDate.h"
#include "public/common/RunOn.h"
#include "public/common/Within.h"

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/cancellation_state.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <system_error>
#include <utility>

namespace skein {

namespace {

constexpr std::chrono::seconds calmReportInterval{1};

/// What a browser would send for what was typed: blanks and other scripts percent-encoded.
std::string encoded(std::string_view url) {
    std::string text;
    for (const char character : url) {
        const auto byte = static_cast<std::uint8_t>(character);
        if (byte == ' ' || byte >= 0x80) {
            text += '%' + toUpperHex(ByteView(&byte, 1));
        } else {
            text += character;
        }
    }
    return text;
}

/// Whether the server still has the file that was finished before.
bool isConfirmed(const ResumeData& finished, const HTTPResponse& head, const ResponsePlan& plan) {
    constexpr int notModified = 304;
    return head.status == notModified ||
           (plan.action == ResponsePlan::Action::restart && finished.isConfirmedBy(head, plan.totalBytes));
}

/// A connection that was lost comes back; a refused certificate or a loop of redirects stays.
bool isLoss(HTTPError error, bool hadResponse) noexcept {
    switch (error) {
        case HTTPError::timeout:
        case HTTPError::transferFailed: return true;
        // A first connection that never came about is a wrong address rather than a loss.
        case HTTPError::cannotResolve:
        case HTTPError::cannotConnect: return hadResponse;
        case HTTPError::invalidRequest:
        case HTTPError::forbiddenAddress:
        case HTTPError::insecure:
        case HTTPError::bodyTooLarge:
        case HTTPError::tooManyRedirects:
        case HTTPError::forbiddenRedirect: break;
    }
    return false;
}

}  // namespace

/// Start, pause, resume and stop come one after the other, from whichever threads.
class HTTPDownloadSession::Turn {
public:
    explicit Turn(HTTPDownloadSession& session) : session_(session) { session_.isChanging_ = true; }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() {
        session_.isChanging_ = false;
        session_.changed_.notify();
    }

private:
    HTTPDownloadSession& session_;
};

HTTPDownloadSession::HTTPDownloadSession(const Environment& environment, std::string url,
                                         std::filesystem::path savePath, std::optional<std::string> fileName)
    : environment_(environment),
      url_(std::move(url)),
      savePath_(std::move(savePath)),
      fileName_(fileName ? HTTPFileName::safe(*fileName) : std::nullopt),
      resumeDataURL_(ResumeData::fileFor(environment_.resumeFolder, url_, savePath_)),
      finished_(resumeDataURL_),
      tasks_(environment_.io),
      changed_(tasks_.strand()) {
    throttle_.share(environment_.downloadRate);
}

HTTPDownloadSession::~HTTPDownloadSession() = default;

std::string HTTPDownloadSession::deriveFileName(std::string_view url, Random& random) {
    if (auto name = HTTPFileName::fromURL(url)) return *name;
    std::array<std::uint8_t, 4> suffix{};
    random.fill(suffix);
    return "download_" + toHex(suffix);
}
std::optional<std::string> HTTPDownloadSession::parseContentDisposition(std::string_view header) {
    return HTTPFileName::fromContentDisposition(header);
}
bool HTTPDownloadSession::isDownloadableURL(std::string_view url) { return HTTPFileName::isDownloadableURL(url); }
std::span<const std::string_view> HTTPDownloadSession::downloadableExtensions() noexcept {
    return HTTPFileName::downloadableExtensions();
}

asio::awaitable<void> HTTPDownloadSession::start() { return tasks_.call(begin(false)); }
asio::awaitable<void> HTTPDownloadSession::resume() { return tasks_.call(begin(true)); }
asio::awaitable<void> HTTPDownloadSession::pause() { return tasks_.call(doPause()); }
asio::awaitable<void> HTTPDownloadSession::stop() { return tasks_.finish(shutDown()); }
asio::awaitable<void> HTTPDownloadSession::setDownloadLimit(std::int64_t bytesPerSecond) {
    return tasks_.call(doSetLimit(bytesPerSecond));
}
asio::awaitable<HTTPDownloadSession::State> HTTPDownloadSession::state() { return tasks_.call(readState()); }
asio::awaitable<std::filesystem::path> HTTPDownloadSession::destinationURL() { return tasks_.call(readDestination()); }

asio::awaitable<void> HTTPDownloadSession::clearResumeData() {
    auto forget = [file = resumeDataURL_, url = url_, folder = savePath_] {
        if (const auto data = ResumeData::load(file, url)) PartFile::remove(folder, data->fileName, data->part);
        std::filesystem::remove(file);
    };
    try {
        co_await runOn(environment_.disk, std::move(forget));
    } catch (const std::system_error& error) {
        environment_.log.warning("[HTTP] resume data not deleted: ", error.what());
    }
}

asio::awaitable<void> HTTPDownloadSession::waitForTurn() {
    while (isChanging_) co_await changed_.wait();
}

asio::awaitable<void> HTTPDownloadSession::begin(bool isResumption) {
    co_await waitForTurn();
    const Turn turn(*this);
    if (isRunning() || state_.kind == State::Kind::completed) co_return;
    co_await endRun();  // which has failed and is over, but for its traces
    setState(State::Kind::connecting);
    setStatus("Connecting...");
    failure_ = {};
    hadResponse_ = false;
    run_ = std::make_unique<TaskGroup>(tasks_.strand());
    run_->spawn(run(isResumption));
    run_->spawn(reportRegularly());
}

asio::awaitable<void> HTTPDownloadSession::doPause() {
    co_await waitForTurn();
    const Turn turn(*this);
    // Half a pause would leave a session that neither runs nor knows it.
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    if (!isRunning()) co_return;
    co_await endRun();
    if (!isRunning()) co_return;  // it was just done
    setState(State::Kind::paused);
    setStatus("Paused");
}

asio::awaitable<void> HTTPDownloadSession::shutDown() {
    co_await waitForTurn();
    const Turn turn(*this);
    callbacks_ = {};
    co_await endRun();
    if (isRunning()) setState(State::Kind::idle);
    co_await tasks_.stop();
}

/// Ends what runs and puts its resume data away.
asio::awaitable<void> HTTPDownloadSession::endRun() {
    if (!run_) co_return;
    co_await run_->stop();
    run_.reset();
    co_await closePart();
}

asio::awaitable<void> HTTPDownloadSession::doSetLimit(std::int64_t bytesPerSecond) {
    throttle_.setLimit(bytesPerSecond);
    co_return;
}
asio::awaitable<HTTPDownloadSession::State> HTTPDownloadSession::readState() { co_return state_; }
asio::awaitable<std::filesystem::path> HTTPDownloadSession::readDestination() { co_return destination_; }

asio::awaitable<void> HTTPDownloadSession::run(bool isResumption) {
    const Opening opening = co_await openPart(isResumption);
    bool goesOn = opening != Opening::unusable;
    bool isComplete = opening == Opening::finished;
    std::int64_t furthest = part_ ? part_->size() : 0;
    for (int retries = 0; goesOn;) {
        Ending ending = Ending::complete;
        if (!std::exchange(isComplete, false)) ending = co_await attempt();
        if (ending == Ending::complete) ending = co_await handleCompletion();
        if (ending == Ending::complete) co_return;
        const std::int64_t reached = part_ ? part_->size() : 0;
        if (reached - furthest >= recoveryBytes) retries = 0;
        furthest = std::max(furthest, reached);
        if (ending == Ending::adopted || ending == Ending::more) continue;
        if (ending == Ending::failed || retries == maxRetries) {
            goesOn = false;
        } else if (ending == Ending::startAgain) {
            ++retries;
            goesOn = co_await startAgain();
        } else {
            co_await waitToRetry(++retries, ending);
        }
    }
    co_await handleError();
}

/// One request, and what comes of it.
asio::awaitable<HTTPDownloadSession::Ending> HTTPDownloadSession::attempt() try {
    if (isWhole()) co_return Ending::complete;
    HTTPRequest request;
    request.url = encoded(url_);
    request.headers =
        isFinishedBefore_ ? revalidationHeaders(resumeData_) : rangeHeaders(resumeData_, part_ ? part_->size() : 0);
    request.headers.push_back({"User-Agent", std::string(userAgent)});
    request.headers.push_back({"Accept-Encoding", "identity"});  // a range is one of the file, not of its compression
    request.totalTimeout = std::chrono::milliseconds::zero();
    auto opening = environment_.http.open(std::move(request));
    const auto stream = co_await within(environment_.clock, stallLimit, std::move(opening));
    hadResponse_ = true;
    co_return co_await transfer(*stream);
} catch (const HTTPException& error) {
    noteFailure(error.what(), textOf(error.error));
    co_return isLoss(error.error, hadResponse_) ? Ending::lost : Ending::failed;
} catch (const TimeLimitExceeded&) {
    noteFailure("The server does not answer any more", "silence");
    co_return Ending::lost;
} catch (const std::system_error& error) {
    noteFileFailure(error);
    co_return Ending::failed;
}

asio::awaitable<HTTPDownloadSession::Ending> HTTPDownloadSession::transfer(HTTPStream& stream) {
    const HTTPResponse& head = stream.head();
    const std::int64_t partBytes = part_ ? part_->size() : 0;
    const ResponsePlan plan = ResponsePlan::of(head, resumeData_, partBytes);
    if (isFinishedBefore_ && isConfirmed(resumeData_, head, plan)) co_return Ending::complete;
    if (plan.action == ResponsePlan::Action::complete) {
        resumeData_.totalBytes = plan.totalBytes;
        takeOver(plan.totalBytes);
        co_return Ending::complete;
    }
    if (plan.action == ResponsePlan::Action::askAgain) {
        noteFailure("The server sends nothing that goes on where the file ends", "unusable range");
        co_return Ending::startAgain;
    }
    const bool isBusy = plan.action == ResponsePlan::Action::askLater;
    if (isBusy || plan.action == ResponsePlan::Action::refuse) {
        failure_.message = failure_.status = "HTTP " + std::to_string(head.status);
        environment_.log.warning("[HTTP] refused: ", failure_.message);
        retryAfter_ =
            retryAfterIn(head.header("retry-after").value_or(std::string_view()), environment_.clock.wallNow());
        co_return isBusy ? Ending::busy : Ending::failed;
    }
    const bool restarts = plan.action == ResponsePlan::Action::restart || partBytes == 0;
    if (!part_) {
        const bool isAdopted = co_await adoptPart(head, plan.totalBytes);
        if (isAdopted) co_return Ending::adopted;
    }
    isFinishedBefore_ = false;
    bodyEnd_ = plan.endBytes;
    co_await handleResponse(head, restarts, plan.totalBytes);
    for (;;) {
        std::vector<Bytes> chunks = co_await within(environment_.clock, stallLimit, stream.read());
        if (chunks.empty()) break;
        const bool isSound = co_await store(chunks);
        if (!isSound) co_return Ending::spoilt;
        stream.recycle(std::move(chunks));
    }
    if (part_->size() < bodyEnd_) {
        noteFailure("The server closed the connection after " + std::to_string(part_->size()) + " of " +
                        std::to_string(std::max(bodyEnd_, plan.totalBytes)) + " bytes",
                    "cut short");
        co_return Ending::lost;
    }
    // The end of a range is the end of the file only where the file's size says so.
    co_return bodyEnd_ < 0 || isWhole() ? Ending::complete : Ending::more;
}

asio::awaitable<void> HTTPDownloadSession::handleResponse(const HTTPResponse& head, bool restarts,
                                                          std::int64_t totalBytes) {
    if (restarts) {
        std::string name = part_ ? part_->name() : nameFor(head);
        ResumeData data = ResumeData::of(url_, std::move(name), head, totalBytes);
        co_await preparePart(std::move(data));
    }
    resumeData_.totalBytes = totalBytes;
    setStatus(head.status == 206 ? "Server supports resume, downloading..." : "Downloading...");
    takeOver(totalBytes);
    setStatus("Downloading " + part_->name());
    handleProgress();  // first: what is there already is none of what comes now
    setState(State::Kind::downloading);
}

asio::awaitable<void> HTTPDownloadSession::waitToRetry(int retry, Ending why) {
    std::chrono::seconds delay = firstRetryDelay * (1 << (retry - 1));
    std::string reason = "Connection lost";
    if (why == Ending::busy) reason = "The server is busy (" + failure_.message + ")";
    if (why == Ending::spoilt) reason = failure_.message;
    if (why == Ending::busy && retryAfter_) delay = std::clamp(*retryAfter_, firstRetryDelay, longestRetryDelay);
    setState(State::Kind::connecting);
    setStatus(reason + ", retrying in " + std::to_string(delay.count()) + " s (" + std::to_string(retry) + " of " +
              std::to_string(maxRetries) + ")");
    co_await environment_.clock.sleep(delay);
    setStatus(part_ && part_->size() > 0 ? "Resuming from breakpoint..." : "Connecting...");
}

asio::awaitable<void> HTTPDownloadSession::handleError() {
    if (part_ && part_->size() > 0) setStatus("Resume data saved");
    co_await closePart();
    setState(State::Kind::failed, failure_.message);
    setStatus(failure_.status);
}

/// So that a download that stands still is seen to.
asio::awaitable<void> HTTPDownloadSession::reportRegularly() {
    while (isRunning()) {
        co_await environment_.clock.sleep(calmReportInterval);
        if (state_.kind == State::Kind::downloading) handleProgress();
    }
}

void HTTPDownloadSession::handleProgress() {
    lastReportAt_ = environment_.clock.now();
    progress_.sample(lastReportAt_);
    if (callbacks_.onProgressUpdated)
        callbacks_.onProgressUpdated(progress_.fraction(), progress_.downloadedBytes(),
                                     progress_.expectedContentLength(), progress_.bytesPerSecond());
}

void HTTPDownloadSession::takeOver(std::int64_t totalBytes) {
    progress_.restart(part_->size(), totalBytes, environment_.clock.now());
    destination_ = savePath_ / part_->name();
    reportFileInfo();
}

std::string HTTPDownloadSession::nameFor(const HTTPResponse& head) const {
    if (fileName_) return *fileName_;
    if (const auto disposition = head.header("content-disposition"))
        if (auto name = parseContentDisposition(*disposition)) return *name;
    // A redirect usually leads from a page's link to the file itself.
    if (auto name = HTTPFileName::fromURL(head.url)) return *name;
    return deriveFileName(url_, environment_.random);
}

void HTTPDownloadSession::setState(State::Kind kind, std::string message) {
    if (state_.kind == kind) return;
    state_ = {kind, std::move(message)};
    if (callbacks_.onStateChanged) callbacks_.onStateChanged(state_);
}

void HTTPDownloadSession::setStatus(const std::string& text) const {
    if (callbacks_.onStatusMessage) callbacks_.onStatusMessage(text);
}

void HTTPDownloadSession::reportFileInfo() const {
    if (callbacks_.onFileInfoReceived)
        callbacks_.onFileInfoReceived(destination_.filename().string(), progress_.expectedContentLength());
}

/// `forLog` holds no URL: there may be a password in it.
void HTTPDownloadSession::noteFailure(std::string message, std::string_view forLog) {
    environment_.log.warning("[HTTP] transfer ended: ", forLog);
    failure_.status = "Download error: " + message;
    failure_.message = std::move(message);
}

void HTTPDownloadSession::noteFileFailure(const std::system_error& error) {
    failure_.message = failure_.status = std::string("Failed to save file: ") + error.what();
    environment_.log.error("[HTTP] ", failure_.message);
}

bool HTTPDownloadSession::isRunning() const noexcept {
    return state_.kind == State::Kind::connecting || state_.kind == State::Kind::downloading;
}

bool HTTPDownloadSession::isWhole() const noexcept {
    return part_ && resumeData_.totalBytes >= 0 && part_->size() == resumeData_.totalBytes;
}

}  // namespace skein
