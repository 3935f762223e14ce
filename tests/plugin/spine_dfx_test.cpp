// Behaviour events: one event name and key layout, the fixed values, anonymised local ids,
// the optional keys of each writer, and the per-call-site limit with its mirror log line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dfx_helper.h"
#include "tandra_dfx.h"
#include "test_device.h"
#include "vex_log.h"
#include "vex_sys_event.h"

namespace QUEX {
namespace Tandra {
namespace {
using namespace Vex;
using Testing::TestDevice;

const std::vector<std::string> COMMON_KEYS = {
    "FUNC",         "BIZ_SCENE", "BIZ_STAGE", "ORG_PKG",    "STAGE_RES",    "ERROR_CODE",
    "TRIGGER_MODE", "COMM_SERV", "BIZ",       "LOCAL_UDID", "LOCAL_NET_ID", "LOCAL_DEV_TYPE",
};

std::vector<std::string> Keys(const SysEventRecord& record)
{
    std::vector<std::string> keys;
    for (const auto& param : record.params) {
        keys.push_back(param.first);
    }
    return keys;
}

const SysEventValue& Value(const SysEventRecord& record, const std::string& key)
{
    for (const auto& param : record.params) {
        if (param.first == key) {
            return param.second;
        }
    }
    ADD_FAILURE() << "no key " << key;
    static const SysEventValue none;
    return none;
}

class SpineDfxTest : public testing::Test {
protected:
    void SetUp() override { SysEventWriteLimitReset(); }
    void TearDown() override { SysEventWriteLimitReset(); }
    static void SysEventWriteLimitReset()
    {
        VexSysEvent::SetWriteLimit(100, std::chrono::seconds(5));
        VexSysEvent::ResetWriteLimit();
    }
    TestDevice device_;
    SysEventCapture events_;
};

TEST_F(SpineDfxTest, EveryWriterStartsWithTheTwelveCommonKeysThenItsOwn)
{
    struct Case {
        const char* name;
        void (*report)();
        std::vector<std::string> extra;
    };
    const Case cases[] = {
        {"stage",
         [] {
             DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::CONFLICT,
                              DFX::StageRes::BEGIN);
         },
         {}},
        {"stage state",
         [] {
             DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                                   DFX::StageRes::CANCEL, 0, DFX::BizState::END);
         },
         {"BIZ_STATE"}},
        {"to call",
         [] {
             DFX::ReportStageToCall(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND,
                                    DFX::SerCollBizStage::START_ABILITY, DFX::StageRes::BEGIN, 0, "AMS");
         },
         {"TO_CALL_PKG"}},
        {"request error",
         [] { DFX::ReportRequestError(TNDR_DFX_SITE, DFX::StageRes::FAILED, 461440990, "PEER"); },
         {"TO_CALL_PKG", "LOCAL_SESS_NAME", "PEER_SESS_NAME", "IS_TRUST", "BIZ_STATE", "PEER_NET_ID"}},
        {"session set-up",
         [] { DFX::ReportSessionSetup(TNDR_DFX_SITE, DFX::StageRes::SUCCESS, 0, "PEER"); },
         {"PEER_NET_ID"}},
        {"photo transfer",
         [] { DFX::ReportPhotoTransfer(TNDR_DFX_SITE, DFX::StageRes::BEGIN, 0, DFX::BizState::BEGIN); },
         {"TO_CALL_PKG", "LOCAL_SESS_NAME", "PEER_SESS_NAME", "IS_TRUST", "BIZ_STATE"}},
        {"channel",
         [] { DFX::ReportChannel(TNDR_DFX_SITE, DFX::StageRes::SUCCESS, 0, "PEER"); },
         {"TO_CALL_PKG", "LOCAL_SESS_NAME", "PEER_SESS_NAME", "IS_TRUST", "PEER_NET_ID"}},
    };
    const DeviceIdentity local = device_.Identity();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        events_.Clear();
        c.report();
        const auto records = events_.Records();
        ASSERT_EQ(records.size(), 1u);
        const SysEventRecord& record = records[0];
        EXPECT_EQ(record.domain, "TANDRA");
        EXPECT_EQ(record.name, "SERVICE_COLLABORATION_EVENT");
        EXPECT_EQ(record.type, 2);
        std::vector<std::string> expected = COMMON_KEYS;
        expected.insert(expected.end(), c.extra.begin(), c.extra.end());
        EXPECT_EQ(Keys(record), expected);

