// TrCommunicate over a real control port: the answer's four header lines,
// the lenient prefix matching, the post-alarm reset and the stop of the
// daemon when a re-read configuration is unusable.

#include <string>

#include "control_test_support.h"
#include "net/process_utils.h"

using namespace control_test;

namespace {

const char* kHtml = "<HTML><BODY><H1>200 OK</H1></BODY></HTML>";

std::string answer_lines(int general, int code, const std::string& query)
{
    return "Protocol_Name: TrCommunicate\r\nProtocol_Version: 1\r\nNode_Id: 16777473\r\n"
           "Query_Result: " + std::to_string(general) + ":" + std::to_string(code) +
           "\r\nQuery_String: " + query + "\r\n";
}

class TrCommunicateTest : public ServerFixture {
protected:
    void SetUp() override
    {
        ServerFixture::SetUp();
        write_config(config_text());
        g_Program_Command.store(0);
    }

    void TearDown() override
    {
        write_config(config_text());
        g_Program_Command.store(0);
        ServerFixture::TearDown();
    }

    // Sends the query and checks the whole answer; returns the reply.
    Reply Expect(const std::string& query, int code, const char* src = kOwnIp)
    {
        Reply r = ask(get("/trcom.cgi?" + query), src);
        EXPECT_EQ(r.head, text_head("200 OK", strlen(kHtml),
                                    answer_lines(GetErrGeneralCode(code), code, query)))
            << "query: " << query;
        EXPECT_EQ(r.body, kHtml) << "query: " << query;
        return r;
    }
};

TEST_F(TrCommunicateTest, ChecksDecideTheQueryResult)
{
    struct Row {
        std::string query;
        int code;
        const char* note;
    };
    const Row rows[] = {
        {"p_name=TrCommunicate&p_version=1&command=reset_postterm", SUCCESS, "the full command"},
        {"p_version=1&command=reset_postterm", NOTFOUND_PROTOCOLINFO, "no p_name"},
        {"p_name=TrCommunicateX&p_version=1&command=reset_postterm", UNSUPPORTED_PROTOCOL, "longer name"},
        {"p_name=Other&p_version=1&command=reset_postterm", UNSUPPORTED_PROTOCOL, "other name"},
        {"p_name=Tr&p_version=1&command=reset_postterm", SUCCESS, "a prefix of the name matches"},
        {"p_name=&p_version=1&command=reset_postterm", SUCCESS, "an empty name matches"},
        {"p_name=TrCommunicate&command=reset_postterm", NOTFOUND_PROTOCOLINFO, "no version"},
        {"p_name=TrCommunicate&p_version=one&command=reset_postterm", NOTFOUND_PROTOCOLINFO,
         "version not a number"},
        {"p_name=TrCommunicate&p_version=2&command=reset_postterm", OUT_OF_RANGE, "version 2"},
        {"p_name=TrCommunicate&p_version=1", NOTFOUND_COMMAND, "no command"},
        {"p_name=TrCommunicate&p_version=1&command=reset", SUCCESS, "a prefix of reset_postterm"},
        {"p_name=TrCommunicate&p_version=1&command=notice", SUCCESS, "a prefix of notice_update"},
        {"p_name=TrCommunicate&p_version=1&command=", SUCCESS, "empty command is notice_update"},
        {"p_name=TrCommunicate&p_version=1&command=reboot", UNDECLARED_COMMAND, "unknown command"},
        {"p_name=TrCommunicate&p_version=1&command=reset_posttermX", UNDECLARED_COMMAND, "longer command"},
        // The name is checked before the version, the version before the
        // command: the first failing check decides.
        {"p_name=X&p_version=9&command=reboot", UNSUPPORTED_PROTOCOL, "first failure wins"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        Expect(row.query, row.code);
    }
    // A notice_update of an unchanged configuration keeps the daemon running.
    EXPECT_EQ(g_Program_Command.load(), 0);
}

TEST_F(TrCommunicateTest, ForeignAddressIsInvalidAccessStillWithTheHtmlAnswer)
{
    g_lnDiffTimeSumPT.store(5);
    Expect("p_name=TrCommunicate&p_version=1&command=reset_postterm", INVALID_ACCESS, kForeignIp);
    EXPECT_EQ(g_lnDiffTimeSumPT.load(), 5);
}

TEST_F(TrCommunicateTest, ResetPosttermRestartsTheTermButKeepsItsReferenceTime)
{
    timeval ref{1700000000, 123456};
    SetNowTimePT(ref);
    g_lnDiffTimeSumPT.store(987654321);
    g_flgAlreadySendStop.store(1);
    Expect("p_name=TrCommunicate&p_version=1&command=reset_postterm", SUCCESS);
    EXPECT_EQ(g_lnDiffTimeSumPT.load(), 0);
    EXPECT_EQ(g_flgAlreadySendStop.load(), 0);
    timeval after = GetNowTimePT();
    EXPECT_EQ(after.tv_sec, ref.tv_sec);
    EXPECT_EQ(after.tv_usec, ref.tv_usec);
}

TEST_F(TrCommunicateTest, QueryStringIsCutTo512Bytes)
{
    std::string query = "p_name=TrCommunicate&p_version=1&command=reset_postterm&pad=" + std::string(600, 'z');
    Reply r = ask(get("/trcom.cgi?" + query));
    EXPECT_EQ(r.fields["Query_String"], query.substr(0, 512));
    EXPECT_EQ(r.fields["Query_Result"], "1:1");
}

TEST_F(TrCommunicateTest, NoticeUpdateWithAnotherDataTypeStopsTheDaemon)
{
    write_config(config_text("OtherKind"));
    Expect("p_name=TrCommunicate&p_version=1&command=notice_update", 27);
    EXPECT_EQ(g_Program_Command.load(), -1);

    // The settings in force are kept: the pre-image protocol still serves
    // the channel's own address.
    Reply r = ask(get("/ptippreimg.cgi?img_logout=1&img_user_id=1"));
    EXPECT_EQ(r.body, "LOGOUT_SUCCESS:1:IMAGE\r\n");
}

TEST_F(TrCommunicateTest, NoticeUpdateWithAnUnreadableConfigurationStopsTheDaemon)
{
    std::string text = config_text();
    text.erase(text.find("encoder_port_0001"), strlen("encoder_port_0001=80\n"));
    write_config(text);
    Expect("p_name=TrCommunicate&p_version=1&command=notice_update", NOTFOUND_ITEM);
    EXPECT_EQ(g_Program_Command.load(), -1);
}

TEST_F(TrCommunicateTest, NoticeUpdateWithGoodSettingsTakesThemIn)
{
    std::string text = config_text();
    text.replace(text.find("=30\n"), 4, "=45\n");
    write_config(text);
    Expect("p_name=TrCommunicate&p_version=1&command=notice_update", SUCCESS);
    EXPECT_EQ(g_Program_Command.load(), 0);
    configParam_Struct cfg;
    ASSERT_EQ(g_configInfoIOClass.GetParamsFromMem(&cfg, nullptr), SUCCESS);
    EXPECT_EQ(cfg.translator_calarm_rec_postterm, 45);
}

}  // namespace
