#include "public/common/HTTPTransfer.h"

#include "public/common/NetworkRefusal.h"
#include "public/common/ShownURL.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace skein {

namespace {

/// Of one response; a server that sends more means no good.
constexpr std::size_t maxHeaderBytes = std::size_t{256} << 10U;

/// Received at once of a body that is streamed; curl takes at most 512 KiB.
constexpr long streamBufferBytes = 256L << 10U;

bool isControl(char character) noexcept { return static_cast<unsigned char>(character) < 0x20 || character == 0x7F; }
bool hasControl(std::string_view text) noexcept { return std::any_of(text.begin(), text.end(), isControl); }

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    for (char& character : lower)
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
    return lower;
}

std::string_view trimmed(std::string_view text) noexcept {
    constexpr std::string_view blank = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blank);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blank) - first + 1);
}

HTTPError errorOf(CURLcode code) noexcept {
    switch (code) {
        case CURLE_URL_MALFORMAT: return HTTPError::invalidRequest;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY: return HTTPError::cannotResolve;
        case CURLE_COULDNT_CONNECT:
        case CURLE_INTERFACE_FAILED: return HTTPError::cannotConnect;
        case CURLE_OPERATION_TIMEDOUT: return HTTPError::timeout;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE: return HTTPError::insecure;
        default: return HTTPError::transferFailed;
    }
}

struct URLParts {
    std::string scheme;
    std::string host;  ///< a literal IPv6 address in brackets
    std::string port;

    std::string origin() const { return scheme + "://" + host + ":" + port; }
};

/// Nothing when it is no http or https URL.
std::optional<URLParts> partsOf(const std::string& url) {
    const std::unique_ptr<CURLU, void (*)(CURLU*)> parsed(curl_url(), curl_url_cleanup);
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return std::nullopt;
    const auto part = [&](CURLUPart which, unsigned flags) {
        char* text = nullptr;
        if (curl_url_get(parsed.get(), which, &text, flags) != CURLUE_OK) return std::string();
        const std::unique_ptr<char, void (*)(void*)> owned(text, curl_free);
        return lowerCase(text);
    };
    URLParts parts{part(CURLUPART_SCHEME, 0), part(CURLUPART_HOST, 0), part(CURLUPART_PORT, CURLU_DEFAULT_PORT)};
    if (parts.scheme != "http" && parts.scheme != "https") return std::nullopt;
    return parts;
}

std::optional<std::string> originOf(const std::string& url) {
    const auto parts = partsOf(url);
    return parts ? std::optional(parts->origin()) : std::nullopt;
}

/// As far as a host says by itself where it leads.
AddressDepth depthOfHost(std::string_view host) {
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    while (host.ends_with('.')) host.remove_suffix(1);
    if (const auto literal = IPAddress::parse(host)) return depthOf(literal->scope());
    return host == "localhost" || host.ends_with(".localhost") ? AddressDepth::machine : AddressDepth::outside;
}

