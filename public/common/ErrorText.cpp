#include "public/common/ErrorText.h"

#include <boost/system/system_error.hpp>

namespace skein {

std::string textOf(const std::exception& error) {
    if (const auto* const system = dynamic_cast<const boost::system::system_error*>(&error))
        return system->code().message();
    return error.what();
}

}  // namespace skein
