#include "camera/channel_config.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "common/return_codes.h"

namespace {

using Keys = std::map<std::string, std::string>;

// The keys of one channel with valid values; "" as a map value writes
// "name=" and the missing marker leaves the key out.
const char* const kMissing = "\x01missing";

Keys validKeys()
{
    return {
        {"translator_tarndatatype", "ostrel"},
        {"encoder_ip", "10.0.0.7"},
        {"encoder_port", "8080"},
        {"translator_connect_ip", "10.0.0.9"},
        {"translator_connect_port", "9001"},
        {"translator_connect_camerano", "2"},
        {"channel_authentic_switch", "1"},
        {"channel_authentic_user_id", "root"},
        {"channel_authentic_user_password", "pass word"},
        {"translator_calarm_rec_postterm", "30"},
    };
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Runs in a fresh working directory holding conf/Config.txt; the real
// semaphore key is used, as the daemon does.
class ChannelConfigTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(getcwd(oldCwd_, sizeof oldCwd_), nullptr);
        char tmpl[] = "/tmp/ostrel_chcfgXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        ASSERT_EQ(chdir(dir_.c_str()), 0);
        ASSERT_EQ(mkdir("conf", 0777), 0);
        log_ = new DbPrintf_Class((dir_ + "/log.txt").c_str(), 1);
    }
    void TearDown() override
    {
        delete log_;
        ASSERT_EQ(chdir(oldCwd_), 0);
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
    }
    // Writes the keys of each channel. The single-channel form adds a valid
    // channel 7, so that a wrong key suffix would be caught.
    void writeConfig(const std::map<int, Keys>& channels)
    {
        std::ofstream out("conf/Config.txt", std::ios::trunc);
        out << "# channel settings\n";
        for (const auto& ch : channels) {
            char suffix[8];
            std::snprintf(suffix, sizeof suffix, "_%04d", ch.first);
            for (const auto& kv : ch.second) {
                if (kv.second != kMissing)
                    out << kv.first << suffix << "=" << kv.second << "\n";
            }
        }
    }
    void writeConfig(const Keys& keys) { writeConfig({{7, validKeys()}, {1, keys}}); }
    std::string logText() { return slurp(dir_ + "/log.txt"); }

    char oldCwd_[4096];
    std::string dir_;
    DbPrintf_Class* log_ = nullptr;
};

struct KeyFault {
    const char* key;
    int missingCode;
    int emptyCode;
};

TEST_F(ChannelConfigTest, EveryKeyMissingOrEmptyFailsAndKeepsTheRecord)
{
    const KeyFault faults[] = {
        {"translator_tarndatatype", NOTFOUND_ITEM, CHANNEL_CONFIG_TYPE_MISMATCH},
        {"encoder_ip", NOTFOUND_ITEM, READ_FAILED},
        {"encoder_port", NOTFOUND_ITEM, READ_FAILED},
        {"translator_connect_ip", NOTFOUND_ITEM, READ_FAILED},
        {"translator_connect_port", NOTFOUND_ITEM, READ_FAILED},
        {"translator_connect_camerano", NOTFOUND_ITEM, READ_FAILED},
        {"channel_authentic_switch", NOTFOUND_ITEM, READ_FAILED},
        {"channel_authentic_user_id", NOTFOUND_ITEM, READ_FAILED},
        {"channel_authentic_user_password", NOTFOUND_ITEM, READ_FAILED},
        {"translator_calarm_rec_postterm", NOTFOUND_ITEM, SHORTAGE_VALUE},
    };
    writeConfig(validKeys());
    configInfoIO_Class io;
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1), SUCCESS);
    configParam_Struct good;
    ASSERT_EQ(io.GetParamsFromMem(&good), SUCCESS);
    const std::int64_t stamp = io.GetUpdateStamp();

    for (const KeyFault& f : faults) {
        for (bool missing : {true, false}) {
            SCOPED_TRACE(std::string(f.key) + (missing ? " missing" : " empty"));
            Keys keys = validKeys();
            // Change another value too: a partial update would show.
            keys["encoder_port"] = "1234";
            keys[f.key] = missing ? kMissing : "";
            writeConfig(keys);
            EXPECT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1), missing ? f.missingCode : f.emptyCode);
            configParam_Struct now;
            ASSERT_EQ(io.GetParamsFromMem(&now), SUCCESS);
            EXPECT_EQ(std::memcmp(&now, &good, sizeof now), 0);
            EXPECT_EQ(io.GetUpdateStamp(), stamp);
        }
    }

    configInfoIO_Class none;
    std::remove("conf/Config.txt");
    EXPECT_EQ(none.ReadParamFromFileAndTimeUpdate_WithChNum(1), CANNOT_FILEOPEN);
    EXPECT_EQ(none.GetUpdateStamp(), 0);
}

