#pragma once

#include "chat/ChatMedia.h"
#include "public/common/AddressOrigin.h"
#include "public/common/HTTPClient.h"

#include <boost/asio/any_io_executor.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <utility>

namespace skein {

class PartFile;

struct SavedMedia {
    std::filesystem::path path;
    std::int64_t size = 0;  ///< bytes
};

/// Fetches the media of a chat message into a new file. Its name, address and size are what a stranger says: the name
/// is reduced to one path component, the address may lead into the user's own network only where the user said so, no
/// file is overwritten, and no more than `maxBytes` are taken.
///
/// Owner: whoever answers the call. Thread: any; file calls are made on `disk`. `http` outlives it.
class MediaDownload {
public:
    static constexpr std::int64_t maxBytes = std::int64_t{2} << 30U;

    MediaDownload(HTTPClient& http, asio::any_io_executor disk) : http_(http), disk_(std::move(disk)) {}

    /// `media` has a URL, which `origin` judges. Nothing stays of what could not be fetched whole. Throws
    /// HTTPException, std::system_error and std::runtime_error with a text for the user.
    asio::awaitable<SavedMedia> save(ChatMedia media, std::filesystem::path folder, AddressOrigin origin);

private:
    asio::awaitable<void> fill(std::shared_ptr<PartFile> part, HTTPStream& stream);

    HTTPClient& http_;
    const asio::any_io_executor disk_;
};

}  // namespace skein
