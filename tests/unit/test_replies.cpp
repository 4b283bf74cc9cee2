#include <gtest/gtest.h>

#include "qvhlp_replies.h"
#include "qv_worker_ping_handler.h"

namespace {

std::string ping(const std::string& body) {
    qv_request_reply_t rr;
    rr.request.json_txt = body;
    qv_const_request_reply_t crr{&rr.request, &rr.reply};
    qv_worker_ping_request_handler(nullptr, &crr);
    return rr.reply.json_txt;
}

}  // namespace

TEST(Replies, FormattersProduceTheFixedTexts) {
    qv_message_t reply;
    ASSERT_EQ(qv_reply_set_ERROR(&reply, -1, "x"), 0);
    EXPECT_EQ(reply.json_txt, "{\"ReturnCode\": -1, \"Error\": \"x\"}");
    ASSERT_EQ(qv_reply_set_OK(&reply), 0);
    EXPECT_EQ(reply.json_txt, "{\"ReturnCode\": 0}");
    ASSERT_EQ(qv_reply_set_return_code(&reply, -1000), 0);
    EXPECT_EQ(reply.json_txt, "{\"ReturnCode\": -1000}");
}

TEST(Replies, MessageFreeKeepsTheStagedKey) {
    qv_message_t m;
    m.json_txt = "{}";
    m.data = {1, 2, 3};
    m.staged_data_key = "scan-1-2-3";
    qv_message_free(&m);
    EXPECT_TRUE(m.json_txt.empty());
    EXPECT_EQ(m.data_len(), 0u);
    EXPECT_EQ(m.staged_data_key, "scan-1-2-3");
}

TEST(PingHandler, AnswersOnlyThePingCommand) {
    EXPECT_EQ(ping("{\"Command\": 3}"), "{\"ReturnCode\": 0}");
    EXPECT_EQ(ping("{\"Command\": 4}"), "{\"ReturnCode\": -1}");
    EXPECT_EQ(ping("{\"Other\": 3}"), "{\"ReturnCode\": -1}");
    EXPECT_EQ(ping("{not json"), "{\"ReturnCode\": -1}");
    EXPECT_EQ(ping("[3]"), "{\"ReturnCode\": -1}");
    EXPECT_EQ(ping(""), "{\"ReturnCode\": -1}");
}
