#include "public/common/ChildProcess.h"

#include <gtest/gtest.h>

#include <array>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace skein {
namespace {

TEST(ChildProcessTest, hasNoneOfOurFilesAndEndsWithItsOwner) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    {
        const ChildProcess sleeper({"sleep", "100"});
        ::close(ends[1]);
        char byte = 0;
        EXPECT_EQ(::read(ends[0], &byte, 1), 0) << "waits as long as the program has the other end";
    }
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "nobody is left to wait for";
    ::close(ends[0]);
    EXPECT_THROW(ChildProcess({"no such program"}), std::system_error);
}

}  // namespace
}  // namespace skein