bool isRedirect(long status) noexcept {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

/// Says what is wanted and by which program, and nothing of who wants it.
bool mayGoToAnotherHost(const HTTPHeader& header) {
    const std::string name = lowerCase(header.name);
    return name.starts_with("accept") || name == "range" || name == "user-agent" || name.starts_with("if-");
}

bool isSet(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

/// curl takes proxies from the environment.
bool mayUseProxy() {
    static const bool isAnySet =
        isSet("http_proxy") || isSet("https_proxy") || isSet("HTTPS_PROXY") || isSet("all_proxy") || isSet("ALL_PROXY");
    return isAnySet;
}

bool hasProxyFor(const std::string& scheme) {
    const bool hasOwn = scheme == "http" ? isSet("http_proxy") : isSet("https_proxy") || isSet("HTTPS_PROXY");
    return hasOwn || isSet("all_proxy") || isSet("ALL_PROXY");
}

std::optional<IPAddress> addressOf(const curl_sockaddr& given) noexcept {
    if (given.family == AF_INET) {
        sockaddr_in socketAddress{};
        IPAddress::V4Bytes bytes{};
        std::memcpy(&socketAddress, &given.addr, sizeof socketAddress);
        std::memcpy(bytes.data(), &socketAddress.sin_addr, bytes.size());
        return IPAddress(bytes);
    }
    if (given.family == AF_INET6) {
        sockaddr_in6 socketAddress{};
        IPAddress::V6Bytes bytes{};
        // curl_sockaddr ends in a plain sockaddr, behind which curl keeps the rest of the longer ones.
        std::memcpy(&socketAddress, static_cast<const void*>(&given.addr), sizeof socketAddress);
        std::memcpy(bytes.data(), &socketAddress.sin6_addr, bytes.size());
        return IPAddress(bytes);
    }
    return std::nullopt;
}

}  // namespace

struct HTTPTransfer::Callbacks {
    // No exception may cross curl. Where memory is short, the transfer fails.
    static std::size_t header(char* data, std::size_t, std::size_t count, void* self) noexcept try {
        return static_cast<HTTPTransfer*>(self)->acceptHeader({data, count}) ? count : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }

    static std::size_t body(char* data, std::size_t, std::size_t count, void* self) noexcept try {
        const ByteView bytes(reinterpret_cast<const std::uint8_t*>(data), count);
        auto& transfer = *static_cast<HTTPTransfer*>(self);
        const bool isTaken = transfer.acceptBody(bytes);
        if (transfer.isPaused_) return CURL_WRITEFUNC_PAUSE;
        return isTaken ? count : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }

    static curl_socket_t openSocket(void* self, curlsocktype, curl_sockaddr* address) {
        const auto target = addressOf(*address);
        if (target && !static_cast<HTTPTransfer*>(self)->mayConnectTo(*target)) return CURL_SOCKET_BAD;
        const int number = ::socket(address->family, address->socktype, address->protocol);
        if (number < 0) return CURL_SOCKET_BAD;
        ::fcntl(number, F_SETFD, FD_CLOEXEC);
        if (static_cast<HTTPTransfer*>(self)->leaveFromBinding(number, address->family == AF_INET)) return number;
        ::close(number);
        return CURL_SOCKET_BAD;
    }

    /// Comes after connecting and before the request is sent, and also when a connection is used again, of which the
    /// opening of sockets sees nothing.
    static int beforeRequest(void* self, char* remoteAddress, char*, int, int) {
        auto& transfer = *static_cast<HTTPTransfer*>(self);
        const auto target = IPAddress::parse(remoteAddress == nullptr ? "" : remoteAddress);
        if (!target) return CURL_PREREQFUNC_OK;
        if (!transfer.mayConnectTo(*target)) return CURL_PREREQFUNC_ABORT;
        transfer.stoppedBy_.reset();  // one address of several was refused, and another one taken
        if (!transfer.isProxied_)
            transfer.deepest_ = std::min(transfer.deepest_, depthOf(transfer.options_.scopeOf(*target)));
        return CURL_PREREQFUNC_OK;
    }
};

void HTTPTransfer::FreeList::operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }

HTTPTransfer::HTTPTransfer(HTTPRequest request, HTTPBody body, const HTTPClient::Options& options)
    : request_(std::move(request)), body_(body), options_(options), deepest_(deepestFor(request_.origin)) {
    if (!isWellFormed()) {
        refuse(HTTPError::invalidRequest, shownURL(request_.url));
        return;
    }
    if (isRefusedUnasked()) return;
    handle_ = curl_easy_init();
    if (handle_ == nullptr) throw std::bad_alloc();
    setUp();
}

HTTPTransfer::~HTTPTransfer() { curl_easy_cleanup(handle_); }

void HTTPTransfer::refuse(HTTPError error, std::string_view detail) {
    outcome_.response.reset();
    outcome_.error = error;
    outcome_.detail = detail;
    isEnded_ = true;
}

