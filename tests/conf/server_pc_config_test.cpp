#include "conf/server_pc_config.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <string>

#include "common/return_codes.h"
#include "common/string_buf.h"
#include "common/test_files.h"
#include "conf/net_dev_info.h"
#include "xml/xml_parser.h"

namespace {

using test_files::TokenText;

std::string dotted(const in_addr& a)
{
    char buf[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

// Device names in the documents resolve through the process-wide cache,
// pointed at a directory of the test's own interface files.
class ServerPCConfigTest : public test_files::ScratchDir {
protected:
    void SetUp() override
    {
        ScratchDir::SetUp();
        path_ = dir_ + "/ServerPC.Conf";
        test_files::WriteFile(dir_ + "/ifcfg-spctest0", "IPADDR=172.16.0.4\n");
        ASSERT_EQ(g_NetDevInfo.SetConfigDir(dir_.c_str()), SUCCESS);
    }
    void TearDown() override
    {
        g_NetDevInfo.SetConfigDir(NETDEV_CONFIG_DIR);
        ScratchDir::TearDown();
    }
    void document(const std::string& xml) { test_files::WriteFile(path_, xml); }
    std::string dump(const PPD_ServerPCConfig_Class& cfg)
    {
        StringBuf_Class buf(1024);
        EXPECT_EQ(cfg.OutputBuffer(&buf), SUCCESS);
        return buf.c_str();
    }
    std::string path_;
};

TEST_F(ServerPCConfigTest, ReadsEveryEntryAndKeepsFaultyOnesApart)
{
    document(
        "<?xml version=\"1.0\"?>\n"
        "<ServerPC.Conf>\n"
        "  <MastorControlD><ExistencePC> yes </ExistencePC>"
        "<IP4_Address>10.0.0.1</IP4_Address><IP4_Port>8001</IP4_Port></MastorControlD>\n"
        "  <PreHTTPD_PublicPort><Device>spctest0</Device><IP4_Port>80</IP4_Port></PreHTTPD_PublicPort>\n"
        "  <PreHTTPD_PublicPort><IP4_Address>10.7.7.7</IP4_Address><IP4_Port>1</IP4_Port></PreHTTPD_PublicPort>\n"
        "  <PreHTTPD_ControlPort><Device>nosuchdev</Device><IP4_Port>81</IP4_Port></PreHTTPD_ControlPort>\n"
        "  <HTTPD_Port><IP4_Address>10.0.0.300</IP4_Address><IP4_Port>82</IP4_Port></HTTPD_Port>\n"
        "  <PPD><IP4_Address> 10.0.0.5 </IP4_Address></PPD>\n"
        "</ServerPC.Conf>\n");
    PPD_ServerPCConfig_Class cfg;
    ASSERT_EQ(cfg.Parsing_FromFile(path_.c_str()), SUCCESS);
    EXPECT_EQ(std::string(cfg.GetMessage()), "'" + path_ + "' read success.\n");

    EXPECT_EQ(cfg.m_MastorControlD.m_nState, 0);
    EXPECT_EQ(TokenText(cfg.m_MastorControlD.m_ExistencePC), "yes");
    EXPECT_EQ(dotted(cfg.m_MastorControlD.m_Addr), "10.0.0.1");
    EXPECT_EQ(cfg.m_MastorControlD.m_nPort, 8001);

    EXPECT_EQ(cfg.m_PreHTTPD_PublicPort.m_nState, 0) << "only the first element of a name counts";
    EXPECT_EQ(TokenText(cfg.m_PreHTTPD_PublicPort.m_IPString), "172.16.0.4");
    EXPECT_EQ(cfg.m_PreHTTPD_PublicPort.m_nPort, 80);

    EXPECT_EQ(cfg.m_PreHTTPD_ControlPort.m_nState, -1) << "unknown device";
    EXPECT_EQ(cfg.m_HTTPD_Port.m_nState, -1) << "invalid address";
    EXPECT_EQ(cfg.m_PPD.m_nState, 0);
    EXPECT_EQ(TokenText(cfg.m_PPD.m_IPString), "10.0.0.5");

    EXPECT_EQ(dump(cfg),
              "<MasterControlD> IP[ 10.0.0.1 ] Port[ 8001 ]\n"
              "<PreHttpD_PublicPort> IP[ 172.16.0.4 ] Port[ 80 ]\n"
              "<PreHttpD_ControlPort> Read Faild.\n"
              "<HTTPD_Port> Read Faild.\n"
              "<PPD> IP[ 10.0.0.5 ] \n");

    // A second read clears what the first one found.
    document("<ServerPC.Conf><PPD><IP4_Address>10.0.0.1</IP4_Address></PPD></ServerPC.Conf>");
    ASSERT_EQ(cfg.Parsing_FromFile(path_.c_str()), SUCCESS);
    EXPECT_EQ(cfg.m_MastorControlD.m_nState, -1);
    EXPECT_EQ(TokenText(cfg.m_MastorControlD.m_ExistencePC), "");
}

// Documents that are refused as a whole, with the start of the message.
TEST_F(ServerPCConfigTest, RefusedDocuments)
{
    const struct {
        const char* xml;  // null: no file
        int code;
        std::string message;
    } rows[] = {
        {nullptr, CANNOT_FILEOPEN, "[" + path_ + "] open faild.\n"},
        {"<ServerPC.Conf>\n<PPD></Other>\n</ServerPC.Conf>\n", XMLPARSER_PARSER_ERROR,
         "[" + path_ + "] XML File. Parser Error. Tag name differ with"},
        {"<Directory.Conf><PPD/></Directory.Conf>", XMLPARSER_PARSER_ERROR, "Root class is not [ServerPC.Conf].\n"},
        {"   ", XMLPARSER_PARSER_ERROR, "Root class is not [ServerPC.Conf].\n"},  // no root at all
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        std::remove(path_.c_str());
        if (row.xml != nullptr)
            document(row.xml);
        PPD_ServerPCConfig_Class cfg;
        EXPECT_EQ(cfg.Parsing_FromFile(path_.c_str()), row.code);
        EXPECT_EQ(std::string(cfg.GetMessage()).rfind(row.message, 0), 0u) << cfg.GetMessage();
    }
}

TEST_F(ServerPCConfigTest, AddressOrDeviceOfOneElement)
{
    struct Row {
        const char* xml;
        int code;
        int kind;
        const char* address;
        const char* note;
    } rows[] = {
        {"<E><IP4_Address>1.2.3.4</IP4_Address></E>", SUCCESS, 1, "1.2.3.4", "direct address"},
        {"<E><IP4_Address>1.2.3.4</IP4_Address><Device>spctest0</Device></E>", SUCCESS, 1, "1.2.3.4",
         "address wins over device"},
        {"<E><Device>spctest0</Device></E>", SUCCESS, 2, "172.16.0.4", "device resolved"},
        {"<E><Device>nosuchdev</Device></E>", SUCCESS, 0, "", "unknown device"},
        {"<E><IP4_Address><x/></IP4_Address></E>", NOTFOUND_ITEM, 0, "", "address not a text"},
        {"<E><IP4_Address/><Device>spctest0</Device></E>", NOTFOUND_ITEM, 0, "", "empty address"},
        {"<E/>", SUCCESS, 0, "", "no children"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        XmlParser_Class parser;
        const std::string xml = row.xml;
        ASSERT_EQ(parser.Construct_WithMemAlloc_BufferCopy(reinterpret_cast<const unsigned char*>(xml.data()),
                                                           static_cast<int>(xml.size())),
                  SUCCESS);
        ASSERT_EQ(parser.ParserMain(), SUCCESS);
        OneToken_Class out;
        int kind = -1;
        EXPECT_EQ(PPDConfigXmlTree_Get_IPorDevice(parser.GetRootElement(), &out, &kind), row.code);
        if (row.code == SUCCESS) {
            EXPECT_EQ(kind, row.kind);
        }
        EXPECT_EQ(TokenText(out), row.address);
    }
}

}  // namespace
