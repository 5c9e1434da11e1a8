#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/// Names of files as servers and URLs give them. Plain text in, plain text out.
namespace skein::HTTPFileName {

/// In bytes: file systems take 255, and " (1)" and ".part" must still fit.
inline constexpr std::size_t maxBytes = 230;

/// `name` reduced to one path component that is no hidden file: what stands before a "/" or "\" is dropped, what cannot
/// stand in a name becomes "_", text that is no UTF-8 is read as ISO 8859-1. Nothing when nothing is left.
std::optional<std::string> safe(std::string_view name);
/// The safe name in a Content-Disposition header: of `filename*` (in UTF-8) if there is one, else of `filename`.
/// Source: RFC 6266, RFC 8187.
std::optional<std::string> fromContentDisposition(std::string_view header);
/// The safe name that is the last component of the URL's path, percent-decoded.
std::optional<std::string> fromURL(std::string_view url);
/// Whether the link is http or https and its path ends in one of `downloadableExtensions`, in either case.
bool isDownloadableURL(std::string_view url);
std::span<const std::string_view> downloadableExtensions() noexcept;
/// "report (2).pdf" for 2; 0 leaves the name. Archives keep both of their extensions ("x (2).tar.gz").
std::string numbered(std::string_view name, int number);

}  // namespace skein::HTTPFileName
