#include "app/api/HTTPServer.h"

#include "public/common/Bytes.h"
#include "public/common/ErrorText.h"
#include "public/common/Within.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/system/system_error.hpp>
#include <boost/url/parse.hpp>

#include <array>
#include <cctype>
#include <sstream>

namespace skein {

namespace {

namespace http = boost::beast::http;
using Head = http::request_parser<http::empty_body>;
using Parser = http::request_parser<http::string_body>;

std::string lowerCase(std::string text) {
    for (char& character : text) character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    return text;
}

bool isText(std::string_view bytes) { return isValidUTF8(asBytes(bytes)); }

/// Nothing when the target is no path, or names things by bytes that are no text.
std::optional<HTTPServerRequest> translated(const Head& head) {
    const auto& from = head.get();
    const auto target = boost::urls::parse_origin_form(std::string_view(from.target().data(), from.target().size()));
    if (!target) return std::nullopt;
    HTTPServerRequest request;
    request.method = std::string(from.method_string());
    request.path = std::string(target->encoded_path());
    for (const auto& parameter : target->params()) {
        if (!isText(parameter.value)) return std::nullopt;
        request.query[parameter.key] = parameter.value;
    }
    for (const auto& field : from) request.headers[lowerCase(std::string(field.name_string()))] = field.value();
    request.isUpgrade = head.is_done() && boost::beast::websocket::is_upgrade(from);
    return request;
}

/// As it came, for whoever reads it again.
std::string asText(const Head& head) {
    std::ostringstream text;
    text << head.get().base();
    return text.str();
}

HTTPServerResponse failure(int status, const std::string& text) { return {status, "text/plain", text + "\n"}; }

/// What an error in a request means for its sender; throws it when nobody is left to be told.
HTTPServerResponse refusalFor(const boost::system::error_code& error) {
    if (error == http::error::header_limit) return failure(431, "The head is too large");
    if (error == http::error::body_limit) return failure(413, "The body is too large");
    if (error == http::error::end_of_stream || error == http::error::partial_message ||
        error.category() != http::make_error_code(http::error::end_of_stream).category())
        throw boost::system::system_error(error);
    return failure(400, "Bad request");
}

}  // namespace

std::string_view HTTPServerRequest::header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string_view() : std::string_view(found->second);
}

/// One client's connection: requests one after another, or a websocket after some.
class HTTPServer::Connection {
public:
    Connection(HTTPServer& server, asio::ip::tcp::socket socket)
        : server_(server), socket_(std::move(socket)), place_(server.room_, [this] { cut(); }) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    asio::awaitable<void> serve() {
        while (!isOver_) {
            Head head;
            head.header_limit(maxHeaderBytes);
            head.body_limit(boost::none);  // judged once the head has told what it is
            co_await within(server_.clock_, headPatience, readHead(head));
            const unsigned version = head.get().version();
            HTTPServerResponse answer = co_await respond(head);
            if (answer.socket) {
                co_await converse(asText(head), std::move(answer.socket));
                co_return;
            }
            http::response<http::string_body> response = encoded(answer, version);
            co_await within(server_.clock_, patience, write(response));
            if (answer.afterwards) answer.afterwards();
        }
        co_await within(server_.clock_, lingerTime, linger());
    }

private:
    void cut() noexcept {
        boost::system::error_code ignored;
        socket_.close(ignored);
    }

    asio::awaitable<void> readHead(Head& head) {
        boost::system::error_code error;
        co_await http::async_read_header(socket_, buffer_, head, asio::redirect_error(asio::use_awaitable, error));
        if (error) refusal_ = refusalFor(error);
        // What came is still in the buffer when the limit was met before the end of the first line.
        const bool isEndless = error == http::error::header_limit && head.get().target().empty();
        if (isEndless || head.get().target().size() > maxTargetBytes)
            refusal_ = failure(414, "The address is too long");
    }

    /// Reads the rest of the request, if it is to be read, and has it answered.
    asio::awaitable<HTTPServerResponse> respond(Head& head) {
        std::optional<HTTPServerRequest> request;
        if (!refusal_) request = translated(head);
        if (!refusal_ && !request) refusal_ = failure(400, "Bad request");
        if (!refusal_) refusal_ = server_.callbacks_.refusalOf(*request);
        if (!refusal_ && !place_.prove()) refusal_ = failure(503, "Too many connections");
        isOver_ = refusal_.has_value() || !head.get().keep_alive();
        std::optional<ByteBudget::Claim> claim;  // until the answer is there: so long the body is held
        if (!refusal_ && !head.is_done()) claim = claimFor(head, *request);
        if (!refusal_ && !head.is_done()) co_await within(server_.clock_, patience, readBody(head, *request));
        if (refusal_) {
            isOver_ = true;
            co_return std::move(*refusal_);
        }
        asio::awaitable<HTTPServerResponse> work = server_.callbacks_.answer(std::move(*request));
        co_return co_await std::move(work);
    }

