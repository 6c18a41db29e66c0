// Launcher answers of the program: command line, CGI methods and
// parameters, each checked byte for byte on standard output and standard
// error. None of these requests starts a daemon; starting, stopping and the
// failures of a started daemon are exercised by the end-to-end tests.
#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/test_files.h"

namespace {

using test_files::ReadFile;
using test_files::WriteFile;

// A CGI answer as the launcher reads it.
std::string cgi(const std::string& body)
{
    return "Content-Length: " + std::to_string(body.size()) + "\nContent-type: text/plain\n\n" + body;
}

std::string startFailed(const std::string& comment)
{
    return cgi("<Response>\n  <States>Err_StartFaild</States>\n  <Comment>" + comment + "</Comment>\n</Response>\n");
}

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Each test gets a fresh, empty working directory. Sanitizer reports of the
// program go to files in it and fail the test.
class LauncherAnswerTest : public test_files::ScratchDir {
protected:
    void TearDown() override
    {
        glob_t found{};
        if (glob((dir_ + "/sanitizer*").c_str(), 0, nullptr, &found) == 0) {
            for (size_t i = 0; i < found.gl_pathc; ++i)
                ADD_FAILURE() << ReadFile(found.gl_pathv[i]);
        }
        globfree(&found);
        ScratchDir::TearDown();
    }

    // Runs the program in the directory to its end with exactly the given
    // environment (plus sanitizer options) and stdin text.
    Outcome run(std::vector<std::string> args, std::vector<std::string> env = {}, const std::string& in = "")
    {
        WriteFile(dir_ + "/stdin.txt", in);
        const std::string san = "log_path=" + dir_ + "/sanitizer";
        env.insert(env.end(),
                   {"ASAN_OPTIONS=" + san, "UBSAN_OPTIONS=print_stacktrace=1:" + san, "TSAN_OPTIONS=" + san});
        args.insert(args.begin(), "Ostrel");
        pid_t pid = fork();
        if (pid == 0) {
            if (chdir(dir_.c_str()) != 0)
                _exit(127);
            dup2(open("stdin.txt", O_RDONLY), 0);
            dup2(open("stdout.txt", O_WRONLY | O_CREAT | O_TRUNC, 0666), 1);
            dup2(open("stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0666), 2);
            std::vector<char*> av, ev;
            for (auto& s : args)
                av.push_back(&s[0]);
            for (auto& s : env)
                ev.push_back(&s[0]);
            av.push_back(nullptr);
            ev.push_back(nullptr);
            execve(OSTREL_BINARY_DIR "/Ostrel", av.data(), ev.data());
            _exit(127);
        }
        Outcome r;
        waitpid(pid, &r.status, 0);
        r.out = ReadFile(dir_ + "/stdout.txt");
        r.err = ReadFile(dir_ + "/stderr.txt");
        return r;
    }
};

const std::string kUsage =
    "\t-StartUp Name : PP Start (for Debug).\n\t-StartUp_NonDeamon Name : PP Start (for Debug).\n"
    "\t-GetConfigTemplate\n";
const std::string kTemplate = "Content-Length: 53\nContent-type: text/plain\n\n"
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

std::vector<std::string> get(const std::string& query)
{
    return {"REQUEST_METHOD=GET", "QUERY_STRING=" + query};
}
std::vector<std::string> post(int length)
{
    return {"REQUEST_METHOD=POST", "CONTENT_LENGTH=" + std::to_string(length)};
}

TEST_F(LauncherAnswerTest, AnswersEveryRequestExactly)
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
        {{"x", "05"},
         get("Command=getconfigtemplate"),
         "",
         invalid("Unkown Command 'getconfigtemplate'"),
         "",
         "command value compared exactly"},
        {{"x", "05"}, get("Command=StartUp&Name=5"), "", invalid("'Name' Length too short"), "", "short name"},
        {{"x", "05"}, get("Command=StartUp&Name=" + longName), "", invalid("'Name' Length too large"), "", "long name"},
        {{"x", "05"}, get("Command=StartUp"), "", invalid("Not found 'Name' CGI Argument "), "", "no name"},
        {{"x", "05"},
         get("Command=StartUp&Name=0-5"),
         "",
         invalid("'Name' have invalid charactor"),
         "",
         "name characters"},
        {{"x", "05"}, get("Name=05"), "", invalid("Not found 'Command' CGI Argument "), "", "no command"},
        {{"x", "05"}, get("Command=S"), "", invalid("'Command' Length too short"), "", "short command"},
        {{"x", "05"}, get(""), "", invalid("Not found CGI Argument"), "", "empty query"},
        {{"x", "05"}, get("Command=a=b"), "", invalid("CGI Parameter parser error"), "", "query syntax"},
        {{"x", "05"},
         {"REQUEST_METHOD=POST"},
         "",
         invalid("Not found 'Content-Length' in HTTP Header"),
         "",
         "no length"},
        {{"x", "05"}, post(0), "", invalid("Invalid value 'Content-Length':0"), "", "zero length"},
        {{"x", "05"}, post(-3), "", invalid("Invalid value 'Content-Length':-3"), "", "negative length"},
        {{"x", "05"}, post(65536), "", invalid("CGI parametar too large."), "", "length limit"},
        {{"x", "05"}, post(65535), "", startFailed("HTTP Body read faild"), "", "largest length, empty body"},
        {{"x", "05"}, post(27), "Command=GetConfigTemplate\r\n", kTemplate, "", "body with its line end"},
        {{"x", "05"},
         post(11),
         "Command=GetConfigTemplate",
         invalid("Unkown Command 'Get'"),
         "",
         "only the announced length is read"},
        {{"x", "05"},
         {"REQUEST_METHOD=HEAD", "QUERY_STRING=Command=Foo"},
         "",
         "Content-type: text/plain\n\n",
         "",
         "head"},
        {{"x", "05"}, {"REQUEST_METHOD=put"}, "", "[put] Unkown Command.", "", "unknown method"},
    };
    for (const AnswerRow& row : rows) {
        SCOPED_TRACE(row.note);
        Outcome r = run(row.args, row.env, row.in);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
        glob_t states{};
        EXPECT_NE(glob((dir_ + "/*States*").c_str(), 0, nullptr, &states), 0) << "nothing is started";
        globfree(&states);
    }
}

TEST_F(LauncherAnswerTest, UnwritableStatesDirectoryIsReportedToTheLauncher)
{
    WriteFile(dir_ + "/Directory.Conf", "<Directory.Conf><StatesDir>" + dir_ + "/none</StatesDir></Directory.Conf>\n");
    EXPECT_EQ(run({"-StartUp", "1"}).out,
              startFailed("States file does not create. Prease check a permission '" + dir_ + "/none/'"));
    EXPECT_EQ(run({"-StartUp_NonDeamon", "1"}).out, "");
}

}  // namespace
