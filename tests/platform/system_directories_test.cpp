// Where libtavo keeps its files when the host does not say, and the device facts it reports.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <utility>

#include "tavo/ZMSystemDirectories.h"

TEST(ZMSystemDirectories, DefaultsFollowTheXdgVariablesThenHomeThenTheRoot) {
  ZMDevice::setBundleIdentifier("b");
  ::unsetenv("XDG_DATA_HOME");
  ::unsetenv("XDG_CACHE_HOME");
  using Home = std::pair<const char*, std::string>;  // HOME (null: unset), the path under it
  for (const auto& [home, under] :
       {Home{"/home/h/", "/home/h"}, Home{"/", ""}, Home{nullptr, ""}}) {
    home ? ::setenv("HOME", home, 1) : ::unsetenv("HOME");
    EXPECT_EQ(ZMSystemDirectories::documentsDirectory(), under + "/.local/share/b");
    EXPECT_EQ(ZMSystemDirectories::cachesDirectory(), under + "/.cache/b");
  }
  ::setenv("XDG_DATA_HOME", "/x/data", 1);
  ::setenv("XDG_CACHE_HOME", "/x/cache/", 1);
  EXPECT_EQ(ZMSystemDirectories::documentsDirectory(), "/x/data/b");
  EXPECT_EQ(ZMSystemDirectories::cachesDirectory(), "/x/cache/b");
}

TEST(ZMDevice, TheVendorIdIsStableAndPerBundleOrNullWithoutAMachineId) {
  ZMDevice::setBundleIdentifier("com.example.one");
  const auto one = ZMDevice::identifierForVendor();
  const bool machineId = std::isxdigit(std::ifstream("/etc/machine-id").peek());
  ASSERT_EQ(one.has_value(), machineId) << "null without a machine id";
  if (!one) return;
  EXPECT_EQ(ZMDevice::identifierForVendor(), one);
  ZMDevice::setBundleIdentifier("com.example.two");
  EXPECT_NE(ZMDevice::identifierForVendor(), one);
}
