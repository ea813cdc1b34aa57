#include "platform/ZMJSON.h"

#include <gtest/gtest.h>

#include <string>

// The file utilities' tests cover parsing: key order, "\/" and what is refused.
TEST(ZMJSONPrettyString, WritesFoundationLayout) {
  ZMValue value;  // keys deliberately out of alphabetical order: insertion order is kept
  value["name"] = "https://cdn/a/b";
  value["list"] = {1, 2.5, false, nullptr};
  value["nested"]["inner"]["deep"] = -3;
  value["noKeys"] = ZMValue::object();
  value["noItems"] = ZMValue::array();
  value["text"] = "quote\" back\\ tab\t nl\n ctl\x01 caf\u00e9";
  EXPECT_EQ(ZMJSONPrettyString(value),
            "{\n  \"name\" : \"https:\\/\\/cdn\\/a\\/b\",\n"
            "  \"list\" : [\n    1,\n    2.5,\n    false,\n    null\n  ],\n"
            "  \"nested\" : {\n    \"inner\" : {\n      \"deep\" : -3\n    }\n  },\n"
            "  \"noKeys\" : {\n\n  },\n  \"noItems\" : [\n\n  ],\n"
            "  \"text\" : \"quote\\\" back\\\\ tab\\t nl\\n ctl\\u0001 caf\u00e9\"\n}");

  // What is written reads back as the same value, "\/" included.
  EXPECT_EQ(ZMJSONParse(ZMJSONPrettyString(value)), value);
}
