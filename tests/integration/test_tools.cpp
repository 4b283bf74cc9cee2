#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon_process.h"
#include "http_test_server.h"
#include "nats_server.h"

using qvtest::NatsServer;
using qvtest::run_tool;
using qvtest::ToolResult;

TEST(Tools, KvSetupCreatesBucketsOnceAndRequestPingsTheDaemon) {
    NatsServer server({.tls = true, .users = {{"control@local", "pw"}}});
    ASSERT_TRUE(server.start());
    // A tool run with the connection options of this server before `args`.
    auto tool = [&](const char* name, const std::vector<std::string>& args = {}) {
        std::vector<std::string> all = {
            "--url",      server.url(), "--user",    "control@local",
            "--password", "pw",         "--ca-file", qvtest::test_certificates().ca_cert};
        all.insert(all.end(), args.begin(), args.end());
        return run_tool(name, all);
    };
    ToolResult r = tool("qv-av-kv-setup");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("created qv-av-worker-registry"), std::string::npos) << r.out;
    r = tool("qv-av-kv-setup");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("exists qv-av-worker-registry"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("created"), std::string::npos);

    qvtest::DaemonProcess d;
    d.use_nats(server.url(), "control@local", "pw");
    ASSERT_TRUE(d.start_serving()) << d.logs();
    EXPECT_TRUE(qvtest::wait_until([&] {
        r = tool("qv-av-request", {"qv-av-control.ping"});
        return r.status == 0;
    }));
    EXPECT_NE(r.out.find("\"ReturnCode\":0"), std::string::npos) << r.out;

    // With a payload the bytes are staged beside the request and fetched by the daemon.
    qvtest::TempDir dir;
    qvtest::write_file(dir / "payload.bin", std::string(700000, 'x'));
    r = tool("qv-av-request",
             {"--payload", dir / "payload.bin", "qv-av-control.ping", "{\"Command\": 3}"});
    EXPECT_EQ(r.status, 0) << r.err;

    r = tool("qv-av-request", {"--timeout", "300", "qv-av-control.ping", "{\"Command\": 9}"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\"ReturnCode\":-1"), std::string::npos);

    r = tool("qv-av-request", {"--timeout", "300", "qv-av-nobody"});
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
