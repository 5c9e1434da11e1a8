#include "app/api/ChatMediaRoutes.h"

#include "app/api/JSONBody.h"
#include "chat/ChatMedia.h"
#include "public/common/ErrorText.h"
#include "public/common/RunOn.h"

#include <boost/json/object.hpp>

#include <stdexcept>
#include <utility>

namespace skein {

namespace json = boost::json;

void ChatMediaRoutes::addTo(Router& router) { router.add("POST", "/api/v1/chat/media", this, &ChatMediaRoutes::save); }

/// An object with the message's `id`, and the `folder` where that is not the download folder. With `allowLocalPeers`
/// the user vouches for an address in the user's own network.
asio::awaitable<HTTPServerResponse> ChatMediaRoutes::save(std::string, HTTPServerRequest request) {
    std::int64_t id = 0;
    std::string folder;
    bool allowsLocalPeers = allowsLocalPeers_;
    try {
        const json::object body = objectIn(request);
        id = body.at("id").to_number<std::int64_t>();
        if (const json::value* const given = body.if_contains("folder")) folder = given->as_string();
        if (const json::value* const given = body.if_contains("allowLocalPeers")) allowsLocalPeers |= given->as_bool();
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    const AddressOrigin origin = allowsLocalPeers ? AddressOrigin::userNamed : AddressOrigin::fromOutside;
    co_return co_await saveFrom(id, std::move(folder), origin);
}

asio::awaitable<HTTPServerResponse> ChatMediaRoutes::saveFrom(std::int64_t id, std::string folder,
                                                              AddressOrigin origin) {
    if (auto refused = co_await gate_.refusalWithoutAccount()) co_return std::move(*refused);
    std::optional<ChatMedia> media = co_await mediaOf(id);
    if (!media || media->url.empty()) co_return Router::error(404, "nothing to save came with such a message");
    std::string failure;
    try {
        std::filesystem::path target = co_await folderOf(std::move(folder));
        const SavedMedia saved = co_await download_.save(*std::move(media), std::move(target), origin);
        co_return jsonReply(json::object{{"path", saved.path.string()}, {"size", saved.size}});
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    co_return Router::error(502, failure);
}

asio::awaitable<std::optional<ChatMedia>> ChatMediaRoutes::mediaOf(std::int64_t id) {
    std::string owner = co_await chat_.owner();
    const std::optional<TalkRecord> message = co_await chat_.talk().message(std::move(owner), id);
    co_return message ? ChatMedia::read(message->mediaJson()) : std::nullopt;
}

asio::awaitable<std::filesystem::path> ChatMediaRoutes::folderOf(std::string given) {
    auto choose = [this, given = std::move(given)]() -> std::filesystem::path {
        if (given.empty()) return chat_.host().downloadFolder();
        if (!std::filesystem::path(given).is_absolute() || !std::filesystem::is_directory(given))
            throw std::runtime_error(given + " is no folder");
        return given;
    };
    return runOn(chat_.host().pools().disk(), std::move(choose));
}

}  // namespace skein
