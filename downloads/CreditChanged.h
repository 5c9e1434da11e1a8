#pragma once

namespace skein {

/// Published to MsgCenter when a figure of the account at the resource service has changed.
struct CreditChanged {};

}  // namespace skein
