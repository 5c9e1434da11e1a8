#pragma once

#include "public/common/LocalBinding.h"

#include <optional>
#include <string>
#include <vector>

namespace skein {

class FileLogger;

/// This machine's address in its local network, as others there see it: the one that the routing table would send
/// from to the internet, else the first of an interface other than loopback. Where `binding` restricts them, no other
/// than its own is told. Nothing when there is none.
///
/// Sends nothing and waits for nothing. Thread: any.
std::optional<std::string> getLocalIPv4Address(FileLogger& log, const LocalBinding& binding = {});

/// The same, followed by the addresses of the other interfaces: in how many local networks this machine is found. Eight
/// at most. Thread: any.
std::vector<std::string> getLocalIPv4Addresses(FileLogger& log, const LocalBinding& binding = {});

}  // namespace skein
