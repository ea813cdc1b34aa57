#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "merin/MerinGameHandle.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"

namespace fs = std::filesystem;

namespace {

// What one unzip reported: "succeed" or "failed: <message>", and the progress. The listener
// below holds it and the test keeps only the report, so the engine owns the listener.
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

std::string TextBytes(size_t size) {
  std::string data;
  for (int line = 0; data.size() < size; ++line) data += "line " + std::to_string(line) + " of text\n";
  data.resize(size);
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

  // Starts an unzip with a listener that only the engine holds.
  std::shared_ptr<UnzipReport> start(const std::string& zip, const std::string& dest) {
    auto report = std::make_shared<UnzipReport>();
    auto listener = std::make_shared<ReportingListener>(report);
    ZMGameHandle::getInstance()->unzipFile(zip, dest, listener);
    return report;
  }
  // Unzips and returns the report once the engine's threads are joined, so that a second
  // terminal callback would have shown up too.
  std::shared_ptr<UnzipReport> unzip(const std::string& zip, const std::string& dest) {
    auto report = start(zip, dest);
    EXPECT_TRUE(report->waitFor(1));
    handle_->done();
    EXPECT_EQ(report->events().size(), 1u);
    EXPECT_EQ(report->distinctThreads().count(std::this_thread::get_id()), 0u);
    return report;
  }

  TempDir dir_;
  std::shared_ptr<MerinGameHandle> handle_;
};

TEST_F(MerinUnzip, ExtractsEveryEntryByteExactWithProgress) {
  std::vector<ZipEntry> entries{
      {"game.config.json", R"({"deviceOrientation":"portrait"})"},
      {"assets/", "", true},
      {"assets/empty/", "", true},
      {"assets/img/big.bin", RandomBytes(3 * 1024 * 1024 + 17, 1)},
      {"src/deep/er/main.js", TextBytes(2 * 1024 * 1024)},
      {"./src/./dotted.txt", "dotted"},
  };
  // More directories than the extractor keeps open, so the workers also walk from the top.
  for (int i = 0; i < 300; ++i) {
    entries.push_back({"many/d" + std::to_string(i) + "/f.dat", RandomBytes(100 + i * 97, 10 + i)});
  }
  entries.push_back({"zero.txt", ""});
  MakeZip(dir_ / "pkg.zip", entries);
  const std::string dest = dir_ / "missing/parents/dest";

  auto weakListener = std::weak_ptr<ZMUnzipGamePackageListener>();
  auto report = std::make_shared<UnzipReport>();
  {
    auto listener = std::make_shared<ReportingListener>(report);
    weakListener = listener;
    handle_->unzipFile(dir_ / "pkg.zip", dest, listener);
  }
  ASSERT_TRUE(report->waitFor(1));
  handle_->done();
  EXPECT_EQ(report->events(), std::vector<std::string>{"succeed"});
  EXPECT_TRUE(weakListener.expired()) << "the listener is released after its terminal callback";

  for (const auto& entry : entries) {
    const std::string path = dest + "/" + entry.name;  // "./src/./dotted.txt" resolves too
    if (entry.isDirectory) {
      EXPECT_TRUE(fs::is_directory(path)) << entry.name;
    } else {
      EXPECT_TRUE(Exists(path) && ReadFile(path) == entry.data) << entry.name;
    }
  }

  std::lock_guard lock(report->mutex);
  ASSERT_FALSE(report->progress.empty());
  EXPECT_LE(report->progress.size(), 102u);
  EXPECT_TRUE(std::is_sorted(report->progress.begin(), report->progress.end()));
  EXPECT_GE(report->progress.front(), 0.0f);
  EXPECT_EQ(report->progress.back(), 1.0f);
  EXPECT_EQ(report->progressThreads, report->distinctThreads())
      << "progress and the result come on the same engine thread";
}

TEST_F(MerinUnzip, ExtractsIntoAnExistingDirectoryOverwritingFiles) {
  const std::string dest = dir_ / "dest";
  fs::create_directories(dest + "/keep");
  WriteFile(dest + "/keep/old.txt", "old");
  WriteFile(dest + "/a.txt", "previous content that is longer");
  MakeZip(dir_ / "pkg.zip", {{"a.txt", "new"}, {"keep/new.txt", "n"}});

  auto report = unzip(dir_ / "pkg.zip", dest);
  EXPECT_EQ(report->last(), "succeed");
  EXPECT_EQ(ReadFile(dest + "/a.txt"), "new");
  EXPECT_EQ(Tree(dest), (std::vector<std::string>{"a.txt", "keep", "keep/new.txt", "keep/old.txt"}));
}

TEST_F(MerinUnzip, RefusesHostileArchivesBeforeWritingAnything) {
  const std::string box = dir_ / "box";
  const std::string dest = box + "/inner/dest";
  fs::create_directories(box + "/inner");
  const struct {
    ZipEntry hostile;
    std::string expected;
  } cases[] = {
      {{"../evil", "x"}, "refusing unsafe entry name \"../evil\""},
      {{"a/../../evil", "x"}, "refusing unsafe entry name \"a/../../evil\""},
      {{box + "/inner/abs-evil", "x"}, "refusing unsafe entry name \"" + box + "/inner/abs-evil\""},
      {{"..", "", true}, "refusing unsafe entry name \"../\""},
      {{"link", box + "/inner", false, true}, "refusing symbolic link entry \"link\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hostile.name);
    MakeZip(dir_ / "pkg.zip", {{"first.txt", "ok"}, {"dir/", "", true}, c.hostile, {"last.txt", "ok"}});
    auto report = unzip(dir_ / "pkg.zip", dest);
    EXPECT_NE(report->last().find("failed: " + c.expected), std::string::npos) << report->last();
    EXPECT_EQ(Tree(box), std::vector<std::string>{"inner"}) << "not even the destination is made";
  }
}

TEST_F(MerinUnzip, NeverFollowsSymbolicLinksFoundInTheDestination) {
  const std::string dest = dir_ / "dest";
  const std::string outside = dir_ / "outside";
  fs::create_directories(dest);
  fs::create_directories(outside);
  WriteFile(outside + "/target.txt", "precious");
  fs::create_directory_symlink(outside, dest + "/sub");
  fs::create_symlink(outside + "/target.txt", dest + "/file.txt");

  MakeZip(dir_ / "dir.zip", {{"sub/planted.txt", "x"}});
  auto report = unzip(dir_ / "dir.zip", dest);
  EXPECT_EQ(report->last(), "failed: refusing to follow symbolic link \"" + dest + "/sub\"");

  MakeZip(dir_ / "file.zip", {{"file.txt", "overwritten"}});
  report = unzip(dir_ / "file.zip", dest);
  EXPECT_EQ(report->last(), "failed: refusing to follow symbolic link \"" + dest + "/file.txt\"");

  EXPECT_EQ(Tree(outside), std::vector<std::string>{"target.txt"});
  EXPECT_EQ(ReadFile(outside + "/target.txt"), "precious");
}

TEST_F(MerinUnzip, ReportsUnreadableArchivesWithTheReason) {
  const std::string dest = dir_ / "dest";
  MakeZip(dir_ / "good.zip", {{"a.bin", RandomBytes(64 * 1024, 2)}, {"b.txt", TextBytes(64 * 1024)}});
  const std::string good = ReadFile(dir_ / "good.zip");
  WriteFile(dir_ / "truncated.zip", good.substr(0, good.size() / 2));
  WriteFile(dir_ / "text.zip", "this is not an archive, just some text long enough to look at");
  // A flipped byte inside the first entry's data: the archive opens, the entry does not check.
  std::string corrupt = good;
  corrupt[1000] = static_cast<char>(corrupt[1000] ^ 0x55);
  WriteFile(dir_ / "corrupt.zip", corrupt);

  const struct {
    std::string zip;
    std::string expected;
  } cases[] = {
      {dir_ / "missing.zip", "failed: cannot open zip archive \"" + (dir_ / "missing.zip") + "\": "},
      {dir_ / "truncated.zip", "failed: cannot open zip archive \"" + (dir_ / "truncated.zip") + "\": "},
      {dir_ / "text.zip", "failed: cannot open zip archive \"" + (dir_ / "text.zip") + "\": "},
      {dir_ / "corrupt.zip", "failed: cannot extract \"a.bin\" from zip archive \"" + (dir_ / "corrupt.zip") + "\": "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.zip);
    const std::string message = unzip(c.zip, dest)->last();
    ASSERT_EQ(message.rfind(c.expected, 0), 0u) << message;
    EXPECT_GT(message.size(), c.expected.size()) << "the libzip reason follows";
  }
}

TEST_F(MerinUnzip, QueuedUnzipsAllFinishWhenTheHandleIsDropped) {
  MakeZip(dir_ / "pkg.zip", {{"big.bin", RandomBytes(2 * 1024 * 1024, 3)}, {"x/y.txt", "y"}});
  std::vector<std::shared_ptr<UnzipReport>> reports;
  for (int i = 0; i < 3; ++i) reports.push_back(start(dir_ / "pkg.zip", dir_ / ("d" + std::to_string(i))));
  reports.push_back(start(dir_ / "missing.zip", dir_ / "d3"));

  // The slot and the fixture hold the only references: dropping them joins the engine, which
  // first finishes every queued request.
  ZMGameHandle::setInstance(nullptr);
  handle_.reset();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(reports[i]->events(), std::vector<std::string>{"succeed"});
    EXPECT_EQ(ReadFile(dir_ / ("d" + std::to_string(i)) + "/x/y.txt"), "y");
  }
  EXPECT_EQ(reports[3]->last().rfind("failed: cannot open zip archive", 0), 0u);
}

}  // namespace
