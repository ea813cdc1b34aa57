#include "platform/ZMFormat.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "platform/ZMJSON.h"
#include "support/TestSupport.h"
#include "tavo/ZMLog.h"

TEST(ZMFormat, ObjectsNullsRealsPercentAndWhereLogLinesGo) {
  EXPECT_EQ(ZMFormat("%@ is a file", {"/data/x"}), "/data/x is a file");
  EXPECT_EQ(ZMFormat("[%@] [%@] [%@] [%@]", {nullptr, static_cast<const char*>(nullptr),
                                             std::optional<std::string>(), ZMValue(nullptr)}),
            "[(null)] [(null)] [(null)] [(null)]");
  EXPECT_EQ(ZMFormat("%@ and %@", {"one"}), "one and (null)");  // a missing argument

  EXPECT_EQ(ZMFormat("error: %@", {ZMError("game not installed", -1, ZMValue::object())}),
            "error: Error Domain=game not installed Code=-1 \"The operation couldn\u2019t be "
            "completed. (game not installed error -1.)\"");  // no empty UserInfo
  EXPECT_EQ(ZMFormat("%@", {ZMException(kZMInvalidArgumentException, "bad")}), "bad");
  EXPECT_EQ(ZMFormat("%@", {ZMException("ZimoRuntime error", std::nullopt)}), "ZimoRuntime error");

  EXPECT_EQ(ZMFormat("%f|%f", {-0.1, 3}), "-0.100000|3.000000");  // an integer prints as a real
  EXPECT_EQ(ZMFormat("%f", {1e200}), std::to_string(1e200));      // in full, never cut
  EXPECT_EQ(ZMFormat("%.1f%% of %@", {42.26, "game"}), "42.3% of game");
  EXPECT_EQ(ZMFormat("%%@ %@", {"x"}), "%@ x");  // an escaped percent consumes no argument
  EXPECT_EQ(ZMFormat("trailing %"), "trailing %");

  // Log lines go to the sink in place, else to stderr.
  {
    LogCapture log;
    ZMLogFormat("delete file fail: %@", {nullptr});
    EXPECT_EQ(log.lines(), std::vector<std::string>{"delete file fail: (null)"});
  }
  testing::internal::CaptureStderr();
  ZMLogFormat("post url request error: %@", {"timeout"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "libtavo: post url request error: timeout\n");
}

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
