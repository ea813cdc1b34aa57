#include "support/TestSigner.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

// Runs minisign with `arguments`, its input and output on /dev/null; true when it exits 0.
bool Minisign(const std::vector<std::string>& arguments) {
  std::string command = "minisign";
  for (const auto& argument : arguments) command += " " + Quote(argument);
  return std::system((command + " </dev/null >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace

TestSigner::TestSigner() {
  const bool made = Minisign({"-G", "-W", "-p", dir_ / "key.pub", "-s", dir_ / "key.sec"});
  if (!made) ADD_FAILURE() << "minisign could not make a key pair: run scripts/setup.sh";
  const std::string file = made ? ReadFile(dir_ / "key.pub") : std::string();
  publicKey_ = file.substr(file.find('\n') + 1);
  if (!publicKey_.empty() && publicKey_.back() == '\n') publicKey_.pop_back();
}

std::string TestSigner::keyId() const {
  const std::string file = ReadFile(dir_ / "key.pub");
  const auto first = file.substr(0, file.find('\n'));
  return first.substr(first.rfind(' ') + 1);
}

void TestSigner::sign(const std::string& file, bool legacy) const {
  std::vector<std::string> arguments{"-S", "-s", dir_ / "key.sec", "-m", file};
  if (legacy) arguments.push_back("-l");
  EXPECT_TRUE(Minisign(arguments)) << "minisign could not sign " << file;
}

std::string TestSigner::signature(const std::string& file, bool legacy) const {
  sign(file, legacy);
  const std::string path = file + ".minisig";
  std::string text = ReadFile(path);
  std::remove(path.c_str());
  return text;
}
