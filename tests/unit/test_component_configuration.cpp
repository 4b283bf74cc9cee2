#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sodium.h>

#include "log_capture.h"
#include "qv_json.h"
#include "qvctrl_component_configuration.h"

namespace {

std::string base64(const std::string& plain) {
    std::vector<char> encoded(
        sodium_base64_encoded_len(plain.size(), sodium_base64_VARIANT_ORIGINAL));
    sodium_bin2base64(encoded.data(), encoded.size(),
                      reinterpret_cast<const unsigned char*>(plain.data()), plain.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    return encoded.data();
}

qv::json_ptr message(const std::string& json) {
    return qv_json_parse(json);
}

qv::json_ptr message_with(const std::string& member, const std::string& value) {
    qv::json_ptr object(json_object_new_object());
    json_object_object_add(
        object.get(), member.c_str(),
        json_object_new_string_len(value.data(), static_cast<int>(value.size())));
    return object;
}

TEST(ComponentConfiguration, DecodesBase64JsonFromTheMember) {
    qvtest::LogCapture log;
    // Line breaks inside the encoded text are skipped.
    std::string encoded = base64(R"({"SCAN": {"MAXSIZE": "100"}})");
    encoded.insert(8, "\r\n");
    qv::json_ptr msg = message_with("fld_scanparameters", encoded);
    qv::json_ptr config =
        qvctrl_component_configuration_parse_to_json("fld_scanparameters", msg.get());
    ASSERT_TRUE(config);
    EXPECT_EQ(qv_json_to_string(config.get()), R"({"SCAN":{"MAXSIZE":"100"}})");
    EXPECT_TRUE(log.contains("Decoding fld_scanparameters config"));
    EXPECT_TRUE(log.contains("Parsed fld_scanparameters config to JSON"));
}

TEST(ComponentConfiguration, MissingEmptyUndecodableAndNonJsonMembersGiveNothing) {
    qvtest::LogCapture log;
    qv::json_ptr missing = message(R"({"other": "e30="})");
    EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("fld", missing.get()));
    EXPECT_TRUE(log.contains("Failed to read fld from JSON"));

    qv::json_ptr not_string = message(R"({"fld": 5})");
    EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("fld", not_string.get()));

    qv::json_ptr empty = message(R"({"fld": ""})");
    EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("fld", empty.get()));
    EXPECT_TRUE(log.contains("Key fld found, but value is empty"));

    // Nothing of the alphabet, or too little for one byte: no configuration and no error line.
    log.clear();
    for (const char* nothing : {"====", "!!!*", "Q", "\r\n"}) {
        qv::json_ptr msg = message_with("fld", nothing);
        EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("fld", msg.get())) << nothing;
    }
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos) << log.text();

    // Decodes, but not to a JSON object.
    for (const std::string& plain : {std::string("{not json"), std::string("[1, 2]"),
                                     std::string("null"), std::string("{}\0x", 4)}) {
        qv::json_ptr msg = message_with("fld", base64(plain));
        EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("fld", msg.get())) << plain;
    }
    EXPECT_TRUE(log.contains("Failed to parse JSON. Errorcode: "));
    EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("fld", nullptr));
}

TEST(ComponentConfiguration, ParseStoreKeepsTheObjectForCallerAndList) {
    qvctrl_component_configuration_list list;
    qv::json_ptr msg = message_with("fld_activecontentconfiguration", base64(R"({"Macros": "1"})"));
    qv::json_ptr out;
    ASSERT_EQ(qvctrl_component_configuration_parse_store(&list, "fld_activecontentconfiguration",
                                                         msg.get(), "r1", "s1", &out, true),
              0);
    ASSERT_TRUE(out);
    const qvctrl_component_configuration_ref record =
        qv_ctrl_component_configuration_find(&list, "r1", "s1");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->configuration_json.get(), out.get());
    out.reset();  // the list's reference keeps the object alive
    EXPECT_EQ(qv_json_to_string(record->configuration_json.get()), R"({"Macros":"1"})");

    // Without `store` nothing is kept; a failed decode or a record without realm is -1.
    ASSERT_EQ(qvctrl_component_configuration_parse_store(&list, "fld_activecontentconfiguration",
                                                         msg.get(), "r2", "s2", &out, false),
              0);
    EXPECT_TRUE(out);
    qvtest::LogCapture log;
    EXPECT_EQ(qvctrl_component_configuration_parse_store(&list, "absent", msg.get(), "r3", "s3",
                                                         &out, true),
              -1);
    EXPECT_TRUE(log.contains("Failed to parse absent config"));
    EXPECT_EQ(qvctrl_component_configuration_parse_store(&list, "fld_activecontentconfiguration",
                                                         msg.get(), "", "s3", &out, true),
              -1);
    EXPECT_TRUE(log.contains("Failed to store fld_activecontentconfiguration config"));
    EXPECT_EQ(list.size(), 1u);
}

