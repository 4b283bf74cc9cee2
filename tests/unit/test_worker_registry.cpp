// The worker registry's projection rules, the worker-control dispatchers and the poller lock,
// without a broker: registrations are applied directly and the relay finds no connection.
#include <gtest/gtest.h>

#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include "log_capture.h"
#include "qv_json.h"
#include "qv_test_util.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_poller_lock.h"
#include "qvctrl_worker_request_handlers.h"

namespace {

class Registry : public ::testing::Test {
  protected:
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    qvtest::LogCapture log;

    bool logged(const std::string& text) const { return log.contains(text); }
    int apply(const std::string& document) {
        qv::json_ptr doc = qv_json_parse(document);
        return qvctrl_apply_worker_registration(config.get(), doc.get());
    }
    std::string call(qv_service_handler_t handler, const std::string& body) {
        return qvtest::call_handler(handler, config.get(), body);
    }
};

}  // namespace

TEST_F(Registry, RejectedDocumentsAndTakeOversLeaveTheListAlone) {
    EXPECT_EQ(apply(R"({"service-name": "qv-av-trellix", "worker-name": "qv-av-trellix.h_1"})"),
              -1);
    EXPECT_TRUE(logged("Failed to read Secret from JSON"));
    EXPECT_EQ(apply(R"({"service-name": "qv-av-trellix", "worker-name": "", "Secret": "s"})"), -1);
    EXPECT_EQ(apply(R"({"service-name": "x", "worker-name": "x.h", "Secret": null})"), -1);
    EXPECT_TRUE(logged("Key Secret found, but value is empty"));
    EXPECT_EQ(config->running_services.size(), 0u);

    // Another service and secret under a registered worker-name take over nothing.
    ASSERT_EQ(apply(R"({"service-name": "qv-av-trellix", "worker-name": "qv-av-trellix.h_1",
                        "Secret": "first"})"),
              0);
    ASSERT_EQ(apply(R"({"service-name": "qv-av-mimescan", "worker-name": "qv-av-trellix.h_1",
                        "Secret": "second"})"),
              0);
    ASSERT_EQ(config->running_services.size(), 1u);
    auto w = qvctrl_find_worker_by_name(&config->running_services, "qv-av-trellix.h_1");
    ASSERT_TRUE(w);
    EXPECT_EQ(w->servicename, "qv-av-trellix");
    EXPECT_EQ(w->secret, "first");
}

TEST_F(Registry, RequestsWithoutAMandatoryMemberNameIt) {
    const auto service = qv_av_control_worker_service_request_handler;
    EXPECT_EQ(call(service, R"({"Command": 200, "service-name": "qv-av-trellix"})"),
              "{\"ReturnCode\": -1000, \"Error\": \"Failed to read worker-name from JSON\"}");
    EXPECT_EQ(call(service, R"({"Command": 200, "worker-name": null})"),
              "{\"ReturnCode\": -1000, \"Error\": \"Key worker-name found, but value is empty\"}");

    const auto client = qv_av_control_worker_client_request_handler;
    EXPECT_EQ(call(client, R"({"Command": 2, "realmID": "r1", "SID": "", "Hostname": "h"})"),
              "{\"ReturnCode\": -1, \"Error\": \"Key SID found, but value is empty\"}");
}

TEST(PollerLock, OnlyOneProcessLeadsUntilItCloses) {
    qvtest::TempDir dir;
    const std::string path = dir / "realms.lock";
    int to_parent[2];
    int to_child[2];
    ASSERT_EQ(pipe(to_parent), 0);
    ASSERT_EQ(pipe(to_child), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto lock = qvctrl_poller_lock_open(path.c_str());
        const char got = qvctrl_poller_lock_try_acquire(lock.get()) == 1 ? '1' : '0';
        (void)!write(to_parent[1], &got, 1);
        char go = 0;
        (void)!read(to_child[0], &go, 1);
        _exit(0);  // the system drops the lock with the process
    }
    char got = 0;
    ASSERT_EQ(read(to_parent[0], &got, 1), 1);
    ASSERT_EQ(got, '1');

    auto lock = qvctrl_poller_lock_open(path.c_str());
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(qvctrl_poller_lock_try_acquire(lock.get()), 0);
    EXPECT_EQ(qvctrl_poller_lock_held(lock.get()), 0);
    ASSERT_EQ(write(to_child[1], "x", 1), 1);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(qvctrl_poller_lock_try_acquire(lock.get()), 1);
    EXPECT_EQ(qvctrl_poller_lock_held(lock.get()), 1);
    for (int fd : {to_parent[0], to_parent[1], to_child[0], to_child[1]}) {
        close(fd);
    }
    qvctrl_poller_lock_close(std::move(lock));
}
