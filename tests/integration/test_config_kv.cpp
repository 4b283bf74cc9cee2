#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qv_nats_config.h"
#include "qv_nats_kv_cache.h"
#include "qv_test_util.h"
#include "qvctrl_config_kv.h"

using qvtest::NatsServer;

namespace {

struct ConfigKv : ::testing::Test {
    NatsServer server;
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();

    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_EQ(server.create_buckets(), 0);
        config->main_nats_config = server.client_config();
        ASSERT_EQ(qv_nats_init(config->main_nats_config.get()), 0);
    }
    void TearDown() override {
        qv_nats_deinit(other.get());
        qv_nats_deinit(config->main_nats_config.get());
    }
    // Another instance's connection, for the tests that need one.
    std::unique_ptr<qv_nats_config> other = server.client_config();

    void put(const char* prefix, const char* realm, const char* sid, const std::string& json) {
        qv::json_ptr object = qv_json_parse(json);
        ASSERT_TRUE(object);
        qvctrl_config_kv_put(config.get(), prefix, realm, sid, object.get());
    }
    std::string get(const char* prefix, const char* realm, const char* sid) {
        qv::json_ptr object = qvctrl_config_kv_get(config.get(), prefix, realm, sid);
        return object ? qv_json_to_string(object.get()) : "(miss)";
    }
    std::string raw(const std::string& key) {
        std::string value;
        const int rc = qv_nats_kv_get(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET,
                                      key.c_str(), &value);
        return rc == 0 ? value : "<" + std::to_string(rc) + ">";
    }
};

}  // namespace

TEST_F(ConfigKv, OverlongOrInvalidKeysAndCorruptValuesAreMisses) {
    // 5 + 500 + 1 + 5 = 511 characters still fit; one more does not.
    const std::string realm(500, 'r');
    put(QVCTRL_CONFIG_PREFIX_SCAN, realm.c_str(), "sid01", R"({"a": "1"})");
    EXPECT_EQ(get(QVCTRL_CONFIG_PREFIX_SCAN, realm.c_str(), "sid01"), R"({"a":"1"})");
    put(QVCTRL_CONFIG_PREFIX_SCAN, realm.c_str(), "sid012", R"({"a": "1"})");
    EXPECT_EQ(get(QVCTRL_CONFIG_PREFIX_SCAN, realm.c_str(), "sid012"), "(miss)");
    for (const char* bad : {"a b", "r\r\n", "*", ">", "$x", "a..b"}) {
        put(QVCTRL_CONFIG_PREFIX_SCAN, bad, "s", R"({"a": "1"})");
        EXPECT_EQ(get(QVCTRL_CONFIG_PREFIX_SCAN, bad, "s"), "(miss)") << bad;
    }
    ASSERT_EQ(qv_nats_kv_put(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, "scan.r9.s9",
                             "{not json", 0),
              0);
    EXPECT_EQ(get(QVCTRL_CONFIG_PREFIX_SCAN, "r9", "s9"), "(miss)");
}

