// TrCommunicate over a real control port: the answer's header lines, the
// lenient prefix matching, the post-alarm reset and the stop of the daemon
// when a re-read configuration is unusable.

#include "control_test_support.h"

using namespace control_test;

namespace {

const std::string kHtml = "<HTML><BODY><H1>200 OK</H1></BODY></HTML>";
const std::string kReset = "p_name=TrCommunicate&p_version=1&command=reset_postterm";
const std::string kNotice = "p_name=TrCommunicate&p_version=1&command=notice_update";

class TrCommunicateTest : public ServerFixture {
protected:
    void TearDown() override
    {
        write_config();
        g_Program_Command.store(0);
        ServerFixture::TearDown();
    }

    void Expect(const std::string& query, int code, const char* src = kOwnIp)
    {
        Reply r = ask(get("/trcom.cgi?" + query), src);
        std::string lines = "Protocol_Name: TrCommunicate\r\nProtocol_Version: 1\r\nNode_Id: 16777473\r\n"
                            "Query_Result: " +
                            std::to_string(GetErrGeneralCode(code)) + ":" + std::to_string(code) +
                            "\r\nQuery_String: " + query.substr(0, 512) + "\r\n";
        EXPECT_EQ(r.head, text_head("200 OK", kHtml.size(), lines)) << query;
        EXPECT_EQ(r.body, kHtml) << query;
    }
};

TEST_F(TrCommunicateTest, TheFirstFailingCheckDecidesTheQueryResult)
{
    const struct {
        std::string query;
        int code;
    } rows[] = {
        {kReset, SUCCESS},
        {"p_version=1&command=reset_postterm", NOTFOUND_PROTOCOLINFO},
        {"p_name=TrCommunicateX&p_version=1&command=reset_postterm", UNSUPPORTED_PROTOCOL},
        {"p_name=X&p_version=9&command=reboot", UNSUPPORTED_PROTOCOL},
        {"p_name=Tr&p_version=1&command=reset_postterm", SUCCESS},  // a prefix matches
        {"p_name=&p_version=1&command=reset_postterm", SUCCESS},    // so does nothing
        {"p_name=TrCommunicate&command=reset_postterm", NOTFOUND_PROTOCOLINFO},
        {"p_name=TrCommunicate&p_version=one&command=reset_postterm", NOTFOUND_PROTOCOLINFO},
        {"p_name=TrCommunicate&p_version=2&command=reboot", OUT_OF_RANGE},
        {"p_name=TrCommunicate&p_version=1", NOTFOUND_COMMAND},
        {"p_name=TrCommunicate&p_version=1&command=reset", SUCCESS},
        {"p_name=TrCommunicate&p_version=1&command=", SUCCESS},  // notice_update, tested first
        {"p_name=TrCommunicate&p_version=1&command=reset_posttermX", UNDECLARED_COMMAND},
        {kReset + "&pad=" + std::string(600, 'z'), SUCCESS},  // Query_String cut to 512 bytes
    };
    for (const auto& row : rows)
        Expect(row.query, row.code);
    EXPECT_EQ(g_Program_Command.load(), 0) << "an unchanged configuration keeps the daemon running";
}

TEST_F(TrCommunicateTest, ResetPosttermRestartsTheTermOnlyForTheOwnAddress)
{
    SetNowTimePT(timeval{1700000000, 123456});
    g_lnDiffTimeSumPT.store(987654321);
    g_flgAlreadySendStop.store(1);
    Expect(kReset, INVALID_ACCESS, kForeignIp);
    EXPECT_EQ(g_lnDiffTimeSumPT.load(), 987654321);
    Expect(kReset, SUCCESS);
    EXPECT_EQ(g_lnDiffTimeSumPT.load(), 0);
    EXPECT_EQ(g_flgAlreadySendStop.load(), 0);
    EXPECT_EQ(GetNowTimePT().tv_sec, 1700000000);
    EXPECT_EQ(GetNowTimePT().tv_usec, 123456);
}

// (A changed data type stopping the daemon is an end-to-end test.)
TEST_F(TrCommunicateTest, NoticeUpdateTakesInNewSettingsOrStopsTheDaemon)
{
    write_config("Ostrel", "45");
    Expect(kNotice, SUCCESS);
    configParam_Struct cfg;
    ASSERT_EQ(g_configInfoIOClass.GetParamsFromMem(&cfg, nullptr), SUCCESS);
    EXPECT_EQ(cfg.translator_calarm_rec_postterm, 45);
    EXPECT_EQ(g_Program_Command.load(), 0);

    write_config("Ostrel", "");
    Expect(kNotice, SHORTAGE_VALUE);
    EXPECT_EQ(g_Program_Command.load(), -1);
    // The settings in force stay: the channel's own address is still served.
    EXPECT_EQ(ask(get("/ptippreimg.cgi?img_logout=1&img_user_id=1")).body, "LOGOUT_SUCCESS:1:IMAGE\r\n");
}

}  // namespace
