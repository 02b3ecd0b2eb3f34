#include "base/HardwaredClient.h"

#include "dsp/HiddenVolumeManager.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"

#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;
using Testing::runMainLoopUntil;

using HardwaredClientTest = Testing::HardwaredBusTest;
using HiddenVolumeManagerTest = Testing::HardwaredBusTest;

namespace {

bool hasVolume(double volume)
{
    return runMainLoopUntil([&] { return HardwaredClient::get().getVolume() == volume; });
}

} // namespace

TEST_F(HardwaredClientTest, FollowsTheDaemonAndItsVolumeAndRunsExactlyOneHandlerPerCall)
{
    auto& client = HardwaredClient::get();
    std::vector<bool> states;
    std::vector<double> volumes;
    auto const stateSubscription = client.onConnectionStateChanged([&](bool c) { states.push_back(c); });
    auto const volumeSubscription = client.onVolumeChanged([&](double v) { volumes.push_back(v); });
    EXPECT_EQ(client.getVolume(), 0.0);
    std::vector<std::string> errors;
    int successes = 0;
    auto const onSuccess = [&] { ++successes; };
    auto const onError = [&](Tools::String const& message) { errors.push_back(message.str()); };
    Testing::LogCapture log;

    client.setHiddenVolumeDelta(2.0, onSuccess, onError);
    ASSERT_EQ(errors.size(), 1u) << "refused at once, before any main-loop iteration";

    m_daemon.setVolume(40.0);
    bringUpDaemon();
    ASSERT_TRUE(hasVolume(40.0));
    m_daemon.setVolume(55.5);
    ASSERT_TRUE(hasVolume(55.5));
    m_daemon.setVolume(55.5);
    m_daemon.setVolume(60.0);
    ASSERT_TRUE(hasVolume(60.0));
    EXPECT_EQ(volumes, (std::vector<double>{40.0, 55.5, 60.0})) << "a repeated value is not news";

    m_daemon.releaseName();
    ASSERT_TRUE(runMainLoopUntil([&] { return !client.isConnected(); }));
    EXPECT_EQ(client.getVolume(), 60.0) << "the last value is kept while the daemon is away";
    bringUpDaemon();
    EXPECT_EQ(states, (std::vector<bool>{true, false, true}));
    client.setHiddenVolumeDelta(NAN, onSuccess, onError);
    ASSERT_EQ(errors.size(), 2u) << "refused at once";

    client.setHiddenVolumeDelta(4.5, onSuccess, onError);
    ASSERT_TRUE(runMainLoopUntil([&] { return successes == 1; }));
    m_daemon.failCallsWith("com.orvandel.Hardwared.Error.Busy", "amplifier busy");
    client.setHiddenVolumeDelta(1.0, onSuccess, onError);
    client.setHiddenVolumeDelta(1.5, onSuccess, HardwaredClient::getErrorLogger("setting delta"));
    ASSERT_TRUE(
        runMainLoopUntil([&] { return errors.size() == 3 && log.count("4 setting delta failed: ") > 0; }));
    EXPECT_THAT(errors, testing::ElementsAre(testing::HasSubstr("not connected"),
                                             testing::HasSubstr("not a finite number"),
                                             testing::HasSubstr("amplifier busy")));
    EXPECT_EQ(log.count("4 setting delta failed: "), 1);
    EXPECT_EQ(successes, 1);
    EXPECT_EQ(m_daemon.getReceivedDeltas(), (std::vector<double>{4.5, 1.0, 1.5}));
}

// The client's calls are refused while disconnected, as checked above.
TEST_F(HardwaredClientTest, WithoutABusStaysDisconnectedAndSaysWhy)
{
    Testing::LogCapture log;
    m_daemon.ownName();
    Testing::ScopedBusAddress noBus("DBUS_SYSTEM_BUS_ADDRESS", Testing::c_noBusAddress);
    HardwaredClient::reset();
    auto const& client = HardwaredClient::get();
    ASSERT_TRUE(runMainLoopUntil([&] { return log.count("3 HardwaredClient: no system bus:") > 0; }));
    EXPECT_FALSE(client.isConnected());
}

// Nothing is pending once sent, so connecting again sends nothing; while connected a delta goes at once
// and a failure is only logged, not retried.
TEST_F(HiddenVolumeManagerTest, SendsTheNewestPendingDeltaOnConnectingOnceThenAtOnceAndOnlyLogsFailures)
{
    Testing::LogCapture log;
    HiddenVolumeManager manager;
    manager.setHiddenVolumeDelta(3);
    manager.setHiddenVolumeDelta(6);
    EXPECT_TRUE(m_daemon.getReceivedDeltas().empty());
    bringUpDaemon();
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, c_marker}));
    EXPECT_EQ(log.count("2 HardwaredClientChain: setting hidden volume delta to 6"), 1);
    m_daemon.releaseName();
    ASSERT_TRUE(runMainLoopUntil([] { return !HardwaredClient::get().isConnected(); }));
    bringUpDaemon();
    manager.setHiddenVolumeDelta(7);
    m_daemon.failCallsWith("com.orvandel.Hardwared.Error.Busy", "amplifier busy");
    manager.setHiddenVolumeDelta(2.5);
    ASSERT_TRUE(runMainLoopUntil([&] { return log.count("4 setting hidden volume delta failed:") > 0; }));
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, c_marker, 7, 2.5, c_marker}));
}
