#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "log_capture.h"
#include "qv_test_util.h"
#include "qvctrl_read_config_parameters.h"

namespace {

// The smallest file that reads through: the main connection and the installed services.
const std::string kBase =
    "[GLOBAL]\n"
    "NATS_URL=nats://localhost:4222\n"
    "BROKER_CERT=/etc/qv/ca.pem\n"
    "INSTALLED=qv-av-trellix;qv-av-control\n"
    "[qv-av-control]\n"
    "BROKER_PASSWORD=secret\n";

class ConfigParameters : public ::testing::Test {
  protected:
    void TearDown() override {
        for (const std::string& name : env_) {
            unsetenv(name.c_str());
        }
    }

    void set_env(const std::string& name, const std::string& value) {
        setenv(name.c_str(), value.c_str(), 1);
        env_.push_back(name);
    }
    std::string write(const std::string& text) {
        qvtest::write_file(dir_ / "control.ini", text);
        return dir_ / "control.ini";
    }
    std::unique_ptr<ini_t> load(const std::string& text) { return ini_load(write(text).c_str()); }
    // Reads `text` into a fresh record.
    int read(const std::string& text) {
        config_ = qvctrl_config_new();
        return qvctrl_ReadConfigParameters(write(text).c_str(), config_.get(), 0);
    }
    bool logged(const std::string& text) const { return log_.contains(text); }

    qvtest::TempDir dir_;
    qvtest::LogCapture log_;
    std::unique_ptr<quorvale_control_config_t> config_ = qvctrl_config_new();
    std::vector<std::string> env_;
};

}  // namespace

TEST_F(ConfigParameters, PeriodsAreBounded) {
    struct Case {
        std::string lines;
        int32_t ttl, sync, event_ttl, event_sync;
    };
    const Case cases[] = {
        {"", 15000, 5000, 30000, 10000},
        {"WORKER_REGISTRY_TTL=1\n", 2000, 1000, 30000, 10000},
        {"WORKER_REGISTRY_SYNC_INTERVAL=10\n", 15000, 7500, 30000, 10000},
        {"WORKER_REGISTRY_TTL=0\nWORKER_REGISTRY_SYNC_INTERVAL=-3\n", 15000, 5000, 30000, 10000},
        {"EVENT_SUBSCRIPTION_TTL=2\n", 15000, 5000, 5000, 2500},
        {"EVENT_SUBSCRIPTION_SYNC_INTERVAL=1\n", 15000, 5000, 30000, 1000},
    };
    for (const Case& k : cases) {
        ASSERT_EQ(read(kBase + k.lines), 0) << k.lines;
        EXPECT_EQ(config_->worker_registry_ttl_ms, k.ttl) << k.lines;
        EXPECT_EQ(config_->worker_registry_sync_interval_ms, k.sync) << k.lines;
        EXPECT_EQ(config_->event_subscription_ttl_ms, k.event_ttl) << k.lines;
        EXPECT_EQ(config_->event_subscription_sync_interval_ms, k.event_sync) << k.lines;
    }
}

TEST_F(ConfigParameters, EnvironmentWinsAndABadNumberStopsTheReading) {
    set_env("QV_SHUTDOWN_DELAY", "3 seconds");
    set_env("QV_APIGW_URL", "https://gw.example/api with blanks");
    set_env("QV_WORKER_REGISTRY_TTL", "99999999999999999999");
    EXPECT_EQ(read(kBase + "SHUTDOWN_DELAY=7\nEPOLOG-WORKER-THREADS=4\n"), -1);
    EXPECT_EQ(config_->shutdown_delay, 3);
    EXPECT_EQ(config_->apigw_url, "https://gw.example/api with blanks");
    EXPECT_EQ(config_->number_of_epolog_threads, 0);  // after the failing key: never read
    EXPECT_TRUE(config_->controlled_services.empty());
    EXPECT_TRUE(logged("Error 34 converting env variable WORKER_REGISTRY_TTL"));
}

TEST_F(ConfigParameters, FilesThatCannotBeUsedFail) {
    const std::pair<std::string, std::string> cases[] = {
        {"[GLOBAL]\nNATS_URL=nats://localhost:4222\nBROKER_CERT=/c\n"
         "[qv-av-control]\nBROKER_PASSWORD=p\n",
         "Mandatory INSTALLED config value from section [GLOBAL] missing"},
        // Cloud management needs the base directory to find the broker's files.
        {kBase + "[GLOBAL]\nCLOUD_MANAGEMENT=1\n",
         "BROKER_AUTH_FILE/BROKER_PID_FILE could not be derived"},
        {kBase + "TEMP_PATH=${QVTEST_BASE/tmp\n", "Failed to expand path for parameter TEMP_PATH"},
    };
    for (const auto& [text, line] : cases) {
        EXPECT_EQ(read(text), -1) << line;
        EXPECT_TRUE(logged(line)) << log_.text();
    }
    EXPECT_EQ(qvctrl_ReadConfigParameters((dir_ / "missing.ini").c_str(), config_.get(), 0), -1);
}

TEST_F(ConfigParameters, NatsServerUrlAndUser) {
    struct Case {
        std::string global, section;
        bool default_local;
        std::string url, user, broker_name;
    };
    const Case cases[] = {
        {"BROKER_URL=tls://broker.example:4443\n", "", true, "tls://broker.example:4443",
         "control@local", "local"},
        {"BROKER_URL=localhost:4222\nBROKER_NAME=edge\n", "", true, "nats://localhost:4222",
         "control@edge", "edge"},
        {"NATS_URL=nats://n:1\nBROKER_URL=ignored:9\n", "BROKER_USER=alice\n", false, "nats://n:1",
         "alice", ""},
    };
    for (const Case& k : cases) {
        auto ini = load("[GLOBAL]\nBROKER_CERT=/c\n" + k.global +
                        "[qv-av-control]\nBROKER_PASSWORD=p\n" + k.section);
        std::unique_ptr<qv_nats_config> slot;
        ASSERT_EQ(qvctrl_ReadNatsConfigParameters("qv-av-control", "", ini.get(), true,
                                                  k.default_local, slot),
                  0)
            << k.global;
        EXPECT_EQ(slot->server_url, k.url) << k.global;
        EXPECT_EQ(slot->user, k.user) << k.global;
        EXPECT_EQ(slot->broker_name, k.broker_name) << k.global;
    }

    // No URL fails; a missing certificate fails even when nothing is mandatory.
    std::unique_ptr<qv_nats_config> slot;
    auto no_url = load("[GLOBAL]\nBROKER_CERT=/c\n[qv-av-control]\nBROKER_PASSWORD=p\n");
    EXPECT_EQ(qvctrl_ReadNatsConfigParameters("qv-av-control", "", no_url.get(), true, true, slot),
              -1);
    auto no_cert = load("[GLOBAL]\nNATS_URL=nats://n:1\n[qv-av-control]\nBROKER_PASSWORD=p\n");
    EXPECT_EQ(
        qvctrl_ReadNatsConfigParameters("qv-av-control", "", no_cert.get(), false, true, slot), -1);
}
