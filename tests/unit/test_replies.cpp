#include <gtest/gtest.h>

#include "qv_worker_ping_handler.h"
#include "qvhlp_replies.h"

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

TEST(PingHandler, AnswersOnlyThePingCommand) {
    EXPECT_EQ(ping("{\"Command\": 3}"), "{\"ReturnCode\": 0}");
    for (const char* body : {"{\"Command\": 4}", "{\"Other\": 3}", "{not json", "[3]", ""}) {
        EXPECT_EQ(ping(body), "{\"ReturnCode\": -1}") << body;
    }
}
