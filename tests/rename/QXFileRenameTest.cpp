// Batch renames on real trees, with a question that answers as each case needs.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <tuple>

#include "platform/foundation/Foundation.h"
#include "rename/QXFileRename.h"
#include "tests/support/TempTree.h"

namespace {

// While set to an errno, renameat2 fails with it and does nothing, as on a file system that cannot
// refuse to replace.
std::atomic<int> renameat2FailsWith{0};

}  // namespace

extern "C" int __real_renameat2(int, const char*, int, const char*, unsigned int);
extern "C" int __wrap_renameat2(int oldDir, const char* oldPath, int newDir, const char* newPath,
                                unsigned int flags) {
  if (int failure = renameat2FailsWith.load()) {
    errno = failure;
    return -1;
  }
  return __real_renameat2(oldDir, oldPath, newDir, newPath, flags);
}

namespace qx {
namespace {

struct Outcome {
  std::vector<std::string> paths;  // "urls": where the renamed items are now
  std::vector<std::string> names;  // "names": the names they had
  ErrorPtr error;
};

class QXFileRenameTest : public ::testing::Test {
 protected:
  void SetUp() override { registerFoundationClasses(); }
  void TearDown() override { renameat2FailsWith = 0; }

  static std::string numbered(const std::string& prefix, int i) {
    return prefix + std::to_string(1000 + i).substr(1);
  }
  // Files "<prefix>NNN" holding their own names, and their URLs.
  ArrayPtr items(const std::string& prefix, int count) const {
    std::vector<ObjectPtr> urls;
    for (int i = 0; i < count; ++i) {
      tree.file(numbered(prefix, i), numbered(prefix, i));
      urls.push_back(url(numbered(prefix, i)));
    }
    return Array::make(std::move(urls));
  }
  static ArrayPtr names(const std::vector<std::string>& values) {
    std::vector<ObjectPtr> objects;
    for (const std::string& value : values) objects.push_back(str(value));
    return Array::make(std::move(objects));
  }
  static ArrayPtr names(const std::string& prefix, int count) {
    std::vector<std::string> values;
    for (int i = 0; i < count; ++i) values.push_back(numbered(prefix, i));
    return names(values);
  }
  UrlPtr url(const std::string& name) const { return Url::fileURLWithPath(tree.path(name)); }
  bool exists(const std::string& name) const {
    return std::filesystem::exists(std::filesystem::symlink_status(tree.path(name)));
  }
  int existing(const std::string& prefix, int count) const {
    int found = 0;
    for (int i = 0; i < count; ++i) found += exists(numbered(prefix, i)) ? 1 : 0;
    return found;
  }

  static Outcome rename(const ArrayPtr& urls, const ArrayPtr& newNames,
                        const QXFileRename::ShouldStop& shouldStop) {
    ErrorPtr error = Error::errorWithDomain(kPOSIXErrorDomain, 1);
    QXFileRename::Result result = QXFileRename::renameUrls(urls, newNames, shouldStop, &error);
    Outcome outcome{{}, {}, error};
    EXPECT_TRUE(result.urls && result.names) << "both arrays on every path";
    if (!result.urls || !result.names) return outcome;
    for (const auto& object : *result.urls) outcome.paths.push_back(cast<Url>(object)->path());
    for (const auto& object : *result.names) outcome.names.push_back(cast<String>(object)->str());
    return outcome;
  }
  // Every question answered NO.
  static Outcome rename(const ArrayPtr& urls, const ArrayPtr& newNames) {
    return rename(urls, newNames, [] { return false; });
  }

  // The error of a batch whose item at `path` failed with `errnum`.
  static void expectFailure(const ErrorPtr& error, int errnum, const std::string& path) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), kPOSIXErrorDomain);
    EXPECT_EQ(error->code(), errnum);
    EXPECT_EQ(error->localizedDescription(), "Error renaming files");
    EXPECT_EQ(error->localizedRecoverySuggestion().value_or(""),
              "Couldn't rename file at path \"" + path + "\". " + std::strerror(errnum));
    auto url = error->userInfo()->objectForKeyAs<Url>(kURLErrorKey);
    EXPECT_EQ(url ? url->path() : "<none>", path.empty() ? "<none>" : path);
  }

  test::TempTree tree{"qx-rename"};
};

TEST_F(QXFileRenameTest, EmptyListsGiveEmptyResults) {
  for (ArrayPtr urls : {Array::make(), ArrayPtr()}) {
    Outcome outcome = rename(urls, Array::make());
    EXPECT_TRUE(outcome.paths.empty() && outcome.names.empty());
    EXPECT_FALSE(outcome.error);
  }
}

// Only "/" (to ":"), line feed and carriage return (to " ") change; folders and links are renamed
// themselves; surplus names are ignored.
TEST_F(QXFileRenameTest, NamesAreCleanedAndEverythingElseKept) {
  const std::vector<std::string> given = {
      "a/b/c",   "line\nfeed", "carriage\rreturn",         "\r\n/",
      ".hidden", "  spaced  ", "caf\xc3\xa9\ttab\\%20\"'", "..dots.."};
  const std::vector<std::string> cleaned = {
      "a:b:c",   "line feed",  "carriage return",          "  :",
      ".hidden", "  spaced  ", "caf\xc3\xa9\ttab\\%20\"'", "..dots.."};
  const int count = static_cast<int>(given.size());
  auto urls = items("old-", count)->mutableCopy();
  tree.file("folder/inside");
  tree.link("link", "nowhere");
  urls->addObject(url("folder"));
  urls->addObject(url("link"));
  std::vector<std::string> newNames = given;
  newNames.insert(newNames.end(), {"moved folder", "moved link", "surplus"});

  Outcome outcome = rename(urls, names(newNames));
  EXPECT_FALSE(outcome.error);
  ASSERT_EQ(outcome.names.size(), given.size() + 2);
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(outcome.paths[i], tree.path(cleaned[i]));
    EXPECT_EQ(outcome.names[i], numbered("old-", i));
  }
  EXPECT_EQ(outcome.names.back(), "link");
  EXPECT_EQ(existing("old-", count), 0);
  EXPECT_TRUE(exists("moved folder/inside") && exists("moved link"));
  EXPECT_FALSE(exists("surplus"));
}

