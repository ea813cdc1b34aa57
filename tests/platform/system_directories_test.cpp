// Where libtavo keeps its files when the host does not say, and the device facts it reports.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <regex>

#include "tavo/ZMSystemDirectories.h"

TEST(ZMSystemDirectories, DefaultsFollowTheXdgVariablesThenHomeThenTheRoot) {
  ZMDevice::setBundleIdentifier("b");
  const char* names[] = {"HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"};
  struct Row {
    const char* values[3];  // null: unset
    std::string documents, caches;
  };
  for (const Row& row : {
           Row{{"/home/h/", nullptr, nullptr}, "/home/h/.local/share/b", "/home/h/.cache/b"},
           Row{{"/", nullptr, nullptr}, "/.local/share/b", "/.cache/b"},
           Row{{nullptr, nullptr, nullptr}, "/.local/share/b", "/.cache/b"},
           Row{{"/home/h", "/x/data", "/x/cache/"}, "/x/data/b", "/x/cache/b"},
       }) {
    for (int i = 0; i < 3; ++i) {
      row.values[i] ? ::setenv(names[i], row.values[i], 1) : ::unsetenv(names[i]);
    }
    EXPECT_EQ(ZMSystemDirectories::documentsDirectory(), row.documents);
    EXPECT_EQ(ZMSystemDirectories::cachesDirectory(), row.caches);
  }
}

TEST(ZMDevice, TheVendorIdIsAStableNameBasedUUIDPerBundleOrNullWithoutAMachineId) {
  std::ifstream machine("/etc/machine-id");
  ZMDevice::setBundleIdentifier("com.example.one");
  const auto one = ZMDevice::identifierForVendor();
  ASSERT_EQ(one.has_value(), std::isxdigit(machine.peek()) != 0) << "null without a machine id";
  if (!one) return;
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-5[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  EXPECT_TRUE(std::regex_match(*one, uuid)) << *one;
  EXPECT_EQ(ZMDevice::identifierForVendor(), one);
  ZMDevice::setBundleIdentifier("com.example.two");
  EXPECT_NE(ZMDevice::identifierForVendor(), one);
}
