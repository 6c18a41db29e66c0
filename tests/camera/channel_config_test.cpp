#include "camera/channel_config.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "camera/camera_test_support.h"
#include "common/return_codes.h"
#include "common/test_files.h"

namespace {

// The real semaphore key is used, as the daemon does.
class ChannelConfigTest : public ConfDirTest {
protected:
    void SetUp() override
    {
        ConfDirTest::SetUp();
        log_ = new DbPrintf_Class((dir_ + "/log.txt").c_str(), 1);
    }
    void TearDown() override
    {
        delete log_;
        ConfDirTest::TearDown();
    }
    // The single-channel form adds a valid channel 7, so that a wrong key
    // suffix would be caught.
    void writeConfig(const Keys& keys) { WriteChannels({{7, ValidChannelKeys()}, {1, keys}}); }
    std::string logText() { return test_files::ReadFile(dir_ + "/log.txt"); }

    DbPrintf_Class* log_ = nullptr;
};

// Every fault keeps the record and its update time; only a content change
// moves the time (an unchanged file must not make the camera reconnect).
TEST_F(ChannelConfigTest, FaultsKeepTheRecordAndOnlyChangesMoveTheUpdateTime)
{
    const std::pair<const char*, int> faults[] = {
        {"translator_tarndatatype", CHANNEL_CONFIG_TYPE_MISMATCH},
        {"encoder_ip", READ_FAILED},
        {"encoder_port", READ_FAILED},
        {"translator_connect_ip", READ_FAILED},
        {"translator_connect_port", READ_FAILED},
        {"translator_connect_camerano", READ_FAILED},
        {"channel_authentic_switch", READ_FAILED},
        {"channel_authentic_user_id", READ_FAILED},
        {"channel_authentic_user_password", READ_FAILED},
        {"translator_calarm_rec_postterm", SHORTAGE_VALUE},
    };
    writeConfig(ValidChannelKeys());
    configInfoIO_Class io;
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1), SUCCESS);
    configParam_Struct good;
    ASSERT_EQ(io.GetParamsFromMem(&good), SUCCESS);
    const std::int64_t stamp = io.GetUpdateStamp();
    ASSERT_NE(stamp, 0);
    // The same content with other channels changed.
    WriteChannels({{1, ValidChannelKeys()}, {3, ValidChannelKeys()}});
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1), SUCCESS);
    EXPECT_EQ(io.GetUpdateStamp(), stamp);

    for (const auto& f : faults) {
        for (bool missing : {true, false}) {
            SCOPED_TRACE(std::string(f.first) + (missing ? " missing" : " empty"));
            Keys keys = ValidChannelKeys();
            // Change another value too: a partial update would show.
            keys["encoder_port"] = "1234";
            keys[f.first] = missing ? kMissing : "";
            writeConfig(keys);
            EXPECT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1), missing ? NOTFOUND_ITEM : f.second);
            configParam_Struct now;
            ASSERT_EQ(io.GetParamsFromMem(&now), SUCCESS);
            EXPECT_EQ(std::memcmp(&now, &good, sizeof now), 0);
            EXPECT_EQ(io.GetUpdateStamp(), stamp);
        }
    }
    Keys keys = ValidChannelKeys();
    keys["encoder_ip"] = "10.0.0.8";
    writeConfig(keys);
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1), SUCCESS);
    EXPECT_GT(io.GetUpdateStamp(), stamp);

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
        Keys keys = ValidChannelKeys();
        keys[row.key] = row.value;
        writeConfig(keys);
        configParam_Struct p;
        configInfoIO_Class io;
        EXPECT_EQ(io.mutex_ReadParamFromConfigFile_WithChNum(1, &p), row.code);
    }
}

TEST_F(ChannelConfigTest, PortsWrapAndCredentialsFollowTheSwitch)
{
    Keys keys = ValidChannelKeys();
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

TEST_F(ChannelConfigTest, LogsChangesOldValueFirstAndCredentialsOnlyWithSwitchOne)
{
    writeConfig(ValidChannelKeys());
    configInfoIO_Class io;
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1, log_), SUCCESS);
    std::string log = logText();
    for (const char* line : {"myip  -> 192.0.2.1\n", "encoder_port 0 -> 8080\n", "channel_authentic_switch 0 -> 1\n",
                             "channel_authentic_user_passwd  -> pass word\n"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
    configParam_Struct p;
    ASSERT_EQ(io.GetParamsFromMem(&p), SUCCESS);
    EXPECT_STREQ(p.myip, "192.0.2.1") << "myip is the address of eth0";
    EXPECT_STREQ(p.channel_authentic_user_password, "pass word");

    // A switch other than exactly 1 keeps the credentials out of the log.
    Keys keys = ValidChannelKeys();
    keys["channel_authentic_switch"] = "2";
    keys["channel_authentic_user_id"] = "admin";
    writeConfig(keys);
    ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(1, log_), SUCCESS);
    log = logText();
    EXPECT_NE(log.find("channel_authentic_switch 1 -> 2\n"), std::string::npos);
    EXPECT_EQ(log.find("root -> admin"), std::string::npos);
}

// Readers copying while the record flips between two channels' settings
// must always get one whole record, with a stamp that never runs backwards.
TEST_F(ChannelConfigTest, CopiesNeverMixTwoRecords)
{
    Keys other = ValidChannelKeys();
    other["encoder_ip"] = "10.9.9.9";
    other["channel_authentic_user_password"] = "other secret";
    WriteChannels({{1, ValidChannelKeys()}, {2, other}});
    configInfoIO_Class io;
    configParam_Struct rec[2];
    for (int ch : {2, 1}) {
        ASSERT_EQ(io.ReadParamFromFileAndTimeUpdate_WithChNum(ch), SUCCESS);
        ASSERT_EQ(io.GetParamsFromMem(&rec[ch - 1]), SUCCESS);
    }

    std::atomic<bool> done{false};
    std::atomic<int> bad{0};
    auto reader = [&]() {
        for (std::int64_t last = 0, stamp = 0; !done.load(); last = stamp) {
            configParam_Struct p;
            io.GetParamsFromMem_WithStamp(&p, &stamp);
            bad += (std::memcmp(&p, &rec[0], sizeof p) != 0 && std::memcmp(&p, &rec[1], sizeof p) != 0) ||
                   stamp < last || io.GetUpdateStamp() < stamp;
        }
    };
    std::thread readers[] = {std::thread(reader), std::thread(reader), std::thread(reader)};
    int failures = 0;
    for (int i = 0; i < 200; ++i)
        failures += io.ReadParamFromFileAndTimeUpdate_WithChNum(i % 2 + 1) != SUCCESS;
    done.store(true);
    for (std::thread& t : readers)
        t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
