// Boost.URL from its headers: no package to link.
#include <boost/url/src.hpp>
