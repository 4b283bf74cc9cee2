#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include <sys/wait.h>

#include "daemon_process.h"
#include "http_test_server.h"
#include "nats_server.h"

using qvtest::NatsServer;

namespace {

using qvtest::run_tool;
using qvtest::ToolResult;

constexpr const char* kUser = "control@local";
constexpr const char* kPassword = "pw";

}  // namespace

TEST(Tools, KvSetupCreatesBucketsOnceAndRequestPingsTheDaemon) {
    NatsServer::Options o;
    o.tls = true;
    o.users = {{kUser, kPassword}};
    NatsServer server(o);
    ASSERT_TRUE(server.start());
    const std::vector<std::string> conn = {
        "--url",      server.url(), "--user",    kUser,
        "--password", kPassword,    "--ca-file", qvtest::test_certificates().ca_cert};
    ToolResult r = run_tool("qv-av-kv-setup", conn);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("created qv-av-worker-registry"), std::string::npos) << r.out;
    r = run_tool("qv-av-kv-setup", conn);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("exists qv-av-worker-registry"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("created"), std::string::npos);

    qvtest::DaemonProcess d;
    d.use_nats(server.url(), kUser, kPassword);
    d.write_config();
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.wait_for_log("Entering main loop"));

    std::vector<std::string> ping = conn;
    ping.push_back("qv-av-control.ping");
    EXPECT_TRUE(qvtest::wait_until([&] {
        r = run_tool("qv-av-request", ping);
        return r.status == 0;
    }));
    EXPECT_NE(r.out.find("\"ReturnCode\":0"), std::string::npos) << r.out;

    // With a payload the bytes are staged beside the request and fetched by the daemon.
    qvtest::TempDir dir;
    qvtest::write_file(dir / "payload.bin", std::string(700000, 'x'));
    std::vector<std::string> staged = conn;
    staged.insert(staged.end(),
                  {"--payload", dir / "payload.bin", "qv-av-control.ping", "{\"Command\": 3}"});
    r = run_tool("qv-av-request", staged);
    EXPECT_EQ(r.status, 0) << r.err;

    std::vector<std::string> wrong = conn;
    wrong.insert(wrong.end(), {"--timeout", "300", "qv-av-control.ping", "{\"Command\": 9}"});
    r = run_tool("qv-av-request", wrong);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\"ReturnCode\":-1"), std::string::npos);

    std::vector<std::string> nobody = conn;
    nobody.insert(nobody.end(), {"--timeout", "300", "qv-av-nobody"});
    r = run_tool("qv-av-request", nobody);
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("no reply from qv-av-nobody"), std::string::npos) << r.err;
    EXPECT_EQ(d.stop(), 0);
}

TEST(Tools, RequestOverTheHttpGatewaySendsAMultipartPost) {
    qvtest::HttpTestServer gw;
    gw.respond(200, "{\"ReturnCode\": 0, \"Via\": \"gateway\"}");
    qvtest::TempDir dir;
    qvtest::write_file(dir / "p.bin", "PAYLOAD");
    ToolResult r =
        run_tool("qv-av-request", {"--url", gw.url(), "--user", "u", "--password", "p", "--payload",
                                   dir / "p.bin", "qv-av-scan", "{\"Command\": 101}"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("\"Via\":\"gateway\""), std::string::npos) << r.out;
    ASSERT_EQ(gw.request_count(), 1u);
    const auto parts = qvtest::parse_multipart(gw.requests()[0]);
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[0].data, "{\"Command\": 101}");
    EXPECT_EQ(parts[1].data, "PAYLOAD");

    // A gateway that answers garbage: no reply, non-zero exit and the reason.
    gw.respond(200, "<html>");
    r = run_tool("qv-av-request", {"--url", gw.url(), "qv-av-scan"});
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("failed to parse JSON from HTTP gateway response"), std::string::npos)
        << r.err;
}