TEST(ComponentConfiguration, FindMatchesRealmAndSidExactly) {
    qvctrl_component_configuration_list list;
    ASSERT_EQ(qv_ctrl_component_configuration_add(&list, "r1", "s1", message(R"({"a": 1})")), 0);
    ASSERT_EQ(qv_ctrl_component_configuration_add(&list, "r1", "s2", message(R"({"a": 2})")), 0);
    const auto found = qv_ctrl_component_configuration_find(&list, "r1", "s2");
    ASSERT_TRUE(found);
    EXPECT_EQ(qv_json_to_string(found->configuration_json.get()), R"({"a":2})");
    EXPECT_FALSE(qv_ctrl_component_configuration_find(&list, "r1", "s"));
    EXPECT_FALSE(qv_ctrl_component_configuration_find(&list, "r1", nullptr));
    EXPECT_FALSE(qv_ctrl_component_configuration_find(&list, nullptr, "s1"));

    qvtest::LogCapture log;
    EXPECT_EQ(qv_ctrl_component_configuration_add(&list, "r1", "", message("{}")), -1);
    EXPECT_EQ(qv_ctrl_component_configuration_add(&list, "r1", "s3", nullptr), -1);
    EXPECT_TRUE(log.contains("Invalid parameters"));
    EXPECT_TRUE(log.contains("Failed to create configuration object"));
    EXPECT_EQ(list.size(), 2u);

    // A walker that keeps the iterator makes a lookup give up instead of hanging.
    auto held = list.iterator_wait(0, 1, 25);
    ASSERT_TRUE(held);
    EXPECT_FALSE(qv_ctrl_component_configuration_find(&list, "r1", "s1"));
}

TEST(ComponentConfiguration, RemoveByRealmAndSidByRealmOrAll) {
    auto config = qvctrl_config_new();
    qvctrl_component_configuration_list list;
    for (const auto& [realm, sid] : std::vector<std::pair<const char*, const char*>>{
             {"r1", "s1"}, {"r1", "s2"}, {"r10", "s1"}, {"r2", "s1"}, {"r2", "s2"}}) {
        ASSERT_EQ(qv_ctrl_component_configuration_add(&list, realm, sid, message("{}")), 0);
    }
    qvtest::LogCapture log;
    const char* service = "qv-av-mimescan";
    EXPECT_EQ(qv_ctrl_component_configuration_remove(config.get(), service, &list, "r1", "s2"), 1);
    EXPECT_TRUE(log.contains("deleting configuration for realmID r1 and SID s2"));
    EXPECT_EQ(qv_ctrl_component_configuration_remove(config.get(), service, &list, "r1", "s2"), 0);
    // The realm alone: its records only, not those of a realm that merely begins the same.
    EXPECT_EQ(qv_ctrl_component_configuration_remove(config.get(), service, &list, "r1", ""), 1);
    EXPECT_TRUE(qv_ctrl_component_configuration_find(&list, "r10", "s1"));
    EXPECT_EQ(
        qv_ctrl_component_configuration_remove(config.get(), service, &list, nullptr, nullptr), 3);
    EXPECT_TRUE(log.contains("Removed 3 configurations"));
    EXPECT_EQ(list.size(), 0u);

    EXPECT_EQ(qv_ctrl_component_configuration_remove(config.get(), service, nullptr, "r1", "s1"),
              -1);
    EXPECT_TRUE(log.contains("config_list is NULL"));
}

}  // namespace
