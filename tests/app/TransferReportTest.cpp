#include "app/TransferReport.h"
#include "tests/support/Simulation.h"

#include <gmock/gmock.h>

namespace skein {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

constexpr std::int64_t mebibyte = std::int64_t{1} << 20U;

TEST(TransferReport, countsOnlyWhatIsNewAndNamesNoShareOfAnUnknownSize) {
    Simulation simulation;
    TransferReport report(simulation, false);
    TransferStatus web;
    web.name = "f";
    web.state = TorrentSession::State::Kind::downloading;
    web.downloaded = 3 * mebibyte;
    web.downloadRate = mebibyte;
    CaptureStderr();
    report.overview({&web});
    EXPECT_EQ(GetCapturedStderr(), "f: 3.0 MiB of unknown size, 1.0 MiB/s down, 0 B/s up, 0 peers\n");

    web.total = web.downloaded = 100 * mebibyte;
    web.present = 90 * mebibyte;
    CaptureStdout();
    report.completed(web, 2, true);
    EXPECT_EQ(GetCapturedStdout(), "f: complete, 100.0 MiB, 10.0 MiB of it in 2.0 s (5.0 MiB/s)\n");
    web.present = 0;
    CaptureStdout();
    report.completed(web, 2, true);
    EXPECT_EQ(GetCapturedStdout(), "f: complete, 100.0 MiB in 2.0 s (50.0 MiB/s)\n");
}

}  // namespace
}  // namespace skein