// The question comes after the 31st rename and every 31 after; YES stops there, with nothing
// undone. Without a question to ask, the batch stops where it would ask.
TEST_F(QXFileRenameTest, ClientIsAskedEveryThirtyOneRenamesAndYesStops) {
  // items, the question answered YES (0: NO to every one; -1: no question), renamed when asked,
  // renamed in all
  const std::tuple<int, int, std::vector<int>, int> rows[] = {
      {30, 1, {}, 30},  {31, 1, {31}, 31},          {62, 1, {31}, 31},
      {40, -1, {}, 31}, {100, 3, {31, 62, 93}, 93}, {95, 0, {31, 62, 93}, 95}};
  for (const auto& [count, yesAt, renamedAtQuestions, renamed] : rows) {
    const std::string from = "r" + std::to_string(count) + "-";
    const std::string to = from + "new-";
    SCOPED_TRACE(from);
    std::vector<int> seen;
    QXFileRename::ShouldStop question = [&] {
      seen.push_back(existing(to, count));
      return static_cast<int>(seen.size()) == yesAt;
    };
    Outcome outcome = rename(items(from, count), names(to, count), yesAt < 0 ? nullptr : question);
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(seen, renamedAtQuestions);
    ASSERT_EQ(outcome.names.size(), static_cast<size_t>(renamed));
    EXPECT_EQ(std::pair(outcome.paths.back(), outcome.names.back()),
              std::pair(tree.path(numbered(to, renamed - 1)), numbered(from, renamed - 1)));
    EXPECT_EQ(existing(from, count), count - renamed);
  }
}

TEST_F(QXFileRenameTest, FirstFailureEndsTheBatchAndKeepsTheRenamesBefore) {
  tree.file("taken", "taken");
  Outcome taken = rename(items("old-", 4), names({"new-0", "new-1", "taken", "new-3"}));
  expectFailure(taken.error, EEXIST, tree.path("old-002"));
  EXPECT_EQ(taken.names, (std::vector<std::string>{"old-000", "old-001"}));
  EXPECT_EQ(taken.paths, (std::vector<std::string>{tree.path("new-0"), tree.path("new-1")}));
  EXPECT_TRUE(exists("old-002") && exists("old-003") && !exists("new-3"));

  // Fewer names than URLs: the first URL without one fails.
  ArrayPtr urls = Array::make({url("old-002"), url("old-003")});
  Outcome unnamed = rename(urls, names({"a"}));
  expectFailure(unnamed.error, EINVAL, tree.path("old-003"));
  EXPECT_EQ(unnamed.names, (std::vector<std::string>{"old-002"}));
  // No names, a missing item, a name that is one component (".." names the folder above, which is
  // taken), and what a hostile client may send: a name that is no string or holds a NUL byte, an
  // element that is no file URL.
  const std::string last = tree.path("old-003");
  const std::tuple<ArrayPtr, ArrayPtr, int, std::string> failures[] = {
      {Array::make({url("old-003")}), nullptr, EINVAL, last},
      {Array::make({url("gone")}), names({"x"}), ENOENT, tree.path("gone")},
      {Array::make({url("old-003")}), names({".."}), EEXIST, last},
      {Array::make({url("old-003")}), Array::make({Number::numberWithInteger(7)}), EINVAL, last},
      {Array::make({url("old-003")}), names({std::string("cut\0short", 9)}), EINVAL, last},
      {Array::make({str("/etc/passwd")}), names({"x"}), EINVAL, ""},
      {Array::make({Url::URLWithString("https://host/x")}), names({"x"}), EINVAL, ""}};
  for (const auto& [batch, newNames, errnum, path] : failures)
    expectFailure(rename(batch, newNames).error, errnum, path);
  EXPECT_FALSE(exists("cut"));
}

// renameat2 answering "not supported" falls back to a plain rename, which replaces; any other
// failure of it is the item's error.
TEST_F(QXFileRenameTest, WithoutNoReplaceSupportAPlainRenameFollows) {
  tree.file("folder/full");
  // renameat2's error, the new name, the item's error (0: renamed over the target)
  const std::tuple<int, std::string, int> rows[] = {{EINVAL, "taken", 0},
                                                    {ENOSYS, "taken", 0},
                                                    {EINVAL, "folder", EISDIR},
                                                    {EXDEV, "elsewhere", EXDEV}};
  for (const auto& [renameat2Error, target, expected] : rows) {
    SCOPED_TRACE(std::strerror(renameat2Error) + (" to " + target));
    tree.file("taken", "taken");
    tree.file("item", "item");
    renameat2FailsWith = renameat2Error;
    Outcome outcome = rename(Array::make({url("item")}), names({target}));
    renameat2FailsWith = 0;
    if (expected == 0) {
      EXPECT_FALSE(outcome.error);
      EXPECT_EQ(outcome.names, std::vector<std::string>{"item"});
      EXPECT_FALSE(exists("item"));
    } else {
      expectFailure(outcome.error, expected, tree.path("item"));
      EXPECT_TRUE(exists("item") && exists("folder/full") && !exists("elsewhere"));
    }
  }
}

}  // namespace
}  // namespace qx
