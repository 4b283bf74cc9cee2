// Hostile values in the requests of the client and event services, handled in this process
// without a broker: a refused value gets its reply, shows escaped in the trace log, and is handed
// on nowhere.
#include <gtest/gtest.h>

#include <string>

#include "log_capture.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv_test_util.h"
#include "qvctrl_worker_request_handlers.h"

namespace {

const std::string kOK = "{\"ReturnCode\": 0}";

class HostileRequests : public ::testing::Test {
  protected:
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    qvtest::LogCapture log;

    bool logged(const std::string& text) const { return log.contains(text); }
    std::string call(qv_service_handler_t handler, const std::string& body) {
        return qvtest::call_handler(handler, config.get(), body, nullptr);
    }
};

}  // namespace

TEST_F(HostileRequests, ClientServiceNameIsCheckedAsItIsLookedUpAndTheHostOnlyLogged) {
    const auto client = qv_av_control_worker_client_request_handler;
    auto request = [](const std::string& host, const std::string& service) {
        return R"({"Command": 2, "realmID": "r1", "SID": "PRD", "Hostname": )" +
               qvtest::quoted(host) + R"(, "Servicename": )" + qvtest::quoted(service) + "}";
    };
    // Lower-cased, trimmed and cut to 255 characters before the check.
    EXPECT_EQ(call(client, request("sap01", " QV-AV-Trellix\t")), kOK);
    EXPECT_EQ(call(client, request("sap01", std::string(1000, 'A'))), kOK);
    EXPECT_EQ(call(client, request("sap01", "qv av")),
              "{\"ReturnCode\": -1, \"Error\": \"Invalid service name\"}");

    // The host name goes nowhere but the trace line, escaped.
    EXPECT_EQ(call(client, request("sap01\r\nforged line", "qv-av-trellix")), kOK);
    EXPECT_TRUE(logged("r1 - PRD at sap01\\r\\nforged line is requesting service"));
    EXPECT_FALSE(logged("\nforged line"));
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
