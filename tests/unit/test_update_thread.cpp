#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "http_test_server.h"
#include "log_capture.h"
#include "qv_test_util.h"
#include "qvctrl_config.h"
#include "qvctrl_update_thread.h"
#include "update_packages.h"

using qvtest::HttpTestServer;
using qvtest::LogCapture;

namespace {

const std::string kServerFile = qvctrl_update_package_name() + "_nats__20240301001.zip";

// An installation with one active version, and an update thread record for it.
struct installation {
    qvtest::TempDir root;
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    qv_control_update_thread_params_t params;
    std::string component;

    installation() {
        config->basedir = root / "base";
        component = config->basedir + "/qv-av-control";
        qvtest::make_dirs(component + "/1700000000/bin");
        qvtest::write_file(component + "/1700000000/.version.qv", "20240101001");
        update_latest_link(component.c_str(), "1700000000");
        params.config = config.get();
        lock_file_set_path(&update_lockfile, component, QVCTRL_UPDATE_LOCK_NAME);
    }
    std::string latest_target() const {
        char target[256] = {};
        return readlink((component + "/latest").c_str(), target, sizeof(target) - 1) > 0 ? target
                                                                                         : "";
    }
};

}  // namespace

TEST(UpdateThread, CheckInstallsThenWaitsForActivation) {
    LogCapture log;
    installation inst;
    HttpTestServer server;
    server.respond(304, "");
    qvtest::serve_package(server, kServerFile, qvtest::make_package({{"prog", "new", 0755, ""}}));
    inst.config->update_config->update_server = server.url();
    std::thread loop([&] { qvctrl_update_loop(&inst.params, 200); });

    ASSERT_TRUE(qvtest::wait_until([&] { return inst.params.status.load() == FILES_READY; }))
        << log.text();
    const std::string fresh = inst.component + "/" + inst.params.update_deployed_to;
    EXPECT_EQ(qvtest::read_file(fresh + "/bin/prog"), "new");
    EXPECT_EQ(qvtest::read_file(fresh + "/.version.qv"), "20240301001");
    EXPECT_EQ(inst.latest_target(), "1700000000");
    EXPECT_EQ(qvtest::list_dir(inst.component),
              (std::vector<std::string>{"1700000000", inst.params.update_deployed_to, "latest"}));
    // While the installed version waits for activation, the server is not asked again.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(server.request_count(), 2u);
    // A failed activation sets WAITING again, and checks resume.
    inst.params.status = WAITING;
    EXPECT_TRUE(qvtest::wait_until([&] { return server.request_count() >= 3; }));
    EXPECT_TRUE(qvtest::wait_until([&] { return log.contains("Nothing to update."); },
                                   std::chrono::seconds(5)));
    inst.params.targetstatus = STOP;
    loop.join();
}

TEST(UpdateThread, FailedActivationRestoresLinkAndLocks) {
    LogCapture log;
    installation inst;
    qvtest::make_dirs(inst.component + "/1700000100/bin");
    const std::string lock_path = inst.root / "instance.lock";
    qv::unique_fd instance(open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(instance.get(), LOCK_EX), 0);
    ASSERT_EQ(lock_check_create(&update_lockfile), 1);

    std::string program = inst.component + "/latest/bin/missing-program";
    char* argv[] = {program.data(), nullptr};
    EXPECT_EQ(qvctrl_complete_update_activation(inst.config->basedir.c_str(), "1700000100", argv,
                                                instance.get()),
              -1);
    EXPECT_TRUE(log.contains("Failed to launch " + program));
    EXPECT_EQ(inst.latest_target(), "1700000000");
    // Both locks are held again: nobody else can take them.
    qv::unique_fd probe(open(lock_path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_NE(flock(probe.get(), LOCK_EX | LOCK_NB), 0);
    qv_update_lock_file other;
    lock_file_set_path(&other, inst.component, QVCTRL_UPDATE_LOCK_NAME);
    EXPECT_EQ(lock_check_create(&other), 0);
    lock_release(&update_lockfile);
}
