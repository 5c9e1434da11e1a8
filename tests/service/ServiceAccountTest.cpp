#include "tests/service/ServiceTest.h"

namespace skein {
namespace {

using ServiceAccountTest = ServiceTest;

TEST_F(ServiceAccountTest, keepsTheUserAndOneDeviceIdUntilTheUserSignsOut) {
    signIn(" bob\n", "\tswordfish\r\n");
    const ServiceAccess first = run(account.access());
    // The slashes at the end of the address are gone.
    EXPECT_THAT(first, testing::FieldsAre(service.url(), "bob", "swordfish", testing::SizeIs(36)));

    run(account.signOut());
    EXPECT_FALSE(run(account.access()).isUsable());
    EXPECT_EQ(settings.get(ServiceAccount::credentialKey), std::nullopt);
    signIn("alice", "open sesame");
    EXPECT_EQ(run(account.access()).deviceId, first.deviceId);
}

TEST_F(ServiceAccountTest, refusesWhatNoHeaderCanCarry) {
    for (const auto& [user, credential] : {std::pair("", "x"), {" \n", "x"}, {"x", ""}, {"a\nb", "x"}, {"x", "a\r\nb"}})
        EXPECT_FALSE(run(account.signIn(user, credential))) << user;
    EXPECT_THAT(run(account.access()), testing::FieldsAre(service.url(), "alice", "open sesame", testing::_));
}

}  // namespace
}  // namespace skein
