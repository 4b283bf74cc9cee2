#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qvctrl_component_configuration.h"

namespace {

// A running worker of the MIME scan service on its own subject, confirming every flush request
// and keeping what it was asked.
class ComponentConfigurationFlush : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        config->main_nats_config = server.client_config();
        ASSERT_EQ(qv_nats_init(config->main_nats_config.get()), 0);
        worker_connection = std::make_unique<qvtest::NatsClient>(server);
        ASSERT_EQ(
            qv_nats_start_service_handler_threads(worker_connection->get(), kWorker,
                                                  qvtest::Recorder::handle, &worker, &stop, 1),
            0);
        ASSERT_EQ(
            natsConnection_FlushTimeout(qv_nats_connection(worker_connection->get()).get(), 10000),
            NATS_OK);

        auto running = std::make_shared<qv_active_worker_t>();
        running->servicename = kService;
        running->controlservicename = kWorker;
        config->running_services.append(running);
        for (const auto& [realm, sid] : std::vector<std::pair<const char*, const char*>>{
                 {"r1", "s1"}, {"r1", "s2"}, {"r2", "s1"}}) {
            ASSERT_EQ(qv_ctrl_component_configuration_add(&list, realm, sid, qv_json_parse("{}")),
                      0);
        }
    }
    void TearDown() override {
        worker_connection.reset();
        qv_nats_deinit(config->main_nats_config.get());
    }

    static constexpr const char* kService = "qv-av-mimescan";
    static constexpr const char* kWorker = "qv-av-mimescan-w1";
    qvtest::NatsServer server;
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    std::atomic<int> stop{0};  // the worker's state outlives its handler threads
    qvtest::Recorder worker;
    std::unique_ptr<qvtest::NatsClient> worker_connection;
    qvctrl_component_configuration_list list;
};

TEST_F(ComponentConfigurationFlush, EachRemovedRecordIsFlushedAndRemoveAllFlushesOnce) {
    EXPECT_EQ(qv_ctrl_component_configuration_remove(config.get(), kService, &list, "r1", ""), 2);
    EXPECT_EQ(worker.received(),
              (std::vector<std::string>{R"({"Command":10,"RealmID":"r1","SID":"s1"})",
                                        R"({"Command":10,"RealmID":"r1","SID":"s2"})"}));
    // Workers of another service are not asked.
    EXPECT_EQ(
        qv_ctrl_component_configuration_remove(config.get(), "qv-av-trellix", &list, "r2", "s1"),
        1);
    EXPECT_EQ(worker.received().size(), 2u);

    // One flush of everything, however many records go.
    ASSERT_EQ(qv_ctrl_component_configuration_add(&list, "r3", "s1", qv_json_parse("{}")), 0);
    ASSERT_EQ(qv_ctrl_component_configuration_add(&list, "r3", "s2", qv_json_parse("{}")), 0);
    EXPECT_EQ(qv_ctrl_component_configuration_remove_all(config.get(), kService, &list), 2);
    ASSERT_EQ(worker.count(), 3u);
    EXPECT_EQ(worker.received().back(), R"({"Command":12,"RealmID":"*","SID":"*"})");
    EXPECT_EQ(qv_ctrl_component_configuration_remove(config.get(), kService, nullptr, "r1", "s1"),
              -1);
}

}  // namespace