/// What can be refused without looking up the name. What a name leads to is seen when it is connected to; through a
/// proxy it is not, so that the host must at least not say itself that it lies inside.
bool HTTPTransfer::isRefusedUnasked() {
    if (options_.binding.isGone()) {
        refuse(HTTPError::cannotConnect, make_error_code(NetworkRefusal::interfaceGone).message());
        return true;
    }
    const auto parts = partsOf(request_.url);
    isProxied_ = deepest_ == AddressDepth::outside && request_.usesProxy && parts && hasProxyFor(parts->scheme);
    if (!isProxied_ || depthOfHost(parts->host) <= deepest_) return false;
    stoppedBy_ = refusalOfDepth();
    refuse(*stoppedBy_, detailOf(CURLE_OK));
    return true;
}

HTTPError HTTPTransfer::refusalOfDepth() const noexcept {
    return redirects_ > 0 ? HTTPError::forbiddenRedirect : HTTPError::forbiddenAddress;
}

bool HTTPTransfer::isWellFormed() const {
    const auto isClean = [](const HTTPHeader& header) {
        return !header.name.empty() && !hasControl(header.name) && !hasControl(header.value) &&
               header.name.find_first_of(": ;") == std::string::npos;
    };
    return !hasControl(request_.url) && !request_.method.empty() && !hasControl(request_.method) &&
           request_.method.find(' ') == std::string::npos &&
           std::all_of(request_.headers.begin(), request_.headers.end(), isClean) && originOf(request_.url).has_value();
}

void HTTPTransfer::setUp() {
    curl_easy_reset(handle_);
    errorText_[0] = '\0';
    response_ = {};
    headerBytes_ = 0;
    hasTried_ = false;

    curl_slist* list = nullptr;
    const auto add = [&](const std::string& line) { list = curl_slist_append(list, line.c_str()); };
    add("Expect:");        // a body is sent at once, not after a question
    add("Content-Type:");  // none but the caller's
    // curl takes "Name:" for a header to leave out, and "Name;" for one without a value.
    for (const HTTPHeader& header : request_.headers)
        add(header.value.empty() ? header.name + ";" : header.name + ": " + header.value);
    headerList_.reset(list);

    const auto set = [this](CURLoption option, auto value) { curl_easy_setopt(handle_, option, value); };
    set(CURLOPT_URL, request_.url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, 0L);  // redirects are ours to judge
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    if (isStreamed()) set(CURLOPT_BUFFERSIZE, streamBufferBytes);
    set(CURLOPT_HTTPHEADER, headerList_.get());
    set(CURLOPT_USERAGENT, options_.userAgent.c_str());
    if (request_.acceptsCompression) set(CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
    if (!request_.usesProxy) set(CURLOPT_PROXY, "");
    if (isProxied_) set(CURLOPT_NOPROXY, "");  // an exception to the proxy is for hosts that the user names
    set(CURLOPT_ERRORBUFFER, errorText_.data());
    set(CURLOPT_NOSIGNAL, 1L);
    // The name of a proxy is looked up by a thread of curl's; nobody waits for that once we have given up.
    set(CURLOPT_QUICK_EXIT, 1L);

    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request_.connectTimeout.count()));
    if (request_.totalTimeout.count() > 0) {
        const auto spent = std::chrono::steady_clock::now() - startedAt_;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(request_.totalTimeout - spent);
        set(CURLOPT_TIMEOUT_MS, std::max(1L, static_cast<long>(left.count())));
    }

    set(CURLOPT_HEADERFUNCTION, &Callbacks::header);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &Callbacks::body);
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_OPENSOCKETFUNCTION, &Callbacks::openSocket);
    set(CURLOPT_OPENSOCKETDATA, this);
    set(CURLOPT_PREREQFUNCTION, &Callbacks::beforeRequest);
    set(CURLOPT_PREREQDATA, this);
    setMethod();
}

/// A name in which curl might read another than we is left to it.
std::optional<std::string> HTTPTransfer::hostToFind() const {
    if (request_.usesProxy && mayUseProxy()) return std::nullopt;
    const auto parts = partsOf(request_.url);
    const auto isPlain = [](char character) {
        return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9') || character == '-' ||
               character == '.' || character == '_';
    };
    if (!parts || parts->host.ends_with('.') || !std::ranges::all_of(parts->host, isPlain)) return std::nullopt;
    if (IPAddress::parse(parts->host)) return std::nullopt;
    return parts->host;
}

