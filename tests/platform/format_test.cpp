#include "platform/ZMFormat.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "support/TestSupport.h"
#include "tavo/ZMLog.h"

TEST(ZMFormat, ObjectPlaceholderPrintsNullAsNullText) {
  const char* noText = nullptr;
  EXPECT_EQ(ZMFormat("%@ is a file", {"/data/x"}), "/data/x is a file");
  EXPECT_EQ(ZMFormat("[%@] [%@] [%@] [%@]",
                     {nullptr, noText, std::optional<std::string>(), ZMValue(nullptr)}),
            "[(null)] [(null)] [(null)] [(null)]");
  EXPECT_EQ(ZMFormat("%@ and %@", {"one"}), "one and (null)");  // a missing argument
  EXPECT_EQ(ZMFormat("%@", {std::string("")}), "");

  const ZMError error("game not installed", -1);
  EXPECT_EQ(ZMFormat("error: %@", {error}), "error: " + error.description());
  EXPECT_EQ(ZMFormat("%@", {ZMException(kZMInvalidArgumentException, "bad")}), "bad");
  EXPECT_EQ(ZMFormat("%@", {ZMException("ZimoRuntime error", std::nullopt)}),
            "ZimoRuntime error");
}

TEST(ZMFormat, NumbersAndPercent) {
  EXPECT_EQ(ZMFormat("%f", {1.5}), "1.500000");
  EXPECT_EQ(ZMFormat("%f", {-0.1}), "-0.100000");
  EXPECT_EQ(ZMFormat("%.2f|%.0f", {3.14159, 2.5}), "3.14|2");
  EXPECT_EQ(ZMFormat("%f", {3}), "3.000000");  // an integer argument still prints as a real
  // Large values print in full, as printf does, never cut at a fixed width.
  EXPECT_EQ(ZMFormat("%f", {1e200}), std::to_string(1e200));

  EXPECT_EQ(ZMFormat("%ld/%ld", {-5L, 10L}), "-5/10");
  EXPECT_EQ(ZMFormat("%lld", {std::numeric_limits<long long>::min()}),
            std::to_string(std::numeric_limits<long long>::min()));
  EXPECT_EQ(ZMFormat("%d %i %u %lu", {7, -8, 9u, 10L}), "7 -8 9 10");

  EXPECT_EQ(ZMFormat("100%%"), "100%");
  EXPECT_EQ(ZMFormat("%%@ %@", {"x"}), "%@ x");  // an escaped percent consumes no argument
  EXPECT_EQ(ZMFormat("%.1f%% of %@", {42.26, "game"}), "42.3% of game");
  EXPECT_EQ(ZMFormat("trailing %"), "trailing %");
}

TEST(ZMFormat, LogSinkReceivesEachLine) {
  {
    LogCapture log;
    ZMLogFormat("delete file fail: %@", {nullptr});
    ZMLogFormat("[runGame] begin %@ %ld", {"app", 3L});
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"delete file fail: (null)", "[runGame] begin app 3"}));
  }
  // Without a sink, lines go to stderr.
  testing::internal::CaptureStderr();
  ZMLogFormat("post url request error: %@", {"timeout"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "libtavo: post url request error: timeout\n");
}
