// Launcher answers of the program: command line, CGI methods and
// parameters, each checked byte for byte on standard output and standard
// error. None of these requests starts a daemon.
#include "daemon_test_support.h"

namespace daemon_test {
namespace {

const std::string kUsage =
    "\t-StartUp Name : PP Start (for Debug).\n\t-StartUp_NonDeamon Name : PP Start (for Debug).\n"
    "\t-GetConfigTemplate\n";
const std::string kTemplate =
    "Content-Length: 53\nContent-type: text/plain\n\n"
    "<L2Config_Template>\n\t<Sample />\n</L2Config_Template>\n";

std::string invalid(const std::string& comment)
{
    return cgi("<Response>\n  <States>Err_InvalidArgument</States>\n  <Comment>" + comment +
               "</Comment>\n</Response>\n");
}

struct AnswerRow {
    std::vector<std::string> args;
    std::vector<std::string> env;
    std::string in;
    std::string out;
    std::string err;
    const char* note;
};

std::vector<std::string> get(const std::string& query) { return {"REQUEST_METHOD=GET", "QUERY_STRING=" + query}; }
std::vector<std::string> post(int length) { return {"REQUEST_METHOD=POST", "CONTENT_LENGTH=" + std::to_string(length)}; }

using CgiFrontTest = DaemonDir;

TEST_F(CgiFrontTest, AnswersEveryRequestExactly)
{
    const std::string longName(256, '1');
    const std::vector<AnswerRow> rows = {
        {{}, {}, "", kUsage, "", "no arguments"},
        {{"-StartUp"}, {}, "", kUsage, "", "name missing"},
        {{"-StartUp", "123"}, {}, "", kUsage, "Invalid argument\n", "three digits"},
        {{"-StartUp", "5x"}, {}, "", kUsage, "Invalid argument\n", "digit check before the name check"},
        {{"-StartUp_NonDeamon", "-0"}, {}, "", "[-0] is illigal name.\n", "", "name check after the digit check"},
        {{"-GetConfigTemplate", "1"}, {}, "", kTemplate, "", "template from the command line"},
        {{"-Stop", "1"}, {}, "", "[-Stop] Unkown.\n" + kUsage, "", "unknown switch"},
        {{"x", "05"}, get("Command=GetConfigTemplate"), "", kTemplate, "", "template from CGI"},
        {{"x", "05"}, get("Command=Foo"), "", invalid("Unkown Command 'Foo'"), "", "unknown command"},
        {{"x", "05"}, get("Command=getconfigtemplate"), "", invalid("Unkown Command 'getconfigtemplate'"), "",
         "command value compared exactly"},
        {{"x", "05"}, get("Command=StartUp&Name=5"), "", invalid("'Name' Length too short"), "", "short name"},
        {{"x", "05"}, get("Command=StartUp&Name=" + longName), "", invalid("'Name' Length too large"), "",
         "long name"},
        {{"x", "05"}, get("Command=StartUp"), "", invalid("Not found 'Name' CGI Argument "), "", "no name"},
        {{"x", "05"}, get("Command=StartUp&Name=0-5"), "", invalid("'Name' have invalid charactor"), "",
         "name characters"},
        {{"x", "05"}, get("Name=05"), "", invalid("Not found 'Command' CGI Argument "), "", "no command"},
        {{"x", "05"}, get("Command=S"), "", invalid("'Command' Length too short"), "", "short command"},
        {{"x", "05"}, get(""), "", invalid("Not found CGI Argument"), "", "empty query"},
        {{"x", "05"}, get("Command=a=b"), "", invalid("CGI Parameter parser error"), "", "query syntax"},
        {{"x", "05"}, {"REQUEST_METHOD=POST"}, "", invalid("Not found 'Content-Length' in HTTP Header"), "",
         "no length"},
        {{"x", "05"}, post(0), "", invalid("Invalid value 'Content-Length':0"), "", "zero length"},
        {{"x", "05"}, post(-3), "", invalid("Invalid value 'Content-Length':-3"), "", "negative length"},
        {{"x", "05"}, post(65536), "", invalid("CGI parametar too large."), "", "length limit"},
        {{"x", "05"}, post(65535), "", startFailed("HTTP Body read faild"), "", "largest length, empty body"},
        {{"x", "05"}, post(27), "Command=GetConfigTemplate\r\n", kTemplate, "", "body with its line end"},
        {{"x", "05"}, post(11), "Command=GetConfigTemplate", invalid("Unkown Command 'Get'"), "",
         "only the announced length is read"},
        {{"x", "05"}, {"REQUEST_METHOD=HEAD", "QUERY_STRING=Command=Foo"}, "", "Content-type: text/plain\n\n", "",
         "head"},
        {{"x", "05"}, {"REQUEST_METHOD=put"}, "", "[put] Unkown Command.", "", "unknown method"},
    };
    for (const AnswerRow& row : rows) {
        SCOPED_TRACE(row.note);
        Outcome r = run(row.args, row.env, row.in);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
    }
}

TEST_F(CgiFrontTest, ProgramPathEndingInSlashIsRefused)
{
    Outcome r = run({"-GetConfigTemplate", "1"}, {}, "", "bin/Ostrel/");
    EXPECT_EQ(r.out, startFailed("Illegal file name in arg[0]."));
}

}  // namespace
}  // namespace daemon_test