bool HTTPTransfer::setAddresses(const std::vector<IPAddress>& addresses) {
    const auto parts = partsOf(request_.url);
    if (addresses.empty() || !parts) {
        refuse(HTTPError::cannotResolve, "Could not resolve host: " + (parts ? parts->host : std::string()));
        return false;
    }
    std::string entry = "+" + parts->host + ":" + parts->port + ":";  // "+": it grows old like any other
    for (const IPAddress& address : addresses)
        entry += (entry.ends_with(':') ? "" : ",") + (address.isIPv4() ? address.text() : "[" + address.text() + "]");
    addressList_.reset(curl_slist_append(nullptr, entry.c_str()));
    curl_easy_setopt(handle_, CURLOPT_RESOLVE, addressList_.get());
    return true;
}

void HTTPTransfer::giveUpFinding() {
    refuse(HTTPError::timeout, "nobody says where " + partsOf(request_.url).value_or(URLParts()).host + " is");
}

std::chrono::milliseconds HTTPTransfer::findingLimit() const {
    return request_.totalTimeout.count() > 0 ? std::min(request_.connectTimeout, request_.totalTimeout)
                                             : request_.connectTimeout;
}

void HTTPTransfer::setMethod() {
    if (request_.method == "HEAD") {
        curl_easy_setopt(handle_, CURLOPT_NOBODY, 1L);
        return;
    }
    if (!request_.body.empty() || request_.method == "POST") {
        curl_easy_setopt(handle_, CURLOPT_POST, 1L);
        curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size()));
        curl_easy_setopt(handle_, CURLOPT_POSTFIELDS,
                         request_.body.empty() ? "" : reinterpret_cast<const char*>(request_.body.data()));
    }
    curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
    if (request_.method == "GET") return;
    // Where a kept connection is closed before an answer came, curl sends the request again: for all that it knows the
    // server had closed it before. What changes something must not be done twice, and has a connection of its own.
    curl_easy_setopt(handle_, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(handle_, CURLOPT_FORBID_REUSE, 1L);
}

bool HTTPTransfer::proceed(int curlCode) {
    const auto code = static_cast<CURLcode>(curlCode);
    if (code != CURLE_OK || stoppedBy_) {
        refuse(stoppedBy_.value_or(errorOf(code)), detailOf(code));
        return false;
    }
    long status = 0;
    char* location = nullptr;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(handle_, CURLINFO_REDIRECT_URL, &location);
    if (!hasStarted_ && request_.followsRedirects && isRedirect(status) && location != nullptr) return follow(location);
    isEnded_ = true;
    if (hasStarted_) return false;
    describeResponse();
    outcome_.response = std::move(response_);
    return false;
}

/// Adds what curl knows beyond the headers.
void HTTPTransfer::describeResponse() {
    long status = 0;
    char* url = nullptr;
    char* address = nullptr;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(handle_, CURLINFO_EFFECTIVE_URL, &url);
    curl_easy_getinfo(handle_, CURLINFO_PRIMARY_IP, &address);
    response_.status = static_cast<int>(status);
    response_.url = url == nullptr ? request_.url : url;
    if (address != nullptr && !mayUseProxy()) response_.remoteAddress = IPAddress::parse(address);
}

std::string HTTPTransfer::detailOf(int curlCode) const {
    if (stoppedBy_ == HTTPError::forbiddenRedirect) return shownURL(request_.url);
    if (stoppedBy_ == HTTPError::forbiddenAddress) return make_error_code(NetworkRefusal::notPublic).message();
    if (stoppedBy_ == HTTPError::cannotConnect) return bindingFault_.message();
    if (stoppedBy_ == HTTPError::bodyTooLarge) return "more than " + std::to_string(request_.maxBodyBytes) + " bytes";
    if (stoppedBy_ == HTTPError::transferFailed) return "too many headers";
    return withShownURLs(errorText_[0] != '\0' ? errorText_.data()
                                               : curl_easy_strerror(static_cast<CURLcode>(curlCode)));
}

