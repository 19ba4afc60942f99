#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "tests/rename/RenameTestSupport.h"

namespace qx::renametest {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

std::vector<std::string> pathsIn(const std::string& dir, const std::vector<std::string>& names) {
  std::vector<std::string> paths;
  for (const std::string& name : names) paths.push_back(dir + "/" + name);
  return paths;
}

TEST_F(RenameTest, EmptyListsGiveTwoEmptyMutableArraysAndNoQuestion) {
  for (ArrayPtr urls : {Array::make(), ArrayPtr()}) {
    ErrorPtr error = Error::errorWithDomain(kPOSIXErrorDomain, 1);
    DictionaryPtr result = renameUrls(urls, Array::make(), &error);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->count(), 2u);
    auto renamed = result->objectForKeyAs<MutableArray>("urls");
    auto names = result->objectForKeyAs<MutableArray>("names");
    ASSERT_TRUE(renamed && names);
    EXPECT_TRUE(renamed->empty());
    EXPECT_TRUE(names->empty());
    EXPECT_FALSE(error);
  }
  EXPECT_EQ(responder->questions(), 0);
}

TEST_F(RenameTest, SlashesAndLineBreaksAreReplacedAndEverythingElseKept) {
  const std::vector<std::string> given = {
      "a/b/c",
      "line\nfeed",
      "carriage\rreturn",
      "\r\n/",
      ".hidden",
      "trailing  ",
      "  leading",
      "caf\xc3\xa9 \xe6\x97\xa5",
      "already:colon",
      "tab\there",
      "back\\slash",
      "percent%20",
      "quote\"'",
      "..dots..",
      "-dash",
  };
  const std::vector<std::string> expected = {
      "a:b:c",         "line feed",  "carriage return", "  :",
      ".hidden",       "trailing  ", "  leading",       "caf\xc3\xa9 \xe6\x97\xa5",
      "already:colon", "tab\there",  "back\\slash",     "percent%20",
      "quote\"'",      "..dots..",   "-dash",
  };
  const int count = static_cast<int>(given.size());
  ArrayPtr urls = makeItems(count);
  ErrorPtr error;
  DictionaryPtr result = renameUrls(urls, strings(given), &error);

  EXPECT_FALSE(error) << error->description();
  EXPECT_THAT(pathsOf(result->objectForKey("urls")), ElementsAreArray(pathsIn(dir, expected)));
  EXPECT_THAT(stringsOf(result->objectForKey("names")), ElementsAreArray(numbered(count, "old-")));
  std::vector<std::string> oldNames = numbered(count, "old-");
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(contentOf(expected[i]), oldNames[i]) << "renamed to " << expected[i];
  }
  EXPECT_EQ(countExisting(count, "old-"), 0);
}

TEST_F(RenameTest, FoldersAndLinksAreRenamedThemselves) {
  ASSERT_EQ(::mkdir(pathOf("folder").c_str(), 0755), 0);
  makeFile("folder/inside");
  ASSERT_EQ(::symlink("nowhere", pathOf("link").c_str()), 0);
  ErrorPtr error;
  DictionaryPtr result = renameUrls(Array::make({urlOf("folder"), urlOf("link")}),
                                    strings({"moved folder", "moved link"}), &error);
  EXPECT_FALSE(error);
  EXPECT_THAT(stringsOf(result->objectForKey("names")), ElementsAreArray({"folder", "link"}));
  EXPECT_EQ(contentOf("moved folder/inside"), "folder/inside");
  char target[64] = {};
  ASSERT_GT(::readlink(pathOf("moved link").c_str(), target, sizeof target - 1), 0);
  EXPECT_STREQ(target, "nowhere");
}

TEST_F(RenameTest, ThirtyItemsAreRenamedWithoutAQuestion) {
  ErrorPtr error;
  DictionaryPtr result = renameUrls(makeItems(30), strings(numbered(30, "new-")), &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(stringsOf(result->objectForKey("names")).size(), 30u);
  EXPECT_EQ(countExisting(30, "new-"), 30);
  EXPECT_EQ(responder->questions(), 0);
}

TEST_F(RenameTest, ThirtyOneItemsAskOnceAfterTheLastRenameAndAYesChangesNothing) {
  std::atomic<int> renamedAtQuestion{-1};
  connect([&](int, OnceCallback<void(bool)> reply) {
    renamedAtQuestion = countExisting(31, "new-");
    reply(true);
  });
  ErrorPtr error;
  DictionaryPtr result = renameUrls(makeItems(31), strings(numbered(31, "new-")), &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(responder->questions(), 1);
  EXPECT_EQ(renamedAtQuestion.load(), 31);
  EXPECT_THAT(pathsOf(result->objectForKey("urls")),
              ElementsAreArray(pathsIn(dir, numbered(31, "new-"))));
}

TEST_F(RenameTest, YesAtTheFirstQuestionStopsAfterThirtyOneAndUndoesNothing) {
  connect(answering({true}));
  ErrorPtr error = Error::errorWithDomain(kPOSIXErrorDomain, 1);
  DictionaryPtr result = renameUrls(makeItems(62), strings(numbered(62, "new-")), &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(responder->questions(), 1);
  EXPECT_THAT(stringsOf(result->objectForKey("names")), ElementsAreArray(numbered(31, "old-")));
  EXPECT_EQ(countExisting(31, "new-"), 31);
  std::vector<std::string> untouched = numbered(62, "old-");
  for (int i = 0; i < 62; ++i) EXPECT_EQ(exists(untouched[i]), i >= 31) << untouched[i];
}

TEST_F(RenameTest, ClientIsAskedAfterEveryThirtyOneRenamesUntilItSaysYes) {
  std::vector<int> renamedAtQuestions;
  connect([&](int number, OnceCallback<void(bool)> reply) {
    renamedAtQuestions.push_back(countExisting(100, "new-"));
    reply(number == 3);
  });
  ErrorPtr error;
  DictionaryPtr result = renameUrls(makeItems(100), strings(numbered(100, "new-")), &error);
  EXPECT_FALSE(error);
  EXPECT_THAT(renamedAtQuestions, ElementsAreArray({31, 62, 93}));
  EXPECT_EQ(stringsOf(result->objectForKey("names")).size(), 93u);
  EXPECT_EQ(countExisting(100, "old-"), 7);
}

TEST_F(RenameTest, ClientAnsweringNoLetsTheBatchRunToItsEnd) {
  ErrorPtr error;
  DictionaryPtr result = renameUrls(makeItems(95), strings(numbered(95, "new-")), &error);
  EXPECT_FALSE(error);
  EXPECT_EQ(responder->questions(), 3);
  EXPECT_EQ(countExisting(95, "new-"), 95);
  EXPECT_THAT(pathsOf(result->objectForKey("urls")),
              ElementsAreArray(pathsIn(dir, numbered(95, "new-"))));
}

TEST_F(RenameTest, SurplusNamesAreIgnored) {
  ErrorPtr error;
  DictionaryPtr result = renameUrls(makeItems(2), strings({"x", "y", "z"}), &error);
  EXPECT_FALSE(error);
  EXPECT_THAT(pathsOf(result->objectForKey("urls")), ElementsAreArray(pathsIn(dir, {"x", "y"})));
  EXPECT_FALSE(exists("z"));
}

}  // namespace
}  // namespace qx::renametest
