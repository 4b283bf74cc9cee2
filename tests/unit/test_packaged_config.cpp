// The configuration file and the systemd unit of the Debian package, read the way the installed
// service reads them: the unit's command line through the daemon's own parser, which loads the
// packaged file. The installed paths are moved below a temporary root.
#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <semaphore.h>
#include <sys/stat.h>

#include "log_capture.h"
#include "qv_test_util.h"
#include "qvctrl_config.h"
#include "qvctrl_parse_commandline.h"
#include "qvctrl_read_config_parameters.h"
#include "qvhlp_path.h"

namespace {

// Everything a configuration file decides, one "field=value" line each: two records compare as
// text, and a difference shows by field name.
std::string s_settings(const quorvale_control_config_t& c) {
    std::ostringstream out;
#define F(expr) #expr "=" << (expr) << '\n'
    out << F(c.tracelevel) << F(c.tracefile) << F(c.tracefile_max_size) << F(c.trace_to_screen)
        << F(c.cloud_mode) << F(c.cloud_management) << F(c.config_poll_interval);
    if (const qv_nats_config* n = c.main_nats_config.get()) {
        out << F(n->server_url) << F(n->user) << F(n->password) << F(n->broker_name)
            << F(n->cert_path) << F(n->max_staged_payload);
    }
    const log_config& l = *c.log;
    out << F(c.apigw_url) << F(c.apigw_user) << F(c.apigw_password)
        << F(static_cast<bool>(c.backend_amqp_config)) << F(l.external_logger)
        << F(c.external_epolog_service) << F(l.basedir_blocklog) << F(l.basedir_statuslog)
        << F(l.basedir_updatelog) << F(l.basedir_errorlog) << F(l.basedir_epolog)
        << F(l.basedir_scanlog) << F(l.max_logfile_size_MB) << F(l.log_as_json)
        << F(l.split_logs_by_realm) << F(l.cluster_name) << F(c.shutdown_delay)
        << F(c.worker_timeout) << F(c.worker_registry_ttl_ms) << F(c.worker_registry_enabled)
        << F(c.worker_registry_sync_interval_ms) << F(c.event_subscription_kv_enabled)
        << F(c.event_subscription_ttl_ms) << F(c.event_subscription_sync_interval_ms)
        << F(c.number_of_client_side_worker_threads) << F(c.number_of_service_side_worker_threads)
        << F(c.number_of_logger_threads) << F(c.number_of_event_dispatcher_threads)
        << F(c.number_of_epolog_threads) << F(c.run_as_daemon);
    const qv_update_config_t& u = *c.update_config;
    out << F(u.update_server) << F(u.update_engine) << F(u.update_data) << F(u.update_binary)
        << F(u.update_check_interval) << F(u.update_max_backups) << F(c.network_config->http_proxy)
        << F(c.temppath) << F(c.broker_auth_file) << F(c.broker_pid_file);
    for (const qv_installed_service_t& service : c.controlled_services) {
        out << F(service.servicename);
    }
#undef F
    return out.str();
}

class PackagedConfig : public ::testing::Test {
  protected:
    void TearDown() override {
        sem_unlink(("qv_log_" + std::string(qvhlp_FlattenPath(tracefile().c_str()))).c_str());
    }

    // A file of the package with its installed paths below the temporary root.
    std::string installed(const std::string& name) const {
        std::string text = qvtest::read_file(std::string(QV_SOURCE_DIR) + "/packaging/" + name);
        for (const std::string dir :
             {"/etc/qv-av-control", "/var/lib/qv-av-control", "/var/log/qv-av-control"}) {
            for (size_t at = text.find(dir); at != std::string::npos;
                 at = text.find(dir, at + root_.path().size() + dir.size())) {
                text.insert(at, root_.path());
            }
        }
        return text;
    }
    // The value of a unit setting ("" when the unit has none).
    static std::string unit_value(const std::string& unit, const std::string& key) {
        const std::string start = "\n" + key + "=";
        const size_t at = unit.find(start);
        if (at == std::string::npos) {
            return "";
        }
        const size_t from = at + start.size();
        return unit.substr(from, unit.find('\n', from) - from);
    }
    std::string ini_path() const { return root_.path() + "/etc/qv-av-control/qv-av-control.ini"; }
    std::string tracefile() const {
        return root_.path() + "/var/log/qv-av-control/qv-av-control.trc";
    }