bool HTTPTransfer::follow(const std::string& location) {
    const auto from = originOf(request_.url);
    const auto to = originOf(location);
    if (++redirects_ > HTTPClient::maxRedirects) {
        refuse(HTTPError::tooManyRedirects, shownURL(location));
        return false;
    }
    long status = 0;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
    const bool turnsIntoGet = status == 303 ? request_.method != "HEAD" : status < 303 && request_.method == "POST";
    if (turnsIntoGet) {
        request_.method = "GET";
        request_.body.clear();
    }
    if (!to || hasControl(location) || (from != to && !request_.body.empty())) {
        refuse(HTTPError::forbiddenRedirect, shownURL(location));
        return false;
    }
    if (from != to)
        std::erase_if(request_.headers, [](const HTTPHeader& header) { return !mayGoToAnotherHost(header); });
    request_.url = location;
    if (isRefusedUnasked()) return false;
    setUp();
    return true;
}

bool HTTPTransfer::acceptHeader(std::string_view line) {
    headerBytes_ += line.size();
    if (headerBytes_ > maxHeaderBytes) {
        stoppedBy_ = HTTPError::transferFailed;
        return false;
    }
    if (line.starts_with("HTTP/")) {
        response_.headers.clear();  // of an interim response (100, 103)
        return true;
    }
    if (isStreamed() && trimmed(line).empty()) noteHead();
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || hasStarted_) return true;  // or a trailer, which nobody waits for
    response_.headers.push_back({lowerCase(line.substr(0, colon)), std::string(trimmed(line.substr(colon + 1)))});
    return true;
}

/// The headers have ended: of the response that is asked for, or of one on the way to it.
void HTTPTransfer::noteHead() {
    long status = 0;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
    const bool isOnTheWay = request_.followsRedirects && isRedirect(status) && response_.header("location");
    if (hasStarted_ || status < 200 || isOnTheWay) return;
    describeResponse();
    head_ = std::move(response_);
    hasStarted_ = true;
}

HTTPResponse HTTPTransfer::takeHead() {
    HTTPResponse head = std::move(*head_);
    head_.reset();
    return head;
}

std::vector<Bytes> HTTPTransfer::takeBody() {
    std::vector<Bytes> chunks = buffer_.take();
    // curl hands over at once what it holds of the body, if only the buffer has room again.
    if (std::exchange(isPaused_, false)) curl_easy_pause(handle_, CURLPAUSE_CONT);
    return chunks;
}

bool HTTPTransfer::acceptBody(ByteView bytes) {
    if (!isStreamed()) return collect(bytes);
    if (!hasStarted_) return true;  // of a redirect
    isPaused_ = !buffer_.append(bytes);
    return !isPaused_;
}

bool HTTPTransfer::collect(ByteView bytes) {
    Bytes& body = response_.body;
    if (bytes.size() > request_.maxBodyBytes - body.size()) {
        stoppedBy_ = HTTPError::bodyTooLarge;
        return false;
    }
    const std::size_t needed = body.size() + bytes.size();
    if (needed > body.capacity()) body.reserve(std::min(request_.maxBodyBytes, std::max(needed, 2 * body.capacity())));
    append(body, bytes);
    return true;
}

/// What the binding refuses is the reason of a failure only where no other address of the host could be tried.
bool HTTPTransfer::leaveFromBinding(int socket, bool isIPv4) {
    bindingFault_ = options_.binding.bind(socket, isIPv4);
    if (!bindingFault_) {
        hasTried_ = true;
        stoppedBy_.reset();
    } else if (!hasTried_) {
        stoppedBy_ = HTTPError::cannotConnect;
    }
    return !bindingFault_;
}

bool HTTPTransfer::mayConnectTo(const IPAddress& address) {
    if (isProxied_ || depthOf(options_.scopeOf(address)) <= deepest_) return true;
    stoppedBy_ = refusalOfDepth();
    return false;
}

}  // namespace skein
