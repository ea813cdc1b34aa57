#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "merin/MerinGameHandle.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"

namespace fs = std::filesystem;

namespace {

// What one unzip reported: "succeed" or "failed: <message>", and the progress. The test keeps
// only the report, so the engine owns the listener.
struct UnzipReport : EventLog {
  std::mutex mutex;
  std::vector<float> progress;
  std::set<std::thread::id> progressThreads;
};

struct ReportingListener : ZMUnzipGamePackageListener {
  explicit ReportingListener(std::shared_ptr<UnzipReport> r) : report(std::move(r)) {}
  void onUnzipSucceed() override { report->add("succeed"); }
  void onUnzipFailed(const std::string& message) override { report->add("failed: " + message); }
  void onUnzipProgress(float progress) override {
    std::lock_guard lock(report->mutex);
    report->progress.push_back(progress);
    report->progressThreads.insert(std::this_thread::get_id());
  }
  std::shared_ptr<UnzipReport> report;
};

std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string data(size, '\0');
  for (auto& c : data) c = static_cast<char>(random());
  return data;
}

// Every path below `root`, relative, sorted.
std::vector<std::string> Tree(const std::string& root) {
  std::vector<std::string> out;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    out.push_back(fs::relative(entry.path(), root).string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

class MerinUnzip : public ::testing::Test {
 protected:
  void SetUp() override { handle_ = MerinGameHandle::install(); }
  void TearDown() override {
    ZMGameHandle::setInstance(nullptr);
    handle_.reset();
  }

  std::shared_ptr<UnzipReport> start(const std::string& zip, const std::string& dest) {
    auto report = std::make_shared<UnzipReport>();
    handle_->unzipFile(zip, dest, std::make_shared<ReportingListener>(report));
    return report;
  }
  // The last report, once the engine's threads are joined so that a second one would show.
  std::string unzip(const std::string& zip, const std::string& dest) {
    auto report = start(zip, dest);
    EXPECT_TRUE(report->waitFor(1));
    handle_->done();
    EXPECT_EQ(report->events().size(), 1u);
    return report->last();
  }

  TempDir dir_;
  std::shared_ptr<MerinGameHandle> handle_;
};

TEST_F(MerinUnzip, ExtractsEveryEntryByteExactWithProgress) {
  std::vector<ZipEntry> entries{
      {"assets/empty/", "", true},
      {"assets/img/big.bin", RandomBytes(3 * 1024 * 1024 + 17, 1)},
      {"src/deep/er/main.js", std::string(2 * 1024 * 1024, 'j')},
      {"./src/./dotted.txt", "dotted"},
      {"zero.txt", ""},
  };
  // More directories than the extractor keeps open, so the workers also walk from the top.
  for (int i = 0; i < 300; ++i) {
    entries.push_back({"many/d" + std::to_string(i) + "/f.dat", RandomBytes(100 + i * 97, 10 + i)});
  }
  MakeZip(dir_ / "pkg.zip", entries);
  const std::string dest = dir_ / "missing/parents/dest";

  std::weak_ptr<ZMUnzipGamePackageListener> weakListener;
  auto report = std::make_shared<UnzipReport>();
  {
    auto listener = std::make_shared<ReportingListener>(report);
    weakListener = listener;
    handle_->unzipFile(dir_ / "pkg.zip", dest, listener);
  }
  ASSERT_TRUE(report->waitFor(1));
  handle_->done();
  EXPECT_EQ(report->events(), std::vector<std::string>{"succeed"});
  EXPECT_TRUE(weakListener.expired()) << "released with its terminal callback";
  for (const auto& entry : entries) {
    const std::string path = dest + "/" + entry.name;
    EXPECT_TRUE(entry.isDirectory ? fs::is_directory(path) : ReadFile(path) == entry.data)
        << entry.name;
  }
  std::lock_guard lock(report->mutex);
  EXPECT_LE(report->progress.size(), 102u);
  EXPECT_TRUE(std::is_sorted(report->progress.begin(), report->progress.end()));
  ASSERT_FALSE(report->progress.empty());
  EXPECT_EQ(report->progress.back(), 1.0f);
  EXPECT_EQ(report->progressThreads, report->distinctThreads());
  EXPECT_EQ(report->distinctThreads().count(std::this_thread::get_id()), 0u);
}

TEST_F(MerinUnzip, ExtractsIntoAnExistingDirectoryOverwritingFiles) {
  const std::string dest = dir_ / "dest";
  WriteFile(dest + "/keep/old.txt", "old");
  WriteFile(dest + "/a.txt", "previous content that is longer");
  MakeZip(dir_ / "pkg.zip", {{"a.txt", "new"}, {"keep/new.txt", "n"}});
  EXPECT_EQ(unzip(dir_ / "pkg.zip", dest), "succeed");
  EXPECT_EQ(ReadFile(dest + "/a.txt"), "new");
  EXPECT_EQ(Tree(dest), (std::vector<std::string>{"a.txt", "keep", "keep/new.txt", "keep/old.txt"}));
}

TEST_F(MerinUnzip, RefusesHostileArchivesBeforeWritingAnything) {
  const std::string box = dir_ / "box";
  const std::string dest = box + "/inner/dest";
  fs::create_directories(box + "/inner");
  const std::string absolute = box + "/inner/abs-evil";
  for (const auto& [hostile, expected] : std::vector<std::pair<ZipEntry, std::string>>{
           {{"../evil", "x"}, "refusing unsafe entry name \"../evil\""},
           {{"a/../../evil", "x"}, "refusing unsafe entry name \"a/../../evil\""},
           {{absolute, "x"}, "refusing unsafe entry name \"" + absolute + "\""},
           {{"..", "", true}, "refusing unsafe entry name \"../\""},
           {{"link", box + "/inner", false, true}, "refusing symbolic link entry \"link\""}}) {
    MakeZip(dir_ / "pkg.zip", {{"first.txt", "ok"}, {"dir/", "", true}, hostile, {"last.txt", "ok"}});
    const std::string message = unzip(dir_ / "pkg.zip", dest);
    EXPECT_NE(message.find("failed: " + expected), std::string::npos) << message;
    EXPECT_EQ(Tree(box), std::vector<std::string>{"inner"}) << "not even the destination is made";
  }
}

TEST_F(MerinUnzip, NeverFollowsSymbolicLinksFoundInTheDestination) {
  const std::string dest = dir_ / "dest";
  const std::string outside = dir_ / "outside";
  WriteFile(outside + "/target.txt", "precious");
  fs::create_directories(dest);
  fs::create_directory_symlink(outside, dest + "/sub");
  fs::create_symlink(outside + "/target.txt", dest + "/file.txt");
  for (const std::string name : {"sub/planted.txt", "file.txt"}) {
    MakeZip(dir_ / "pkg.zip", {{name, "overwritten"}});
    const std::string link = dest + "/" + name.substr(0, name.find('/'));
    EXPECT_EQ(unzip(dir_ / "pkg.zip", dest),
              "failed: refusing to follow symbolic link \"" + link + "\"");
  }
  EXPECT_EQ(Tree(outside), std::vector<std::string>{"target.txt"});
  EXPECT_EQ(ReadFile(outside + "/target.txt"), "precious");
}

TEST_F(MerinUnzip, ReportsUnreadableArchivesWithTheReason) {
  MakeZip(dir_ / "good.zip", {{"a.bin", RandomBytes(64 * 1024, 2)}, {"b.txt", "b"}});
  const std::string good = ReadFile(dir_ / "good.zip");
  WriteFile(dir_ / "truncated.zip", good.substr(0, good.size() / 2));
  std::string corrupt = good;  // opens, but the first entry's data fails its check
  corrupt[1000] = static_cast<char>(corrupt[1000] ^ 0x55);
  WriteFile(dir_ / "corrupt.zip", corrupt);

  for (const auto& [zip, expected] : std::vector<std::pair<std::string, std::string>>{
           {dir_ / "missing.zip", "cannot open zip archive \"" + (dir_ / "missing.zip") + "\": "},
           {dir_ / "truncated.zip", "cannot open zip archive \"" + (dir_ / "truncated.zip") + "\": "},
           {dir_ / "corrupt.zip",
            "cannot extract \"a.bin\" from zip archive \"" + (dir_ / "corrupt.zip") + "\": "}}) {
    const std::string message = unzip(zip, dir_ / "dest");
    EXPECT_TRUE(message.starts_with("failed: " + expected)) << message;
    EXPECT_GT(message.size(), expected.size() + 8) << "the libzip reason follows";
  }
}

TEST_F(MerinUnzip, QueuedUnzipsAllFinishWhenTheHandleIsDropped) {
  MakeZip(dir_ / "pkg.zip", {{"big.bin", RandomBytes(2 * 1024 * 1024, 3)}, {"x/y.txt", "y"}});
  std::vector<std::shared_ptr<UnzipReport>> reports;
  for (int i = 0; i < 3; ++i) reports.push_back(start(dir_ / "pkg.zip", dir_ / std::to_string(i)));
  // The slot and the fixture hold the only references: dropping them joins the engine, which
  // first finishes every queued request.
  ZMGameHandle::setInstance(nullptr);
  handle_.reset();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(reports[i]->events(), std::vector<std::string>{"succeed"});
    EXPECT_EQ(ReadFile(dir_ / std::to_string(i) + "/x/y.txt"), "y");
  }
}

}  // namespace
