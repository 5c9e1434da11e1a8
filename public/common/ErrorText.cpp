#include "public/common/ErrorText.h"

#include <boost/system/system_error.hpp>

#include <new>

namespace skein {

std::string textOf(const std::exception& error) {
    if (const auto* const system = dynamic_cast<const boost::system::system_error*>(&error))
        return system->code().message();
    if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) return "not enough memory";
    return error.what();
}

}  // namespace skein