TEST_F(ConfigKv, KeysNameTheKindTheRealmAndTheSidAndArePrefixDeletedAndEnumerated) {
    put(QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1", R"({"MAXSIZE": "100"})");
    put(QVCTRL_CONFIG_PREFIX_MIMEEXT, "r1", "", R"({"text/plain": "txt"})");
    EXPECT_EQ(raw("scan.r1.s1"), R"({"MAXSIZE":"100"})");
    EXPECT_EQ(raw("mimeext.r1"), R"({"text/plain":"txt"})");
    // A null or empty SID reads the realm-wide entry.
    EXPECT_EQ(get(QVCTRL_CONFIG_PREFIX_MIMEEXT, "r1", nullptr), R"({"text/plain":"txt"})");
    EXPECT_EQ(get(QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s2"), "(miss)");
    put(QVCTRL_CONFIG_PREFIX_AC, "r1", "s1", "{}");
    put(QVCTRL_CONFIG_PREFIX_MIMEXLAT, "r.2", "s2", "{}");
    put(QVCTRL_CONFIG_PREFIX_SCAN, "r10", "s3", "{}");
    ASSERT_EQ(qv_nats_kv_put(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, "tenant.r1.s1",
                             "{}", 0),
              0);
    std::set<std::pair<std::string, std::string>> pairs;
    ASSERT_EQ(
        qvctrl_config_kv_for_each_realm_sid(
            config.get(), [&](const char* realm, const char* sid) { pairs.emplace(realm, sid); }),
        0);
    // One pair for r1/s1 over two kinds, none for the realm-wide or foreign keys, and a realm
    // with a dot is split at its first one.
    EXPECT_EQ(pairs, (std::set<std::pair<std::string, std::string>>{
                         {"r1", "s1"}, {"r", "2.s2"}, {"r10", "s3"}}));

    // A kind's prefix takes the entries of that kind only.
    qvctrl_config_kv_delete_prefix(config.get(), QVCTRL_CONFIG_PREFIX_SCAN);
    EXPECT_EQ(raw("scan.r1.s1"), "<1>");
    EXPECT_EQ(raw("scan.r10.s3"), "<1>");
    EXPECT_EQ(raw("ac.r1.s1"), "{}");
}

// Reads are answered from this instance's cache of the bucket, and a change made by any instance
// is seen: at once when this instance made it, as soon as the watch reports it otherwise.
TEST_F(ConfigKv, CachedReadsFollowEveryInstancesChanges) {
    ASSERT_EQ(qv_nats_init(other.get()), 0);
    qv_nats_config* mine = config->main_nats_config.get();
    EXPECT_EQ(raw("scan.r1.s1"), "<1>");
    ASSERT_TRUE(mine->_config_cache);
    ASSERT_TRUE(qvtest::wait_until([&] { return mine->_config_cache->ready(); }));

    ASSERT_EQ(qv_nats_kv_put(other.get(), QV_KV_CONFIG_BUCKET, "scan.r1.s1", "v1", 0), 0);
    EXPECT_EQ(raw("scan.r1.s1"), "v1");  // a miss is never cached
    const uint64_t hits = mine->_config_cache->hits();
    EXPECT_EQ(raw("scan.r1.s1"), "v1");
    EXPECT_EQ(mine->_config_cache->hits(), hits + 1);

    ASSERT_EQ(qv_nats_kv_put(other.get(), QV_KV_CONFIG_BUCKET, "scan.r1.s1", "v2", 0), 0);
    EXPECT_TRUE(qvtest::wait_until([&] { return raw("scan.r1.s1") == "v2"; }));
    qv_nats_kv_delete(other.get(), QV_KV_CONFIG_BUCKET, "scan.r1.s1");
    EXPECT_TRUE(qvtest::wait_until([&] { return raw("scan.r1.s1") == "<1>"; }));

    // This instance's own writes and deletions are read back at once.
    for (const char* value : {"v3", "v4", "v5"}) {
        ASSERT_EQ(qv_nats_kv_put(mine, QV_KV_CONFIG_BUCKET, "scan.r1.s1", value, 0), 0);
        EXPECT_EQ(raw("scan.r1.s1"), value);
        EXPECT_EQ(raw("scan.r1.s1"), value);
    }
    qvctrl_config_kv_delete_prefix(config.get(), "scan.r1");
    EXPECT_EQ(raw("scan.r1.s1"), "<1>");

    // A rebuilt connection starts a new watch, which again reports other instances' changes.
    ASSERT_EQ(qv_nats_kv_put(mine, QV_KV_CONFIG_BUCKET, "ac.r2", "a1", 0), 0);
    EXPECT_EQ(raw("ac.r2"), "a1");
    natsConnection_Close(qv_nats_connection(mine).get());
    ASSERT_EQ(qv_nats_check_connection(mine), 0);
    ASSERT_TRUE(qvtest::wait_until([&] { return mine->_config_cache->ready(); }));
    EXPECT_EQ(raw("ac.r2"), "a1");
    ASSERT_EQ(qv_nats_kv_put(other.get(), QV_KV_CONFIG_BUCKET, "ac.r2", "a2", 0), 0);
    EXPECT_TRUE(qvtest::wait_until([&] { return raw("ac.r2") == "a2"; }));
}

// A bucket deleted and made again numbers its revisions from 1 anew; the watch on the old one
// would report none of its changes, so reads would lag by the cache's whole entry age.
TEST_F(ConfigKv, ABucketMadeAgainIsWatchedAfresh) {
    ASSERT_EQ(qv_nats_init(other.get()), 0);
    qv_nats_config* mine = config->main_nats_config.get();
    for (const char* value : {"o1", "o2", "o3", "old"}) {
        ASSERT_EQ(qv_nats_kv_put(other.get(), QV_KV_CONFIG_BUCKET, "scan.r1.s1", value, 0), 0);
    }
    EXPECT_EQ(raw("scan.r1.s1"), "old");
    ASSERT_TRUE(qvtest::wait_until([&] { return mine->_config_cache->ready(); }));
    EXPECT_EQ(raw("scan.r1.s1"), "old");

    ASSERT_EQ(js_DeleteKeyValue(other->_js.get(), QV_KV_CONFIG_BUCKET), NATS_OK);
    ASSERT_EQ(server.create_buckets(), 0);
    ASSERT_EQ(qv_nats_kv_put(other.get(), QV_KV_CONFIG_BUCKET, "scan.r1.s1", "new", 0), 0);
    const auto soon = std::chrono::milliseconds(qv_nats_kv_cache::s_max_age) / 2;
    EXPECT_TRUE(qvtest::wait_until([&] { return raw("scan.r1.s1") == "new"; }, soon));
    ASSERT_TRUE(qvtest::wait_until([&] { return mine->_config_cache->ready(); }));
    // The new bucket's later changes are reported too.
    EXPECT_EQ(raw("scan.r1.s1"), "new");
    ASSERT_EQ(qv_nats_kv_put(other.get(), QV_KV_CONFIG_BUCKET, "scan.r1.s1", "newer", 0), 0);
    EXPECT_TRUE(qvtest::wait_until([&] { return raw("scan.r1.s1") == "newer"; }, soon));
}
