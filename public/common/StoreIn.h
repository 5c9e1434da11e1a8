#pragma once

#include <boost/asio/awaitable.hpp>

#include <optional>
#include <utility>

namespace skein {

namespace asio = boost::asio;

/// Awaits `task` and leaves in `result` what it returned. What carries tasks from one strand to another is so compiled
/// for one type of result, once.
template <class T>
asio::awaitable<void> storeIn(std::optional<T>& result, asio::awaitable<T> task) {
    result.emplace(co_await std::move(task));
}

}  // namespace skein
