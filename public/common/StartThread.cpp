#include "public/common/StartThread.h"

#include <string>
#include <system_error>
#include <utility>

namespace skein {

std::thread startThread(std::function<void()> work) {
    try {
        return std::thread(std::move(work));
    } catch (const std::system_error& error) {
        throw ThreadShortage("no thread can be started: " + error.code().message());
    }
}

}  // namespace skein