TEST_F(ChannelConfigTest, ValueRulesOfSingleKeys)
{
    struct Row {
        const char* key;
        std::string value;
        int code;
        const char* note;
    } rows[] = {
        {"translator_tarndatatype", "OSTREL", SUCCESS, "type in other letter case"},
        {"translator_tarndatatype", "Ostrel2", CHANNEL_CONFIG_TYPE_MISMATCH, "another type"},
        {"translator_tarndatatype", std::string(300, 'x'), CHANNEL_CONFIG_TYPE_MISMATCH, "long type"},
        {"translator_calarm_rec_postterm", "86400", SUCCESS, "largest term"},
        {"translator_calarm_rec_postterm", "0", OUT_OF_RANGE, "term of zero"},
        {"translator_calarm_rec_postterm", "86401", OUT_OF_RANGE, "term above a day"},
        {"translator_calarm_rec_postterm", "3o", INVALID_CODE, "letter in term"},
        {"translator_calarm_rec_postterm", std::string(64, '1'), OVER_CHAR, "64 digits"},
        {"encoder_ip", std::string(63, 'a'), SUCCESS, "value filling its field"},
        {"encoder_ip", std::string(64, 'a'), DATA_LARGE_THEN_BUF, "value one longer than its field"},
        {"channel_authentic_user_password", std::string(64, 'p'), DATA_LARGE_THEN_BUF, "long password"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        Keys keys = validKeys();
        keys[row.key] = row.value;
        writeConfig(keys);
        configParam_Struct p;
        configInfoIO_Class io;
        EXPECT_EQ(io.mutex_ReadParamFromConfigFile_WithChNum(1, &p), row.code);
    }
}

TEST_F(ChannelConfigTest, PortsWrapAndCredentialsFollowTheSwitch)
{
    Keys keys = validKeys();
    keys["encoder_port"] = "70000";
    keys["channel_authentic_switch"] = "0";
    keys["channel_authentic_user_id"] = kMissing;
    keys["channel_authentic_user_password"] = kMissing;
    writeConfig(keys);
    configInfoIO_Class io;
    configParam_Struct p;
    ASSERT_EQ(io.mutex_ReadParamFromConfigFile_WithChNum(1, &p), SUCCESS);
    EXPECT_EQ(p.encoder_port, 4464) << "ports wrap modulo 65536";
    EXPECT_STREQ(p.channel_authentic_user_id, "");
    EXPECT_STREQ(p.channel_authentic_user_password, "");

    keys["channel_authentic_switch"] = "2";
    writeConfig(keys);
    EXPECT_EQ(io.mutex_ReadParamFromConfigFile_WithChNum(1, &p), NOTFOUND_ITEM)
        << "any non-zero switch requires the credentials";
    EXPECT_EQ(io.mutex_ReadParamFromConfigFile_WithChNum(10000, &p), INVALID_ARGUMENT);
}

TEST_F(ChannelConfigTest, UpdateTimeMovesOnlyWhenTheContentChanges)
{
    writeConfig(validKeys());
    configInfoIO_Class io;
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1, log_), SUCCESS);
    const std::int64_t first = io.GetUpdateStamp();
    ASSERT_NE(first, 0);

    // The same content again, also with comments and other channels changed.
    writeConfig({{1, validKeys()}, {3, validKeys()}});
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1, log_), SUCCESS);
    EXPECT_EQ(io.GetUpdateStamp(), first) << "an unchanged file must not make the camera reconnect";

    Keys keys = validKeys();
    keys["encoder_ip"] = "10.0.0.8";
    writeConfig(keys);
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1, log_), SUCCESS);
    EXPECT_GT(io.GetUpdateStamp(), first);
}

