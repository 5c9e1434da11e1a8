#pragma once

#include "public/common/IPAddress.h"

#include <boost/asio/ip/address.hpp>

namespace skein {

boost::asio::ip::address toAsio(const IPAddress& address);
IPAddress fromAsio(const boost::asio::ip::address& address);

}  // namespace skein
