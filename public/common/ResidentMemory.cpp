#include "public/common/ResidentMemory.h"

#ifdef __APPLE__
#include <mach/mach.h>
#else
#include <fstream>
#include <unistd.h>
#endif

namespace skein {

#ifdef __APPLE__
std::int64_t residentMemoryBytes() {
    mach_task_basic_info info{};
    mach_msg_type_number_t count = MACH_TASK_BASIC_INFO_COUNT;
    const auto result = task_info(mach_task_self(), MACH_TASK_BASIC_INFO, reinterpret_cast<task_info_t>(&info), &count);
    return result == KERN_SUCCESS ? static_cast<std::int64_t>(info.resident_size) : 0;
}
#else
std::int64_t residentMemoryBytes() {
    // proc(5): the sizes are counted in pages, the resident one is the second.
    std::ifstream file("/proc/self/statm");
    std::int64_t total = 0;
    std::int64_t resident = 0;
    if (!(file >> total >> resident)) return 0;
    return resident * ::sysconf(_SC_PAGESIZE);
}
#endif

}  // namespace skein
