#pragma once

#include "service/ServiceAnswer.h"
#include "service/ServiceRecords.h"

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// The JSON of a body; nothing when it is none, or nests deeper than 32 levels.
std::optional<boost::json::value> parseBody(std::string_view body);

/// The record that a success carries. Nothing for every other answer, and for one that does not decode, which `answer`
/// then says of itself.
template <class Record>
std::optional<Record> recordIn(ServiceAnswer& answer) {
    if (!answer.isSuccess()) return std::nullopt;
    std::optional<Record> record(std::in_place);
    const auto body = parseBody(answer.body);
    if (body && JSONRecord::read(*body, *record)) return record;
    answer.becomeUnreadable();
    return std::nullopt;
}

/// As short as it can be without loss: 12.5.
std::string creditText(double amount);

}  // namespace skein
