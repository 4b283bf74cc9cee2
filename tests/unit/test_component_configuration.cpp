#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sodium.h>

#include "log_capture.h"
#include "qv_json.h"
#include "qvctrl_component_configuration.h"

namespace {

qv::json_ptr message_with(const std::string& plain, bool encode = true) {
    std::vector<char> encoded(
        sodium_base64_encoded_len(plain.size(), sodium_base64_VARIANT_ORIGINAL));
    sodium_bin2base64(encoded.data(), encoded.size(),
                      reinterpret_cast<const unsigned char*>(plain.data()), plain.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    qv::json_ptr object(json_object_new_object());
    json_object_object_add(object.get(), "fld",
                           json_object_new_string(encode ? encoded.data() : plain.c_str()));
    return object;
}

TEST(ComponentConfiguration, DecodesBase64JsonObjectsOnly) {
    qvtest::LogCapture log;
    qv::json_ptr good = message_with(R"({"SCAN": {"MAXSIZE": "100"}})");
    EXPECT_EQ(
        qv_json_to_string(qvctrl_component_configuration_parse_to_json("fld", good.get()).get()),
        R"({"SCAN":{"MAXSIZE":"100"}})");

    // Nothing of the alphabet, or too little for one byte; text that is no JSON object.
    for (const char* nothing : {"====", "!!!*", "Q"}) {
        qv::json_ptr msg = message_with(nothing, false);
        EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("fld", msg.get())) << nothing;
    }
    for (const std::string& plain : {std::string("{not json"), std::string("[1]"),
                                     std::string("null"), std::string("{}\0x", 4)}) {
        qv::json_ptr msg = message_with(plain);
        EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("fld", msg.get())) << plain;
    }
    EXPECT_FALSE(qvctrl_component_configuration_parse_to_json("other", good.get()));
}

TEST(ComponentConfiguration, StoredRecordsShareTheCallersObject) {
    qvctrl_component_configuration_list list;
    qv::json_ptr msg = message_with(R"({"Macros": "1"})");
    qv::json_ptr out;
    ASSERT_EQ(
        qvctrl_component_configuration_parse_store(&list, "fld", msg.get(), "r1", "s1", &out, true),
        0);
    const auto record = qv_ctrl_component_configuration_find(&list, "r1", "s1");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->configuration_json.get(), out.get());
    out.reset();  // the record's own reference keeps the object
    EXPECT_EQ(qv_json_to_string(record->configuration_json.get()), R"({"Macros":"1"})");
    EXPECT_FALSE(qv_ctrl_component_configuration_find(&list, "r1", nullptr));

    // A walker that keeps the iterator makes a lookup give up instead of hanging.
    auto held = list.iterator_wait(0, 1, 25);
    EXPECT_FALSE(qv_ctrl_component_configuration_find(&list, "r1", "s1"));
}

}  // namespace
