#include "tests/service/ServiceTest.h"

namespace skein {
namespace {

using testing::DoubleEq, testing::ElementsAre, testing::FieldsAre, testing::SizeIs;

class SkeinServiceWalletTest : public ServiceTest {
protected:
    /// Alice had `mebibytes` from bob, and both say so.
    void aliceDownloadsFromBob(std::int64_t mebibytes) {
        const std::int64_t bytes = mebibytes << 20U;
        const std::vector<HeartbeatPayload> hers{report("alice's event", 0, bytes, {{"bob", bytes, 0}})};
        EXPECT_TRUE(run(client.batchHeartbeat(hers)));
        signIn("bob", "swordfish");
        const std::vector<HeartbeatPayload> his{report("bob's event", bytes, 0, {{"alice", 0, bytes}})};
        EXPECT_TRUE(run(client.batchHeartbeat(his)));
    }
    static constexpr std::int64_t bytesOfAThousand = std::int64_t{1'000} << 20U;
};

TEST_F(SkeinServiceWalletTest, whatIsPendingIsSettledBetweenTheTwo) {
    aliceDownloadsFromBob(1'000);
    const auto entry =
        FieldsAre(1, "settle", hash, "alice", "in", bytesOfAThousand, bytesOfAThousand, 0, DoubleEq(1.5), SizeIs(20));
    EXPECT_THAT(run(client.walletPending({})).value(),
                FieldsAre(true, SizeIs(0), ElementsAre(entry), 0, DoubleEq(1.5), DoubleEq(1.5)));
    EXPECT_EQ(lastSent(), "GET /api/wallet/pending ");
    EXPECT_THAT(run(client.walletPending("another hash")).value().in, SizeIs(0));
    EXPECT_EQ(lastSent(), "GET /api/wallet/pending?info_hash=another%20hash ");

    EXPECT_THAT(run(client.walletSettle()).value(), FieldsAre(true, 1, 11.5));
    EXPECT_EQ(lastSent(), "POST /api/wallet/settle ");
}

TEST_F(SkeinServiceWalletTest, aTransferMovesCreditOrSaysWhyNot) {
    EXPECT_EQ(std::get<double>(run(client.walletTransfer("bob", 2.5, "for the \"cake\""))), 7.5);
    EXPECT_EQ(lastSent(),
              "POST /api/wallet/transfer {\"to_user\":\"bob\",\"amount\":2.5,\"note\":\"for the \\\"cake\\\"\"}");

    EXPECT_EQ(failureOf(client.walletTransfer("bob", 100, {})), "insufficient balance");
    EXPECT_EQ(lastSent(), "POST /api/wallet/transfer {\"to_user\":\"bob\",\"amount\":100}");
    const std::tuple<int, const char*, const char*> answers[] = {{503, "closed\nfor today", "closed?for today"},
                                                                 {400, "{\"error\":5}", "{\"error\":5}"},
                                                                 {500, "", "HTTP 500"},
                                                                 {200, "{\"ok\":false,\"error\":\"frozen\"}", "frozen"},
                                                                 {200, "{}", "the answer is not understood — {}"}};
    for (const auto& [status, body, told] : answers) {
        service.answerWith(HTTPReply::text(body, status));
        EXPECT_EQ(failureOf(client.walletTransfer("bob", 1, {})), told);
    }
    service.answerWith({});
    service.fail(ServiceFault::loseAnswer);
    EXPECT_EQ(failureOf(client.walletTransfer("bob", 1, {})), "no response");
    const std::size_t sent = service.requests().size();
    for (const double amount : {0.0, -1.0, std::numeric_limits<double>::infinity(), std::nan("")})
        EXPECT_EQ(failureOf(client.walletTransfer("bob", amount, {})), "the amount must be above 0");
    EXPECT_EQ(service.requests().size(), sent);
}

TEST_F(SkeinServiceWalletTest, listsTransactionsPageByPage) {
    aliceDownloadsFromBob(1'000);
    EXPECT_TRUE(run(client.walletSettle()));
    EXPECT_EQ(std::get<double>(run(client.walletTransfer("alice", 1, {}))), 10.5);
    const auto gift = FieldsAre(testing::Gt(0), "transfer", "bob", "alice", 1, 0, "", SizeIs(20), "out");
    EXPECT_THAT(run(client.walletTransactions(1, 1, {}, {})).value(), FieldsAre(true, ElementsAre(gift), 1, 1, 2));
    EXPECT_EQ(lastSent(), "GET /api/wallet/transactions?page=1&size=1 ");
    const auto settlement =
        FieldsAre(testing::Gt(0), "settle", "alice", "bob", DoubleEq(1.5), bytesOfAThousand, hash, SizeIs(20), "in");
    EXPECT_THAT(run(client.walletTransactions(1, 20, "settle", hash)).value(),
                FieldsAre(true, ElementsAre(settlement), 1, 20, 1));
    EXPECT_EQ(lastSent(), "GET /api/wallet/transactions?page=1&size=20&tx_type=settle&info_hash=" + hash + " ");
}

TEST_F(SkeinServiceWalletTest, figuresThatCannotBeAreNotTaken) {
    service.answerWith(
        HTTPReply::text("{\"ok\":true,\"settled_edges\":-1,\"wallet_balance\":1,\"page\":1,\"size\":-1,"
                        "\"total\":0,\"net_pending\":\"0\"}"));
    EXPECT_FALSE(run(client.walletSettle()));
    EXPECT_FALSE(run(client.walletTransactions(1, 20, {}, {})));
    EXPECT_FALSE(run(client.walletPending({})));
}

}  // namespace
}  // namespace skein
