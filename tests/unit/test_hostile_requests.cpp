// Hostile values in the requests of the worker-control, client and event services, and in the
// bucket entries the daemon projects, handled in this process without a broker: each refused kind
// of value gets its reply and a warning, and nothing is handed on. Without a broker every attempted
// bucket write or request fails with a log line of its own, so the absence of that line shows
// that nothing was attempted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_capture.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv_json.h"
#include "qv_test_util.h"
#include "qv_validate.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_worker_request_handlers.h"

using namespace std::string_literals;

namespace {

const std::string kInjection = "w\r\nPUB $JS.API.STREAM.DELETE.KV_qv-av-config 0\r\n";

using qvtest::quoted;

std::string error_reply(int rc, const std::string& text) {
    return "{\"ReturnCode\": " + std::to_string(rc) + ", \"Error\": \"" + text + "\"}";
}

const std::string kOK = "{\"ReturnCode\": 0}";

class HostileRequests : public ::testing::Test {
  protected:
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    qvtest::LogCapture log;

    bool logged(const std::string& text) const { return log.contains(text); }
    std::string call(qv_service_handler_t handler, const std::string& body, int* rc = nullptr) {
        return qvtest::call_handler(handler, config.get(), body, rc);
    }
    std::string registration(const std::string& worker_member,
                             const std::string& service_member = "\"qv-av-trellix\"") {
        return R"({"Command": 200, "service-name": )" + service_member + R"(, "worker-name": )" +
               worker_member + R"(, "Secret": "s"})";
    }
};

}  // namespace

TEST_F(HostileRequests, RegistrationRefusalsWriteNothingButAMissingServiceNameIsRelayed) {
    const auto service = qv_av_control_worker_service_request_handler;
    for (const std::string& name : {kInjection, "a\0b"s}) {
        EXPECT_EQ(call(service, registration(quoted(name))),
                  error_reply(-1000, "Invalid worker name"));
    }
    EXPECT_EQ(call(service, registration(quoted("qv-av-trellix.h_1"), quoted("x\r\ny"))),
              error_reply(-1000, "Invalid service name"));
    // Without a broker an attempted write would have logged its failure.
    EXPECT_FALSE(logged("registration relay"));

    // A missing, null or empty service name is still relayed, for the projection to refuse.
    for (const std::string& body : {R"({"Command": 200, "worker-name": "qv-av-trellix.h_1"})"s,
                                    registration(quoted("qv-av-trellix.h_1"), "null"),
                                    registration(quoted("qv-av-trellix.h_1"), "\"\"")}) {
        EXPECT_EQ(call(service, body), kOK) << body;
    }
    EXPECT_TRUE(logged("registration relay: failed to write 'qv-av-trellix.h_1'"));
}

TEST_F(HostileRequests, ProjectionSkipsEntriesWithInvalidNames) {
    auto apply = [&](const std::string& worker, const std::string& service) {
        return qvctrl_apply_worker_registration(
            config.get(), qv_json_parse(registration(quoted(worker), quoted(service))).get());
    };
    for (const auto& [worker, service] : {std::pair{"qv-av-trellix.h b"s, "qv-av-trellix"s},
                                          {"qv-av-trellix.h\0x"s, "qv-av-trellix"s},
                                          {"qv-av-trellix.h_1"s, "qv-av-trellix\r\n"s}}) {
        EXPECT_EQ(apply(worker, service), -1) << worker;
    }
    EXPECT_EQ(config->running_services.size(), 0u);
    EXPECT_TRUE(
        logged("Registry: skipping registration with an invalid service name: "
               "'qv-av-trellix\\r\\n'"));
    EXPECT_EQ(apply("qv-av-trellix.h_1", "qv-av-trellix"), 0);
    EXPECT_EQ(config->running_services.size(), 1u);
}

