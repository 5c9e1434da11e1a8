#pragma once

#include <string>
#include <vector>

namespace skein {

/// One of each kind that a stranger may not get through to a terminal or a disk, those at the ends of ranges first.
inline const std::vector<std::string> oddCharacters{
    "\x01",   "\n",     "\r",     "\x1B",   "\x1F",   "\x7F",   "\u0080", "\u009B", "\u009F", "\u061C",
    "\u200B", "\u200E", "\u200F", "\u2028", "\u2029", "\u202A", "\u202E", "\u2066", "\u2069", "\uFEFF"};
/// Their neighbours, and those that scripts and emoji need.
inline const std::vector<std::string> plainCharacters{" ",      "~",      "\u00A0", "\u061B", "\u061D", "\u200A",
                                                      "\u200C", "\u200D", "\u2027", "\u202F", "\u2065", "\u206A",
                                                      "\uFEFE", "é",      "猫",     "𝄞"};

}  // namespace skein
