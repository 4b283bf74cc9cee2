#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "qvctrl_tenants.h"

namespace {

TEST(Tenants, FirstMappingWinsAndLookupsCopyOnlyWhatIsAsked) {
    qvhlp_list<quorvale_tenant_mapping_t> list;
    qvtest::LogCapture log;
    EXPECT_EQ(qvctrl_add_tenant_mapping(list, "t1", "r1", "Realm One"), 0);
    EXPECT_EQ(qvctrl_add_tenant_mapping(list, "t2", "r1", "Renamed"), 0);
    EXPECT_LT(qvctrl_add_tenant_mapping(list, nullptr, "r2", "x"), 0);
    EXPECT_EQ(list.size(), 1u);

    std::string tenant = "unchanged", name = "unchanged";
    for (const char* unknown : {"r", "r11", "R1", ""}) {
        EXPECT_EQ(qvctrl_get_tenantID_by_realmID(list, unknown, &tenant, &name), -1) << unknown;
    }
    EXPECT_EQ(tenant + name, "unchangedunchanged");
    ASSERT_EQ(qvctrl_get_tenantID_by_realmID(list, "r1", &tenant, nullptr), 0);
    EXPECT_EQ(tenant + "/" + name, "t1/unchanged");
}

// Answers for one realm arrive on several handler threads at once: one mapping results.
TEST(Tenants, ConcurrentAddsOfOneRealmKeepOneMapping) {
    qvhlp_list<quorvale_tenant_mapping_t> list;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&list, i] {
            const std::string tenant = "t" + std::to_string(i);
            for (int round = 0; round < 5; ++round) {
                EXPECT_EQ(qvctrl_add_tenant_mapping(list, tenant.c_str(), "shared", "S"), 0);
                EXPECT_EQ(qvctrl_get_tenantID_by_realmID(list, "shared", nullptr, nullptr), 0);
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(list.size(), 1u);
}

}  // namespace
