#pragma once

#include "public/common/LocalBinding.h"

#include <boost/system/system_error.hpp>

namespace skein {

/// Opens `socket` for a connection to `remote`, from where `binding` lets traffic leave. Throws
/// boost::system::system_error (NetworkRefusal, or the system's own) and leaves the socket closed then.
template <class Socket>
void openBound(Socket& socket, const typename Socket::endpoint_type& remote, const LocalBinding& binding) {
    socket.open(remote.protocol());
    boost::system::error_code error = binding.bind(socket.native_handle(), remote.address().is_v4());
    if (!error) return;
    boost::system::error_code ignored;
    socket.close(ignored);
    throw boost::system::system_error(error);
}

}  // namespace skein