TEST_F(HostileRequests, ClientServiceNameIsCheckedAsItIsLookedUpAndTheHostOnlyLogged) {
    const auto client = qv_av_control_worker_client_request_handler;
    auto request = [](const std::string& host, const std::string& service) {
        return R"({"Command": 2, "realmID": "r1", "SID": "PRD", "Hostname": )" + quoted(host) +
               R"(, "Servicename": )" + quoted(service) + "}";
    };
    // Lower-cased, trimmed and cut to 255 characters before the check.
    EXPECT_EQ(call(client, request("sap01", " QV-AV-Trellix\t")), kOK);
    EXPECT_EQ(call(client, request("sap01", std::string(1000, 'A'))), kOK);
    EXPECT_EQ(call(client, request("sap01", "qv av")), error_reply(-1, "Invalid service name"));

    // The host name goes nowhere but the trace line, escaped; so does the request dump.
    log.clear();
    EXPECT_EQ(call(client, request("sap01\r\nforged line", "qv-av-trellix")), kOK);
    EXPECT_TRUE(logged("r1 - PRD at sap01\\r\\nforged line is requesting service"));
    EXPECT_FALSE(logged("\nforged line"));
}

TEST_F(HostileRequests, EveryDispatcherTakesOnlyAJsonObject) {
    const qv_service_handler_t dispatchers[] = {qv_av_control_worker_service_request_handler,
                                                qv_av_control_worker_client_request_handler,
                                                qv_av_control_event_request_handler};
    for (const qv_service_handler_t dispatcher : dispatchers) {
        for (const std::string& body :
             {"[1]"s, "true"s, "{\"Command\": 3} x"s, "{\"Command\": 3}\0x"s}) {
            int rc = 0;
            EXPECT_EQ(call(dispatcher, body, &rc), "{\"ReturnCode\": -1}")
                << qv_escape_for_log(body);
            EXPECT_EQ(rc, -1);
        }
    }
    // A dumped request cannot start a line of its own.
    call(qv_av_control_worker_service_request_handler, "{\"Command\": 77,\r\n\"forged\": 1}");
    EXPECT_TRUE(logged("Complete request:\n{\"Command\": 77,\\r\\n\"forged\": 1}"));
    EXPECT_FALSE(logged("\n\"forged\""));
}

TEST_F(HostileRequests, SharedProjectionSkipsForeignKeysAndInvalidScopes) {
    config->event_subscription_kv_enabled = true;
    const std::string good = R"({"realmID": "r1", "SID": "*", "Hostname": "*", "Modules": "*"})";
    qvctrl_event_sub_apply_put(config.get(), "_INBOX.x", good.c_str());
    EXPECT_TRUE(config->event_workers_list.empty());
    qvctrl_event_sub_apply_put(config.get(), "qv-test.s", good.c_str());
    ASSERT_EQ(config->event_workers_list.size(), 1u);
    // A value with an invalid pattern list changes nothing, whichever member holds it.
    for (const char* bad : {R"({"realmID": "r 1"})", R"({"SID": "a\r\nb"})",
                            R"({"Hostname": "h\u0000x"})", R"({"Modules": {"a": 1}})"}) {
        qvctrl_event_sub_apply_put(config.get(), "qv-test.s", bad);
        qvctrl_event_sub_apply_put(config.get(), "qv-test.new", bad);
    }
    ASSERT_EQ(config->event_workers_list.size(), 1u);
    EXPECT_EQ(config->event_workers_list.front().realm, "r1");
    EXPECT_TRUE(
        logged("event-sub: skipping subscription of 'qv-test.s' with an invalid SID "
               "pattern list: 'a\\r\\nb'"));
}

TEST_F(HostileRequests, EventMembersAreOnlyMatchedAndShownEscaped) {
    config->event_workers_list.push_back(
        {"qv-test.h", "*", "*", "host1", "*", time(nullptr) + 3600});
    const std::string body =
        R"({"Command": 501, "Event": {}, "Component": "c\r\nforged", "Hostname": "h\r\nx",)"
        R"( "realmID": "$JS.API.>", "SID": "a b"})";
    EXPECT_EQ(call(qv_av_control_event_request_handler, body), kOK);
    EXPECT_TRUE(
        logged("Dispatch: event filter Hostname='h\\r\\nx' realmID='$JS.API.>' "
               "SID='a b' Component='c\\r\\nforged'"));
    EXPECT_FALSE(logged("\nforged"));
    EXPECT_FALSE(logged("Event sent to"));
}
