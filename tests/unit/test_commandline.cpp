#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qv_test_util.h"
#include "qvctrl_parse_commandline.h"

namespace {

int parse(quorvale_control_config_t* config, std::vector<std::string> args) {
    args.insert(args.begin(), "qv-av-control");
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    return qvctrl_parse_commandline(config, static_cast<int>(args.size()), argv.data());
}

}  // namespace

TEST(CommandLine, StoresOptionsAndReadsTheFileWhenItIsMet) {
    qvtest::TempDir dir;
    qvtest::write_file(dir / "a.ini",
                       "[GLOBAL]\nCLOUD_MANAGEMENT=1\nNATS_URL=nats://h:1\nBROKER_CERT=/ca\n"
                       "INSTALLED=x\n[qv-av-control]\nBROKER_PASSWORD=p\nSHUTDOWN_DELAY=3\n");
    qvtest::write_file(dir / "b.ini",
                       "[GLOBAL]\nNATS_URL=nats://h:2\nBROKER_CERT=/ca\nINSTALLED=x\n"
                       "[qv-av-control]\nBROKER_PASSWORD=p\n");

    // --basedir first: the broker file defaults derive from it while the file is read.
    auto config = qvctrl_config_new();
    ASSERT_EQ(parse(config.get(), {"--basedir", "/opt/qv", "--config-file", dir / "a.ini", "-m",
                                   "extra-argument"}),
              0);
    EXPECT_EQ(config->basedir, "/opt/qv");
    EXPECT_TRUE(config->console_mode);
    EXPECT_EQ(config->config_file, dir / "a.ini");
    EXPECT_EQ(config->shutdown_delay, 3);
    EXPECT_EQ(config->broker_auth_file, "/opt/qv/config/qv-av-broker.auth");

    // --config-file first: nothing to derive from yet.
    config = qvctrl_config_new();
    ASSERT_EQ(parse(config.get(), {"-n", dir / "a.ini", "-a", "/opt/qv"}), 0);
    EXPECT_EQ(config->basedir, "/opt/qv");
    EXPECT_TRUE(config->broker_auth_file.empty());
    EXPECT_FALSE(config->console_mode);

    // A second file is read over the first; a missing one is not a command-line error.
    config = qvctrl_config_new();
    ASSERT_EQ(parse(config.get(), {"-a", "/x", "-n", dir / "a.ini", "-n", dir / "b.ini", "-n",
                                   dir / "missing.ini"}),
              0);
    ASSERT_TRUE(config->main_nats_config);
    EXPECT_EQ(config->main_nats_config->server_url, "nats://h:2");
    EXPECT_EQ(config->config_file, dir / "missing.ini");
}

TEST(CommandLine, RejectsUnknownOptionsAndMissingArguments) {
    auto config = qvctrl_config_new();
    EXPECT_EQ(parse(config.get(), {"--help"}), -1);
    EXPECT_EQ(parse(config.get(), {"-x"}), -1);
    EXPECT_EQ(parse(config.get(), {"--basedir"}), -1);
    EXPECT_EQ(parse(config.get(), {"-m", "--config-file"}), -1);
    // Parsing starts afresh on every call.
    EXPECT_EQ(parse(config.get(), {"-m"}), 0);
}
