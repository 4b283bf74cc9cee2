#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "log_capture.h"
#include "qv_base64_decode.h"
#include "qv_json.h"
#include "qv_log.h"
#include "qv_pqueue.h"
#include "qv_test_util.h"
#include "qvhlp_network.h"

namespace {

std::string member(json_object* obj, const char* key) {
    json_object* value = nullptr;
    return json_object_object_get_ex(obj, key, &value) ? json_object_get_string(value) : "<none>";
}

// The exact text of an envelope, up to (not including) its closing brace.
std::string envelope_text(json_object* msg) {
    return "{\"LogVersion\":1,\"Timestamp\":\"" + member(msg, "Timestamp") +
           "\",\"Timestamp_epoch\":" + member(msg, "Timestamp_epoch") +
           ",\"Component\":\"qv-av-control\",\"Hostname\":\"" + qvhlp_GetMyFQDN() +
           "\",\"EventID\":\"" + member(msg, "EventID") + "\"";
}

qv::json_ptr message_data(const char* text) {
    qv::json_ptr data(json_object_new_object());
    json_object_object_add(data.get(), "Message", json_object_new_string(text));
    return data;
}

}  // namespace

TEST(LogEvents, EnvelopeAndLogSectionsHaveTheirExactText) {
    qv::json_ptr msg = qv_log_create_message();
    ASSERT_TRUE(msg);
    EXPECT_TRUE(qvtest::is_time_uuid(member(msg.get(), "EventID"))) << member(msg.get(), "EventID");
    const time_t t = std::stol(member(msg.get(), "Timestamp_epoch"));
    struct tm utc {};
    char stamp[64];
    strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", gmtime_r(&t, &utc));
    EXPECT_EQ(member(msg.get(), "Timestamp"), stamp);
    EXPECT_NE(member(qv_log_create_message().get(), "EventID"), member(msg.get(), "EventID"));

    ASSERT_EQ(qv_log_add_log_section(msg.get(), "StatusLog", "r1", message_data("ready")), 0);
    EXPECT_EQ(qv_json_to_string(msg.get()),
              envelope_text(msg.get()) +
                  ",\"StatusLog\":{\"LogData\":{\"Message\":\"ready\"}},\"realmID\":\"r1\"}");
    qv::json_ptr plain = qv_log_create_message_with_eventID("ev-2");
    ASSERT_EQ(qv_log_add_log_section(plain.get(), "ErrorLog", "", message_data("x")), 0);
    EXPECT_EQ(member(plain.get(), "realmID"), "<none>");

    // The scan log always names a realm, an empty one when none is given.
    qv::json_ptr scan = qv_log_create_message_with_eventID("ev-3");
    ASSERT_EQ(qv_log_add_scanlog_section(scan.get(), "a/scan.log", nullptr, message_data("m")), 0);
    EXPECT_EQ(qv_json_to_string(scan.get()),
              envelope_text(scan.get()) +
                  ",\"ScanLog\":{\"ScanLogPath\":\"a/scan.log\",\"LogData\":{\"Message\":\"m\"}},"
                  "\"realmID\":\"\"}");
}

TEST(LogEvents, EpoRecordHasItsExactText) {
    qv::json_ptr rec = qv_log_create_epolog_json(42, "/tmp/eicar.com", "EICAR", "virus", "test",
                                                 "blocked", nullptr, "10950");
    ASSERT_TRUE(rec);
    EXPECT_EQ(qv_json_to_string(rec.get()),
              "{\"LogType\":\"EPOLog\",\"Timestamp\":" + member(rec.get(), "Timestamp") +
                  ",\"EventID\":42,\"Filename\":\"/tmp/eicar.com\",\"Threat-Name\":\"EICAR\","
                  "\"Threat-Category\":\"virus\",\"Threat-Type\":\"test\",\"Action-taken\":"
                  "\"blocked\",\"Lib-Version\":\"\",\"DAT-Version\":\"10950\"}");
}

TEST(LogEvents, EventsAreQueuedPlainOrSealed) {
    qvtest::LogCapture log;
    qvtest::TempDir run;
    auto pq = qv_pqueue_open(run.path().c_str(), "ev.pq", 3, 1000000, O_CREAT, FAIL);
    auto take = [&] {
        auto element = qv_pqueue_pop(pq.get(), 'E');
        unlink(element->id.c_str());
        return qv_json_parse(reinterpret_cast<const char*>(element->data.data()));
    };
    ASSERT_EQ(qv_log_send_event(pq.get(), 3, "realm-1", "PRD", "/data/x.exe", nullptr, "virus",
                                "blocked", nullptr),
              0);
    qv::json_ptr msg = take();
    EXPECT_EQ(qv_json_to_string(msg.get()),
              envelope_text(msg.get()) +
                  ",\"Command\":501,\"realmID\":\"realm-1\",\"SID\":\"PRD\",\"Event\":{\"Type\":3,"
                  "\"Filename\":\"/data/x.exe\",\"Blocking-Reason\":\"virus\",\"Event-Message\":"
                  "\"blocked\"}}");

    auto key = qv_secretbox_generate_key("event password");
    ASSERT_EQ(qv_log_send_event(pq.get(), 2, nullptr, nullptr, "/in/f.doc", "macro", nullptr,
                                nullptr, key.get()),
              0);
    msg = take();
    const std::string b64 = member(msg.get(), "Event");
    EXPECT_EQ(qv_json_to_string(msg.get()), envelope_text(msg.get()) +
                                                ",\"Command\":501,\"Nonce\":\"" + key->nonce_hex +
                                                "\",\"Event\":\"" + b64 + "\"}");
    const std::vector<unsigned char> cipher = new_base64_decode(b64);
    std::vector<unsigned char> sealed;
    ASSERT_EQ(qv_secretbox_decrypt_buffer(cipher.data(), cipher.size(), key.get(),
                                          key->nonce.data(), &sealed),
              0);
    EXPECT_EQ(std::string(sealed.begin(), sealed.end()),
              "{\"Type\":2,\"Filename\":\"/in/f.doc\",\"Error\":\"macro\"}");
}

// Without a broker every send fails: the dispatcher must drop what cannot be sent at all, keep
// the rest, and leave nothing claimed when it stops.
TEST(LogDispatcher, DropsEmptyEntriesAndRestoresUnsentOnesWhenStopped) {
    qvtest::LogCapture log;
    qvtest::TempDir run;
    auto pq =
        qv_pqueue_open(run.path().c_str(), "qv-av-control.pq", 100, 1000000, O_CREAT, RINGBUFFER);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(qv_pqueue_push(pq.get(), 'L', "{}", 2), 0);
    }
    qvtest::write_file(pq->queue_data_dir + "/E1b4e28ba-2fa1-11d2-883f-0016d3cca427.dat", "");
    auto cfg = qv_nats_config_new();  // never connected
    auto dispatcher = qv_log_create_log_dispatcher(run.path().c_str(), cfg.get());
    ASSERT_TRUE(dispatcher);
    ASSERT_TRUE(log.wait_for("Dropping unreadable/empty entry"));
    dispatcher->killed = 1;
    ASSERT_EQ(QV_JoinThread(&dispatcher->th_id), 0);

    EXPECT_TRUE(log.contains("Failed to send log/event entry"));
    const std::vector<std::string> names = qvtest::list_dir(pq->queue_data_dir);
    EXPECT_EQ(names.size(), 5u);
    for (const std::string& name : names) {
        EXPECT_EQ(name[0], 'L') << name;
    }
}
