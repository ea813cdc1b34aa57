#include "platform/ZMJSON.h"

#include <gtest/gtest.h>

#include <string>

TEST(ZMJSONPrettyString, WritesFoundationLayout) {
  ZMValue value;  // keys deliberately out of alphabetical order: file order is kept
  value["name"] = "https://cdn/a/b";
  value["version"] = "1.0.2";
  value["list"] = {1, 2.5, false, nullptr};
  value["nested"]["inner"]["deep"] = -3;
  value["noKeys"] = ZMValue::object();
  value["noItems"] = ZMValue::array();
  value["text"] = "quote\" back\\ tab\t nl\n ctl\x01 caf\u00e9";

  EXPECT_EQ(ZMJSONPrettyString(value),
            "{\n"
            "  \"name\" : \"https:\\/\\/cdn\\/a\\/b\",\n"
            "  \"version\" : \"1.0.2\",\n"
            "  \"list\" : [\n"
            "    1,\n"
            "    2.5,\n"
            "    false,\n"
            "    null\n"
            "  ],\n"
            "  \"nested\" : {\n"
            "    \"inner\" : {\n"
            "      \"deep\" : -3\n"
            "    }\n"
            "  },\n"
            "  \"noKeys\" : {\n"
            "\n"
            "  },\n"
            "  \"noItems\" : [\n"
            "\n"
            "  ],\n"
            "  \"text\" : \"quote\\\" back\\\\ tab\\t nl\\n ctl\\u0001 caf\u00e9\"\n"
            "}");

  EXPECT_EQ(ZMJSONPrettyString(ZMValue::array({ZMValue::array(), ZMValue::object()})),
            "[\n  [\n\n  ],\n  {\n\n  }\n]");

  // What is written reads back as the same value, "\/" included.
  const auto parsed = ZMJSONParse(ZMJSONPrettyString(value));
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(*parsed, value);
}

TEST(ZMJSONParse, KeepsKeyOrderAndReportsErrors) {
  const auto value = ZMJSONParse(R"({"zeta": 1, "alpha": {"b": [], "a": "x\/y"}})");
  ASSERT_TRUE(value.has_value());
  EXPECT_EQ(value->dump(), R"({"zeta":1,"alpha":{"b":[],"a":"x/y"}})");

  for (const std::string text : {"", "{", R"({"a": 1,})", "[1 2]", "{} trailing",
                                 "{\"a\": \"\xff\"}", "// comment\n{}", "{'a': 1}"}) {
    ZMError error;
    EXPECT_EQ(ZMJSONParse(text, &error), std::nullopt) << text;
    EXPECT_EQ(error.domain, kZMCocoaErrorDomain) << text;
    EXPECT_EQ(error.code, kZMPropertyListReadCorruptError) << text;
  }
}
