#include "service/ServiceBody.h"

#include <boost/json/parse.hpp>

#include <array>

namespace skein {

std::optional<boost::json::value> parseBody(std::string_view body) {
    boost::json::parse_options options;
    options.max_depth = 32;
    boost::system::error_code error;
    boost::json::value value = boost::json::parse(body, error, {}, options);
    if (error) return std::nullopt;
    return value;
}

std::string creditText(double amount) {
    std::array<char, 32> text{};
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), amount);
    return {text.data(), error == std::errc() ? end : text.data()};
}

}  // namespace skein