TEST_F(ChannelConfigTest, ReadsEveryFieldAndLogsChangesOldValueFirst)
{
    writeConfig(validKeys());
    configInfoIO_Class io;
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1, log_), SUCCESS);
    std::string log = logText();
    const char* firstRead[] = {
        "myip  -> 192.0.2.1\n",
        "encoder_ip  -> 10.0.0.7\n",
        "encoder_port 0 -> 8080\n",
        "translator_connect_ip  -> 10.0.0.9\n",
        "translator_connect_port 0 -> 9001\n",
        "translator_connect_camarano  -> 2\n",
        "channel_authentic_switch 0 -> 1\n",
        "channel_authentic_user_id  -> root\n",
        "channel_authentic_user_passwd  -> pass word\n",
        "translator_calarm_rec_postterm 0 -> 30\n",
    };
    size_t at = 0;
    for (const char* line : firstRead) {
        size_t found = log.find(line, at);
        ASSERT_NE(found, std::string::npos) << line;
        at = found;
    }
    configParam_Struct p;
    ASSERT_EQ(io.GetParamsFromMem(&p), SUCCESS);
    EXPECT_STREQ(p.myip, "192.0.2.1") << "myip is the address of eth0";
    EXPECT_STREQ(p.channel_authentic_user_password, "pass word");

    // A switch other than exactly 1 keeps the credentials out of the log.
    Keys keys = validKeys();
    keys["channel_authentic_switch"] = "2";
    keys["channel_authentic_user_id"] = "admin";
    writeConfig(keys);
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1, log_), SUCCESS);
    log = logText();
    EXPECT_NE(log.find("channel_authentic_switch 1 -> 2\n"), std::string::npos);
    EXPECT_EQ(log.find("root -> admin"), std::string::npos);

    keys["translator_tarndatatype"] = "Other";
    writeConfig(keys);
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1, log_), CHANNEL_CONFIG_TYPE_MISMATCH);
    log = logText();
    EXPECT_NE(log.find("[configInfoIO_Class::mutex_ReadParamFromConfigFile_WithChNum()] "
                       "translator_tarndatatype_ do not match.\n"),
              std::string::npos);
    EXPECT_NE(log.find("translator_tarndatatype mismatch\n"), std::string::npos);
}

// Readers copying while the record flips between two channels' settings
// must always get one whole record, with a stamp that never runs backwards.
TEST_F(ChannelConfigTest, CopiesNeverMixTwoRecords)
{
    Keys other = validKeys();
    other["encoder_ip"] = "10.9.9.9";
    other["channel_authentic_user_password"] = "other secret";
    writeConfig({{1, validKeys()}, {2, other}});
    configInfoIO_Class io;
    configParam_Struct rec[2];
    for (int ch : {2, 1}) {
        ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(ch), SUCCESS);
        ASSERT_EQ(io.GetParamsFromMem(&rec[ch - 1]), SUCCESS);
    }

    constexpr int kReaders = 3;
    std::atomic<int> ready{0};
    std::atomic<bool> done{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&]() {
            ready.fetch_add(1);
            std::int64_t last = 0;
            while (!done.load()) {
                configParam_Struct p;
                std::int64_t stamp = 0;
                io.GetParamsFromMem_WithStamp(&p, &stamp);
                if ((std::memcmp(&p, &rec[0], sizeof p) != 0 && std::memcmp(&p, &rec[1], sizeof p) != 0) ||
                    stamp < last || io.GetUpdateStamp() < stamp)
                    bad.fetch_add(1);
                last = stamp;
            }
        });
    }
    while (ready.load() < kReaders)
        std::this_thread::yield();
    int failures = 0;
    for (int i = 0; i < 60; ++i)
        failures += io.ReadParamFromFileAndTimeUpdate_WithChNum(i % 2 + 1) != SUCCESS;
    done.store(true);
    for (std::thread& t : readers)
        t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
