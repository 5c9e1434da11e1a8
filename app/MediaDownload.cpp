#include "app/MediaDownload.h"

#include "downloads/HTTPFileName.h"
#include "downloads/PartFile.h"
#include "public/common/HTTPStream.h"
#include "public/common/RunOn.h"

#include <boost/asio/post.hpp>

#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace skein {

namespace {

constexpr int httpOK = 200;

std::string nameOf(const ChatMedia& media) {
    auto name = HTTPFileName::safe(media.name);
    if (!name) name = HTTPFileName::fromURL(media.url);
    return name.value_or("media");
}

}  // namespace

asio::awaitable<SavedMedia> MediaDownload::save(ChatMedia media, std::filesystem::path folder, AddressOrigin origin) {
    HTTPRequest request;
    request.url = media.url;
    request.origin = origin;
    request.totalTimeout = std::chrono::hours(1);  // a stranger's server may not hold the file for longer
    const std::unique_ptr<HTTPStream> stream = co_await http_.open(std::move(request));
    if (stream->head().status != httpOK)
        throw std::runtime_error(media.url + ": HTTP " + std::to_string(stream->head().status));
    auto create = [folder, name = nameOf(media)] { return PartFile::create(folder, name, [](const std::string&) {}); };
    const std::shared_ptr<PartFile> part = co_await runOn(disk_, std::move(create));
    std::exception_ptr failure;
    try {
        co_await fill(part, *stream);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        asio::post(disk_, [part] { part->discard(); });
        std::rethrow_exception(failure);
    }
    co_return SavedMedia{folder / part->name(), part->size()};
}

asio::awaitable<void> MediaDownload::fill(std::shared_ptr<PartFile> part, HTTPStream& stream) {
    for (;;) {
        std::vector<Bytes> chunks = co_await stream.read();
        if (chunks.empty()) break;
        auto append = [part, &chunks] {
            for (const Bytes& chunk : chunks) part->append(chunk);
        };
        co_await runOn(disk_, std::move(append));
        if (part->size() > maxBytes) throw std::runtime_error("it is larger than 2 GiB");
        stream.recycle(std::move(chunks));
    }
    auto finish = [part] { part->finish([](const std::string&) {}); };
    co_await runOn(disk_, std::move(finish));
}

}  // namespace skein
