// The process-wide request-id sequence.
#include <gtest/gtest.h>
#include <lumora/DBusClient.h>

#include <climits>
#include <set>
#include <thread>
#include <vector>

#include "internal/TestSeams.h"

namespace {

TEST(RequestIdTest, FirstIdOfAProcessIsOneAndIdsCountUp) {
    DBusClient* client = DBusClient::GetInstance();
    EXPECT_EQ(1, client->__GenerateSeqId());
    EXPECT_EQ(2, client->__GenerateSeqId());
    EXPECT_EQ(3, client->__GenerateSeqId());
}

TEST(RequestIdTest, AfterTheLargestIntTheNextIdIsOne) {
    DBusClient* client = DBusClient::GetInstance();
    lumora::internal::SetRequestIdCounterForTesting(INT_MAX - 1);
    EXPECT_EQ(INT_MAX, client->__GenerateSeqId());
    EXPECT_EQ(1, client->__GenerateSeqId());
    EXPECT_EQ(2, client->__GenerateSeqId());
}

TEST(RequestIdTest, IdsDrawnFromManyThreadsAreDistinct) {
    DBusClient* client = DBusClient::GetInstance();
    std::vector<std::vector<int>> drawn(8);
    std::vector<std::thread> threads;
    for (auto& ids : drawn) {
        threads.emplace_back([client, &ids] {
            for (int i = 0; i < 1000; ++i) ids.push_back(client->__GenerateSeqId());
        });
    }
    for (auto& thread : threads) thread.join();
    std::set<int> all;
    for (const auto& ids : drawn) all.insert(ids.begin(), ids.end());
    EXPECT_EQ(8000u, all.size());
    EXPECT_GT(*all.begin(), 0);
}

}  // namespace
