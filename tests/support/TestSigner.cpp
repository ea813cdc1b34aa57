#include "support/TestSigner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

extern char** environ;

namespace {

// Runs minisign with `arguments`, its input and output on /dev/null; true when it exits 0.
bool Minisign(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "minisign");
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
  }
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, "minisign", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return false;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
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
