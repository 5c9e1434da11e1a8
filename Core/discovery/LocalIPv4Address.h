#pragma once

#include <optional>
#include <string>

namespace skein {

class FileLogger;

/// This machine's address in its local network, as others there see it: the one that the routing table would send
/// from to the internet, else the first of an interface other than loopback. Nothing when there is none.
///
/// Sends nothing and waits for nothing. Thread: any.
std::optional<std::string> getLocalIPv4Address(FileLogger& log);

}  // namespace skein
