#include "public/common/TargetLock.h"
#include "tests/support/FailureIn.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <optional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

SHA1Digest sourceOf(int number) { return sha1(toBytes(std::to_string(number))); }

/// Another process that holds a lock until this goes.
class Holder {
public:
    Holder(const fs::path& folder, const SHA1Digest& source) {
        EXPECT_EQ(::pipe(toUs_), 0);
        EXPECT_EQ(::pipe(toIt_), 0);
        process = ::fork();
        char byte = 0;
        if (process == 0) {
            ::close(toIt_[1]);
            {
                const TargetLock lock(folder, source);
                if (::write(toUs_[1], &byte, 1) == 1)
                    while (::read(toIt_[0], &byte, 1) > 0)
                        ;
            }
            ::_exit(0);
        }
        EXPECT_EQ(::read(toUs_[0], &byte, 1), 1);
    }
    ~Holder() {
        ::close(toIt_[1]);
        int status = 0;
        EXPECT_EQ(::waitpid(process, &status, 0), process);
        for (const int end : {toUs_[0], toUs_[1], toIt_[0]}) ::close(end);
    }

    pid_t process = 0;

private:
    int toUs_[2] = {};
    int toIt_[2] = {};
};

std::ptrdiff_t openDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

TEST(TargetLock, keepsOtherProcessesOutOfTheSameAlone) {
    const TemporaryFolder folder;
    const fs::path file = folder.path() / TargetLock::fileName;
    std::optional<Holder> other(std::in_place, folder.path(), sourceOf(1));
    const auto take = [&](int number) { const TargetLock lock(folder.path() / ".", sourceOf(number)); };
    EXPECT_THAT(failureIn<TargetTaken>([&] { take(1); }),
                HasSubstr("process " + std::to_string(other->process) + " is downloading the same to"));
    EXPECT_TRUE(TargetLock::isHeld(folder.path(), sourceOf(1)));
    EXPECT_FALSE(TargetLock::isHeld(folder.path(), sourceOf(2)));
    take(2);
    EXPECT_TRUE(fs::exists(file)) << "the other one uses it";
    EXPECT_TRUE(TargetLock::isHeld(folder.path(), sourceOf(1)));
    other.reset();
    EXPECT_FALSE(fs::exists(file));
    EXPECT_FALSE(TargetLock::isHeld(folder.path(), sourceOf(1)));
    take(1);
    EXPECT_FALSE(fs::exists(file));
}

TEST(TargetLock, needsOneDescriptorAFolder) {
    const TemporaryFolder folder;
    const auto before = openDescriptors();
    std::list<TargetLock> locks;
    for (int i = 0; i < 1000; ++i) locks.emplace_back(folder.path(), sourceOf(i));
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_THAT(failureIn<TargetTaken>([&] { const TargetLock again(folder.path(), sourceOf(7)); }),
                HasSubstr("process " + std::to_string(::getpid())));
    locks.clear();
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

}  // namespace
}  // namespace skein
