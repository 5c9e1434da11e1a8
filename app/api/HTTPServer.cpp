#include "app/api/HTTPServer.h"

#include "public/common/ErrorText.h"
#include "public/common/Within.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <cctype>

namespace skein {

namespace {

namespace http = boost::beast::http;

std::string lowerCase(std::string text) {
    for (char& character : text) character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    return text;
}

/// Nothing when the target is no path.
std::optional<HTTPServerRequest> translated(http::request<http::string_body>& from) {
    const auto target = boost::urls::parse_origin_form(std::string_view(from.target().data(), from.target().size()));
    if (!target) return std::nullopt;
    HTTPServerRequest request;
    request.method = std::string(from.method_string());
    request.path = std::string(target->encoded_path());
    for (const auto& parameter : target->params()) request.query[parameter.key] = parameter.value;
    for (const auto& field : from) request.headers[lowerCase(std::string(field.name_string()))] = field.value();
    request.body = std::move(from.body());
    return request;
}

}  // namespace

std::string_view HTTPServerRequest::header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string_view() : std::string_view(found->second);
}

/// One client's connection: requests one after another.
class HTTPServer::Connection {
public:
    Connection(HTTPServer& server, asio::ip::tcp::socket socket) : server_(server), socket_(std::move(socket)) {
        ++server_.connections_;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { --server_.connections_; }

    asio::awaitable<void> serve() {
        for (bool goesOn = true; goesOn;) {
            Parser parser;
            parser.header_limit(maxHeaderBytes);
            parser.body_limit(maxBodyBytes);
            co_await within(server_.clock_, patience, read(parser));
            http::request<http::string_body> received = parser.release();
            http::response<http::string_body> response;
            response.version(received.version());
            response.keep_alive(received.keep_alive());
            std::optional<HTTPServerRequest> request = translated(received);
            HTTPServerResponse answer{400, "text/plain", "Bad request\n", {}};
            if (request) {
                asio::awaitable<HTTPServerResponse> work = server_.handler_(std::move(*request));
                answer = co_await std::move(work);
            }
            response.result(static_cast<unsigned>(answer.status));
            response.set(http::field::content_type, answer.contentType);
            response.set(http::field::cache_control, "no-store");
            response.set("X-Content-Type-Options", "nosniff");
            response.body() = std::move(answer.body);
            response.prepare_payload();
            goesOn = response.keep_alive();
            co_await within(server_.clock_, patience, write(response));
            if (answer.afterwards) answer.afterwards();
        }
    }

private:
    using Parser = http::request_parser<http::string_body>;

    asio::awaitable<void> read(Parser& parser) {
        co_await http::async_read(socket_, buffer_, parser, asio::use_awaitable);
    }
    asio::awaitable<void> write(http::response<http::string_body>& response) {
        co_await http::async_write(socket_, response, asio::use_awaitable);
    }

    HTTPServer& server_;
    asio::ip::tcp::socket socket_;
    boost::beast::flat_buffer buffer_;
};

HTTPServer::HTTPServer(const Strand& strand, Clock& clock, FileLogger& log, Handler handler)
    : clock_(clock), log_(log), handler_(std::move(handler)), tasks_(strand) {}

HTTPServer::~HTTPServer() = default;

void HTTPServer::listen(const std::string& address, std::uint16_t port) {
    const asio::ip::tcp::endpoint endpoint(asio::ip::make_address(address), port);
    acceptor_.emplace(tasks_.strand(), endpoint);
    port_ = acceptor_->local_endpoint().port();
    tasks_.spawn(acceptAll());
}

asio::awaitable<void> HTTPServer::acceptAll() {
    for (;;) {
        boost::system::error_code error;
        asio::ip::tcp::socket socket(tasks_.strand());
        co_await acceptor_->async_accept(socket, asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            co_await clock_.sleep(std::chrono::milliseconds(100));  // out of descriptors, most likely
        } else if (connections_ < maxConnections) {
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

asio::awaitable<void> HTTPServer::stop() {
    co_await tasks_.stop();
    acceptor_.reset();
}

}  // namespace skein