    static std::uint64_t bodyLimit(const HTTPServerRequest& request) {
        return request.header("content-type") == "application/x-bittorrent" ? maxTorrentBytes : maxBodyBytes;
    }

    /// The body's part of what all bodies may hold. Short ones need none: they must not wait for the long ones, and
    /// the number of connections bounds them.
    std::optional<ByteBudget::Claim> claimFor(const Head& head, const HTTPServerRequest& request) {
        const std::uint64_t limit = bodyLimit(request);
        const auto length = head.content_length();
        const std::uint64_t bytes = length ? *length : limit;
        if (bytes > limit) refusal_ = refusalFor(http::error::body_limit);
        if (refusal_ || bytes <= maxBodyBytes) return std::nullopt;
        auto claim = server_.bodies_.claim(bytes);
        if (!claim) refusal_ = failure(503, "Too much is being sent at once");
        return claim;
    }

    asio::awaitable<void> readBody(Head& head, HTTPServerRequest& request) {
        if (lowerCase(std::string(request.header("expect"))) == "100-continue")
            co_await asio::async_write(socket_, asio::buffer(goOn), asio::use_awaitable);
        Parser parser(std::move(head));
        parser.body_limit(bodyLimit(request));
        boost::system::error_code error;
        co_await http::async_read(socket_, buffer_, parser, asio::redirect_error(asio::use_awaitable, error));
        if (error) refusal_ = refusalFor(error);
        request.body = std::move(parser.get().body());
    }

    http::response<http::string_body> encoded(HTTPServerResponse& answer, unsigned version) const {
        http::response<http::string_body> response;
        response.version(version);
        response.keep_alive(!isOver_);
        response.result(static_cast<unsigned>(answer.status));
        response.set(http::field::content_type, answer.contentType);
        response.set(http::field::cache_control, "no-store");
        response.set("X-Content-Type-Options", "nosniff");
        response.body() = std::move(answer.body);
        response.prepare_payload();
        return response;
    }

    asio::awaitable<void> write(http::response<http::string_body>& response) {
        co_await http::async_write(socket_, response, asio::use_awaitable);
    }

    /// Closed with something unread, a connection is reset, and the answer is lost with it.
    asio::awaitable<void> linger() {
        socket_.shutdown(asio::ip::tcp::socket::shutdown_send);
        std::array<char, 16'384> ignored{};
        for (;;) co_await socket_.async_read_some(asio::buffer(ignored), asio::use_awaitable);
    }

    asio::awaitable<void> converse(std::string head, ServerSocket::Conversation conversation) {
        ServerSocket socket(std::move(socket_), server_.clock_);
        co_await socket.serve(std::move(head), std::move(conversation));
    }

    static constexpr std::string_view goOn = "HTTP/1.1 100 Continue\r\n\r\n";

    HTTPServer& server_;
    asio::ip::tcp::socket socket_;
    ConnectionRoom::Place place_;
    boost::beast::flat_buffer buffer_;
    std::optional<HTTPServerResponse> refusal_;  // says why the request at hand is not answered otherwise
    bool isOver_ = false;                        // nothing is read after it
};

HTTPServer::HTTPServer(const Strand& strand, Clock& clock, FileLogger& log, Callbacks callbacks)
    : clock_(clock), log_(log), callbacks_(std::move(callbacks)), tasks_(strand) {}

HTTPServer::~HTTPServer() = default;

void HTTPServer::bind(const std::string& address, std::uint16_t port) {
    const asio::ip::tcp::endpoint endpoint(asio::ip::make_address(address), port);
    acceptor_.emplace(tasks_.strand(), endpoint);
    port_ = acceptor_->local_endpoint().port();
}

void HTTPServer::accept() { tasks_.spawn(acceptAll()); }

asio::awaitable<void> HTTPServer::acceptAll() {
    for (;;) {
        boost::system::error_code error;
        asio::ip::tcp::socket socket(tasks_.strand());
        co_await acceptor_->async_accept(socket, asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            co_await clock_.sleep(std::chrono::milliseconds(100));  // out of descriptors, most likely
        } else {
            tasks_.spawn(serve(std::move(socket)));
        }
    }
}

asio::awaitable<void> HTTPServer::serve(asio::ip::tcp::socket socket) {
    Connection connection(*this, std::move(socket));
    try {
        co_await connection.serve();
    } catch (const std::exception& error) {
        log_.debug("[API] connection ended: ", textOf(error));
    }
}

}  // namespace skein