        EXPECT_EQ(Value(record, "ORG_PKG"), SysEventValue(std::string("Tandra")));
        EXPECT_EQ(Value(record, "TRIGGER_MODE"), SysEventValue(int32_t{1}));
        EXPECT_EQ(Value(record, "COMM_SERV"), SysEventValue(int32_t{1}));
        EXPECT_EQ(Value(record, "BIZ"), SysEventValue(int32_t{1}));
        // Local ids never appear in clear.
        EXPECT_EQ(Value(record, "LOCAL_UDID"), SysEventValue(DfxHelper::GetAnonymousID(local.udid)));
        EXPECT_EQ(Value(record, "LOCAL_NET_ID"), SysEventValue(DfxHelper::GetAnonymousID(local.networkId)));
        EXPECT_NE(Value(record, "LOCAL_UDID"), SysEventValue(local.udid));
        EXPECT_EQ(Value(record, "LOCAL_DEV_TYPE"), SysEventValue(std::string("e")));  // 0x0E
        for (const auto& param : record.params) {
            if (param.first == "IS_TRUST") {
                EXPECT_EQ(param.second, SysEventValue(true));
            } else if (param.first == "PEER_NET_ID") {
                EXPECT_EQ(param.second, SysEventValue(DfxHelper::GetAnonymousID("PEER")));
            }
        }
    }
}

TEST_F(SpineDfxTest, ValuesAreTypedAndNamedByTheCallSite)
{
    DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::PHOTO_TRANSFER, DFX::SerCollBizStage::PHOTO_SENT,
                          DFX::StageRes::FAILED, -7, DFX::BizState::END);
    const auto records = events_.Records();
    ASSERT_EQ(records.size(), 1u);
    const SysEventRecord& record = records[0];
    EXPECT_EQ(record.func, "TestBody");
    EXPECT_EQ(Value(record, "FUNC"), SysEventValue(std::string("TestBody")));
    EXPECT_EQ(Value(record, "BIZ_SCENE"), SysEventValue(int32_t{5}));
    EXPECT_EQ(Value(record, "BIZ_STAGE"), SysEventValue(int32_t{9}));
    EXPECT_EQ(Value(record, "STAGE_RES"), SysEventValue(int32_t{2}));
    EXPECT_EQ(Value(record, "ERROR_CODE"), SysEventValue(int32_t{-7}));
    EXPECT_EQ(Value(record, "BIZ_STATE"), SysEventValue(int32_t{2}));
}

TEST_F(SpineDfxTest, ChannelFailuresAreReportedAsPositiveCodes)
{
    const std::pair<int32_t, int32_t> cases[] = {{-5, 5}, {5, 5}, {0, 0}, {INT32_MIN, INT32_MAX}};
    for (const auto& [code, reported] : cases) {
        SCOPED_TRACE(code);
        events_.Clear();
        DFX::ReportChannel(TNDR_DFX_SITE, DFX::StageRes::FAILED, code, "PEER");
        const auto records = events_.Records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(Value(records[0], "ERROR_CODE"), SysEventValue(reported));
    }
}

TEST_F(SpineDfxTest, LimitedWritesAreDroppedButStillLogged)
{
    VexSysEvent::SetWriteLimit(1, std::chrono::seconds(5));
    LogCapture log;
    for (int i = 0; i < 2; ++i) {
        DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::DATA_CHANNEL,
                         DFX::StageRes::SUCCESS);
    }
    // Another call site has its own allowance.
    DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::DATA_CHANNEL,
                     DFX::StageRes::SUCCESS);
    EXPECT_EQ(events_.Records().size(), 2u);
    size_t mirrored = 0;
    for (const auto& line : log.Records()) {
        if (line.tag == "TNDRVexEvent" && line.level == LOG_INFO &&
            line.message.find("event = SERVICE_COLLABORATION_EVENT; stage = 7; res = 1; err = 0") !=
                std::string::npos) {
            ++mirrored;
        }
    }
    EXPECT_EQ(mirrored, 3u);
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
