// DNS-SD discovery: what a resolved _tandra._tcp service may and may not turn into, and the
// device link carrying on (and saying why) where no Avahi daemon answers.
#include <gtest/gtest.h>

#include <cstdlib>

#include "dns_sd_discovery.h"
#include "host_types.h"
#include "link_test_support.h"
#include "vex_log.h"

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

const std::string ID(64, 'A');

struct TxtRow {
    const char* name;
    std::string address;
    uint32_t port;
    std::vector<std::string> txt;
    const char* error;  // null: accepted
};

void PrintTo(const TxtRow& row, std::ostream* os)
{
    *os << row.name;
}

class DnsSdTxtTest : public ::testing::TestWithParam<TxtRow> {};

TEST_P(DnsSdTxtTest, OnlyAWellFormedRecordBecomesADevice)
{
    const TxtRow& row = GetParam();
    DnsSdFound found;
    std::string error;
    bool ok = ParseDnsSdService("Kitchen", row.address, row.port, row.txt, &found, &error);
    if (row.error == nullptr) {
        ASSERT_TRUE(ok) << error;
        EXPECT_EQ(found.networkId, ID);
        EXPECT_EQ(found.name, "Kitchen");
        EXPECT_EQ(found.address, row.address);
        EXPECT_EQ(found.port, row.port);
    } else {
        EXPECT_FALSE(ok);
        EXPECT_NE(error.find(row.error), std::string::npos) << error;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, DnsSdTxtTest,
    ::testing::Values(TxtRow{"Accepted", "10.0.0.2", 4433, {"id=" + ID, "type=14"}, nullptr},
                      TxtRow{"UnknownKeysAndNoTypeAreFine", "10.0.0.2", 1, {"v=1", "flag", "id=" + ID}, nullptr},
                      TxtRow{"NoId", "10.0.0.2", 4433, {"type=14"}, "no id"},
                      TxtRow{"IdWithoutValue", "10.0.0.2", 4433, {"id"}, "not a device fingerprint"},
                      TxtRow{"IdTooShort", "10.0.0.2", 4433, {"id=" + ID.substr(1)}, "not a device fingerprint"},
                      TxtRow{"IdNotHex", "10.0.0.2", 4433, {"id=" + ID.substr(1) + "G"}, "not a device fingerprint"},
                      TxtRow{"IdLowerCase", "10.0.0.2", 4433, {"id=" + std::string(64, 'a')},
                             "not a device fingerprint"},
                      TxtRow{"TwoIds", "10.0.0.2", 4433, {"id=" + ID, "id=" + std::string(64, 'B')}, "two id"},
                      TxtRow{"TypeNotANumber", "10.0.0.2", 4433, {"id=" + ID, "type=phone"}, "bad type"},
                      TxtRow{"TypeTooBig", "10.0.0.2", 4433, {"id=" + ID, "type=4294967296"}, "bad type"},
                      TxtRow{"PortZero", "10.0.0.2", 0, {"id=" + ID}, "bad port"},
                      TxtRow{"PortTooBig", "10.0.0.2", 65536, {"id=" + ID}, "bad port"},
                      TxtRow{"NoAddress", "", 4433, {"id=" + ID}, "no address"}),
    [](const ::testing::TestParamInfo<TxtRow>& info) { return info.param.name; });

TEST(DnsSdOffTest, WithoutAnAvahiDaemonTheLinkStartsAndTheReportSaysDnsSdIsOff)
{
    TempDir dir;
    // No system bus here, so no Avahi daemon can answer whatever runs on this machine.
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir.Path() + "/no-bus").c_str(), 1);
    Vex::LogCapture log;
    NetBusConfig config = LoopbackConfig("A", dir.Path(), false);
    config.dnsSd = true;
    std::string error;
    std::unique_ptr<NetSoftBus> bus = NetSoftBus::Create(config, &error);
    ASSERT_NE(bus, nullptr) << error;
    ASSERT_EQ(bus->Start(&error), HOST_OK) << error;
    EXPECT_EQ(log.Count("DNS-SD is off"), 1u) << "said once, at start";

    std::string code;
    EXPECT_EQ(bus->RequestPairing("nobody", &code, &error), HOST_ERR_NO_DEVICE);
    EXPECT_NE(error.find("DNS-SD is off: no Avahi daemon"), std::string::npos) << error;
    EXPECT_NE(error.find("broadcast discovery is off"), std::string::npos) << error;
    bus->Stop();
}

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
