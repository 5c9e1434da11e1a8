#include "public/common/DescriptorBudget.h"

#include <boost/system/errc.hpp>

#include <algorithm>
#include <sys/resource.h>

namespace skein {

namespace {

/// More than all sessions together have use for; some systems allow a million, and tables grow with it.
constexpr rlim_t mostDescriptors = 65'536;
/// For files, databases, the log, the local API and web requests.
constexpr std::size_t descriptorsOfOthers = 512;

}  // namespace

DescriptorBudget DescriptorBudget::ofProcess() {
    rlimit allowed{};
    if (::getrlimit(RLIMIT_NOFILE, &allowed) != 0) return DescriptorBudget();
    const rlim_t wanted = std::min(allowed.rlim_max, mostDescriptors);
    if (allowed.rlim_cur < wanted) {
        const rlim_t before = std::exchange(allowed.rlim_cur, wanted);
        if (::setrlimit(RLIMIT_NOFILE, &allowed) != 0) allowed.rlim_cur = before;
    }
    const auto all = static_cast<std::size_t>(std::min(allowed.rlim_cur, mostDescriptors));
    return DescriptorBudget(all - std::min(all / 2, descriptorsOfOthers));
}

bool isOutOfDescriptors(const boost::system::error_code& error) noexcept {
    namespace errc = boost::system::errc;
    return error == errc::too_many_files_open || error == errc::too_many_files_open_in_system ||
           error == errc::no_buffer_space || error == errc::not_enough_memory;
}

}  // namespace skein
