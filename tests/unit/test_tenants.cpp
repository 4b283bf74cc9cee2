#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "qvctrl_config.h"
#include "qvctrl_tenants.h"

namespace {

using tenant_list = qvhlp_list<quorvale_tenant_mapping_t>;

TEST(Tenants, FirstMappingOfARealmWins) {
    tenant_list list;
    qvtest::LogCapture log;
    EXPECT_EQ(qvctrl_add_tenant_mapping(list, "t1", "r1", "Realm One"), 0);
    EXPECT_EQ(qvctrl_add_tenant_mapping(list, "t2", "r1", "Renamed"), 0);
    EXPECT_EQ(qvctrl_add_tenant_mapping(list, "t2", "r2", "Realm Two"), 0);
    EXPECT_EQ(list.size(), 2u);
    EXPECT_TRUE(log.contains("Adding tenantID t1 and realmName Realm One for realmID r1"));
    EXPECT_TRUE(log.contains("Tenant mapping already exists for realmID r1"));

    std::string tenant;
    std::string name;
    ASSERT_EQ(qvctrl_get_tenantID_by_realmID(list, "r1", &tenant, &name), 0);
    EXPECT_EQ(tenant, "t1");
    EXPECT_EQ(name, "Realm One");
    EXPECT_TRUE(log.contains("Found tenantID t1 and realmName Realm One for realmID r1"));
    ASSERT_EQ(qvctrl_get_tenantID_by_realmID(list, "r2", &tenant, nullptr), 0);
    EXPECT_EQ(tenant, "t2");
    EXPECT_EQ(name, "Realm One");  // not asked for, not touched
}

TEST(Tenants, LookupAnswersWhetherKnownAndLeavesOutputsOfUnknownRealms) {
    tenant_list list;
    qvtest::LogCapture log;
    ASSERT_EQ(qvctrl_add_tenant_mapping(list, "t1", "r1", "Realm One"), 0);
    EXPECT_EQ(qvctrl_get_tenantID_by_realmID(list, "r1", nullptr, nullptr), 0);

    std::string tenant = "unchanged";
    std::string name = "unchanged";
    // Exact comparison: neither a prefix nor an extension of a known realm matches.
    for (const char* unknown : {"r", "r11", "R1", ""}) {
        EXPECT_EQ(qvctrl_get_tenantID_by_realmID(list, unknown, &tenant, &name), -1) << unknown;
    }
    EXPECT_EQ(qvctrl_get_tenantID_by_realmID(list, nullptr, &tenant, &name), -1);
    EXPECT_EQ(tenant, "unchanged");
    EXPECT_EQ(name, "unchanged");

    EXPECT_LT(qvctrl_add_tenant_mapping(list, nullptr, "r3", "x"), 0);
    EXPECT_LT(qvctrl_add_tenant_mapping(list, "t3", nullptr, "x"), 0);
    EXPECT_LT(qvctrl_add_tenant_mapping(list, "t3", "r3", nullptr), 0);
    EXPECT_EQ(list.size(), 1u);
}

// Gateway answers for one realm arrive on several handler threads at once: one mapping results,
// and readers meanwhile see either none or that one.
TEST(Tenants, ConcurrentAddsOfOneRealmKeepOneMapping) {
    tenant_list list;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&list, i] {
            const std::string tenant = "t" + std::to_string(i);
            for (int round = 0; round < 5; ++round) {
                EXPECT_EQ(qvctrl_add_tenant_mapping(list, tenant.c_str(), "shared", "Shared"), 0);
                std::string seen;
                EXPECT_EQ(qvctrl_get_tenantID_by_realmID(list, "shared", &seen, nullptr), 0);
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(list.size(), 1u);
}

}  // namespace
