// Threads racing on the library: the registry and a deInit that ends a waiting start.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include "clogger.h"
#include "sensor_ipc_client.h"
#include "sensor_ipcclient_impl.h"
#include "sim_test.h"

namespace {

using namespace vexa::cameraipcclient;
using vexa::sensor_access::SensorIpcClient;
using vexa::sensor_access::SensorIpcClientImpl;

// Creation outside the lock would let racing threads build (and lose) several objects for one type.
TEST(Registry, ThreadsRacingOnANewAppTypeShareOneObject) {
    constexpr int kThreads = 8;
    const auto type = static_cast<AppType>(4242);
    std::vector<SensorIpcClientImpl*> seen(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] { seen[i] = SensorIpcClientImpl::getInstance(type); });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(std::set<SensorIpcClientImpl*>(seen.begin(), seen.end()).size(), 1u);
}

// start has no time-out of its own: only deInit (from another thread) may end its wait, and it must
// then report success within a poll period or so.
TEST(StartWait, DeInitFromAnotherThreadEndsAWaitingStart) {
    sensor_sim::reset();
    vexa::sensor_access::Clogger::GetInstance().initIrdLogger(
        sipc_test::makeLogger(vexa::vexalog::LogLevel::kInfo));
    SensorIpcClient client(APP_SENSOR_IRC);
    unsigned int mask = 1u << 14;
    ASSERT_EQ(client.init(mask, 0, nullptr), RESULT_OK);
    sensor_sim::streams::setStates({0});  // never decided

    auto started = std::async(std::launch::async, [&] { return client.start(); });
    // Let start enter its wait before pulling the flag.
    ASSERT_TRUE(sipc_test::waitFor([] { return sensor_sim::callCount("getStreamState") >= 2; }));
    client.deInit();
    ASSERT_EQ(started.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(started.get(), RESULT_OK);
    auto records = sipc_test::records("start");
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().text, "[null]StartStream Success");
}

}  // namespace