    // Writes `text` as the configuration file with `mode` and runs the daemon's command line of
    // the unit over it; the record it filled.
    std::unique_ptr<quorvale_control_config_t> start(const std::string& text, mode_t mode) {
        qvtest::make_dirs(root_.path() + "/etc/qv-av-control");
        qvtest::make_dirs(root_.path() + "/var/log/qv-av-control");
        qvtest::write_file(ini_path(), text);
        chmod(ini_path().c_str(), mode);
        const std::string exec = unit_value(installed("qv-av-control.service"), "ExecStart");
        EXPECT_FALSE(exec.empty());
        std::istringstream words(exec);
        std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        auto config = qvctrl_config_new();
        EXPECT_EQ(
            qvctrl_parse_commandline(config.get(), static_cast<int>(args.size()), argv.data()), 0);
        return config;
    }

    qvtest::TempDir root_;
    qvtest::LogCapture log_;
};

}  // namespace

// Every ";KEY=VALUE" line of the packaged file documents the value the daemon takes when the
// key is absent: spelling all of them out must change nothing.
TEST_F(PackagedConfig, DocumentedDefaultsAreTheDaemonsOwn) {
    const std::string packaged = installed("qv-av-control.ini");
    std::map<std::string, int> seen;
    std::istringstream lines(packaged);
    std::string spelled_out;
    int documented = 0;
    for (std::string line; std::getline(lines, line);) {
        // A setting: an optional ';', a key of letters, digits, '_' and '-' starting with a
        // letter, '=' and the value.
        const bool commented = !line.empty() && line[0] == ';';
        const size_t eq = line.find('=');
        const std::string key =
            eq == std::string::npos ? "" : line.substr(commented, eq - commented);
        const bool is_setting =
            !key.empty() && isalpha(static_cast<unsigned char>(key[0])) &&
            key.find_first_not_of(
                "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-") ==
                std::string::npos;
        if (is_setting) {
            // One line per key: a later duplicate would be ignored and document nothing.
            EXPECT_EQ(++seen[key], 1) << key << " is listed twice";
            if (commented) {
                line.erase(0, 1);
                ++documented;
            }
        }
        spelled_out += line + '\n';
    }
    EXPECT_GE(documented, 40);

    const auto as_shipped = start(packaged, 0640);
    const auto with_defaults = start(spelled_out, 0640);
    EXPECT_EQ(s_settings(*with_defaults), s_settings(*as_shipped));
}

// What the service gets from its unit and the shipped file: the installed paths, every service
// pool able to start, time to shut down cleanly; and a warning once the file that holds the
// password becomes readable by everyone.
TEST_F(PackagedConfig, ServiceStartsWithThePackagedFile) {
    const auto config = start(installed("qv-av-control.ini"), 0640);
    const quorvale_control_config_t& c = *config;
    EXPECT_EQ(c.basedir, root_.path() + "/var/lib/qv-av-control");
    EXPECT_EQ(c.tracefile, tracefile());
    for (const std::string* dir :
         {&c.log->basedir_scanlog, &c.log->basedir_blocklog, &c.log->basedir_statuslog,
          &c.log->basedir_updatelog, &c.log->basedir_errorlog, &c.log->basedir_epolog}) {
        EXPECT_EQ(*dir, root_.path() + "/var/log/qv-av-control");
    }
    ASSERT_TRUE(c.main_nats_config);
    EXPECT_EQ(c.main_nats_config->cert_path, root_.path() + "/etc/qv-av-control/ca.pem");
    for (int32_t pool : {c.number_of_client_side_worker_threads,
                         c.number_of_service_side_worker_threads, c.number_of_logger_threads,
                         c.number_of_event_dispatcher_threads, c.number_of_epolog_threads}) {
        EXPECT_GE(pool, 1);
    }

    // Noticing SIGTERM (2 s), the shutdown delay and joining the update thread (1 s) must fit
    // into the unit's stop timeout.
    const std::string timeout = unit_value(installed("qv-av-control.service"), "TimeoutStopSec");
    ASSERT_FALSE(timeout.empty());
    ASSERT_EQ(timeout.find_first_not_of("0123456789"), std::string::npos) << timeout;
    EXPECT_GT(std::stoi(timeout), c.shutdown_delay + 3);

    // The warning reaches the trace file the configuration names, with the file and its mode.
    start(installed("qv-av-control.ini"), 0644);
    const std::string trace = qvtest::read_file(tracefile());
    const std::string warning = " can be read by other users (mode 0644)";
    EXPECT_NE(trace.find("Configuration file " + ini_path() + warning), std::string::npos) << trace;
}
