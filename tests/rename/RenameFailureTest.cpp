#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "tests/rename/RenameTestSupport.h"

namespace qx::renametest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string suggestionOf(const ErrorPtr& error) {
  return error ? error->localizedRecoverySuggestion().value_or("<none>") : "<no error>";
}

// The error of a batch whose item at `path` failed with `errnum`.
void expectRenameError(const ErrorPtr& error, int errnum, const std::string& path) {
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), kPOSIXErrorDomain);
  EXPECT_EQ(error->code(), errnum);
  EXPECT_EQ(error->localizedDescription(), "Error renaming files");
  EXPECT_EQ(suggestionOf(error),
            "Couldn't rename file at path \"" + path + "\". " + std::strerror(errnum));
  auto url = error->userInfo()->objectForKeyAs<Url>(kURLErrorKey);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), path);
}

using RenameFailure = RenameTest;

TEST_F(RenameFailure, TakenNameFailsWithEEXISTAndKeepsTheItemsRenamedBefore) {
  makeFile("taken");
  ArrayPtr urls = makeItems(5);
  ErrorPtr error;
  DictionaryPtr result = renameUrls(urls, strings({"new-0", "new-1", "taken", "new-3"}), &error);

  expectRenameError(error, EEXIST, pathOf("old-002"));
  EXPECT_THAT(stringsOf(result->objectForKey("names")), ElementsAre("old-000", "old-001"));
  EXPECT_THAT(pathsOf(result->objectForKey("urls")), ElementsAre(pathOf("new-0"), pathOf("new-1")));
  EXPECT_EQ(contentOf("taken"), "taken");
  EXPECT_EQ(contentOf("old-002"), "old-002");
  EXPECT_TRUE(exists("old-003"));
  EXPECT_FALSE(exists("new-3"));
  EXPECT_EQ(responder->questions(), 0);
}

TEST_F(RenameFailure, ResultArraysAreMutableWithRoomForEveryUrlOnFailureToo) {
  ErrorPtr error;
  DictionaryPtr result = renameUrls(Array::make({urlOf("gone"), urlOf("b"), urlOf("c")}),
                                    strings({"x", "y", "z"}), &error);
  expectRenameError(error, ENOENT, pathOf("gone"));
  ASSERT_EQ(result->count(), 2u);
  for (const char* key : {"urls", "names"}) {
    auto array = result->objectForKeyAs<MutableArray>(key);
    ASSERT_TRUE(array) << key;
    EXPECT_TRUE(array->empty());
    EXPECT_EQ(array->mutableObjects().capacity(), 3u) << key;
  }
}

TEST_F(RenameFailure, UrlsLeftWithoutANameEndTheBatchWithEINVALAtTheFirstOfThem) {
  ArrayPtr urls = makeItems(4);
  ErrorPtr error;
  DictionaryPtr result = renameUrls(urls, strings({"a", "b"}), &error);
  expectRenameError(error, EINVAL, pathOf("old-002"));
  EXPECT_THAT(stringsOf(result->objectForKey("names")), ElementsAre("old-000", "old-001"));
  EXPECT_TRUE(exists("a") && exists("b"));
  EXPECT_TRUE(exists("old-002") && exists("old-003"));

  error = nullptr;
  result = renameUrls(Array::make({urlOf("old-002")}), nullptr, &error);
  expectRenameError(error, EINVAL, pathOf("old-002"));
  EXPECT_THAT(stringsOf(result->objectForKey("names")), IsEmpty());
}

TEST_F(RenameFailure, NamesThatAreNotStringsOrHoldANulByteAreRefused) {
  ArrayPtr urls = makeItems(2);
  ErrorPtr error;
  renameUrls(urls, Array::make({Number::numberWithInteger(7), str("x")}), &error);
  expectRenameError(error, EINVAL, pathOf("old-000"));

  error = nullptr;
  renameUrls(urls, strings({std::string("cut\0short", 9)}), &error);
  expectRenameError(error, EINVAL, pathOf("old-000"));
  EXPECT_FALSE(exists("cut"));
  EXPECT_EQ(countExisting(2, "old-"), 2);
}

TEST_F(RenameFailure, AnElementThatIsNotAUrlIsRefused) {
  ErrorPtr error;
  DictionaryPtr result =
      renameUrls(Array::make({str("/etc/passwd"), Url::URLWithString("https://host/x")}),
                 strings({"x", "y"}), &error);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), EINVAL);
  EXPECT_EQ(suggestionOf(error),
            std::string("Couldn't rename file at path \"\". ") + std::strerror(EINVAL));
  EXPECT_FALSE(error->userInfo()->objectForKey(kURLErrorKey));
  EXPECT_THAT(stringsOf(result->objectForKey("names")), IsEmpty());
}

TEST_F(RenameFailure, ANameIsOneComponentAndDotDotIsRefused) {
  ASSERT_EQ(::mkdir(pathOf("folder").c_str(), 0755), 0);
  ErrorPtr error;
  // A name is one component: "folder/sub" becomes "folder:sub" beside it.
  renameUrls(Array::make({urlOf("folder")}), strings({"folder/sub"}), &error);
  EXPECT_FALSE(error);
  EXPECT_TRUE(exists("folder:sub"));
  // ".." is not resolved: it names the folder above, which is taken.
  renameUrls(Array::make({urlOf("folder:sub")}), strings({".."}), &error);
  expectRenameError(error, EEXIST, pathOf("folder:sub"));
  EXPECT_TRUE(exists("folder:sub"));
}

// renameat2 answering "not supported": the plain rename that follows replaces.
TEST_F(RenameFailure, WithoutNoReplaceSupportATakenNameIsReplaced) {
  for (int unsupported : {EINVAL, ENOSYS}) {
    makeFile("taken");
    makeFile("item");
    renameat2FailsWith = unsupported;
    ErrorPtr error;
    DictionaryPtr result = renameUrls(Array::make({urlOf("item")}), strings({"taken"}), &error);
    renameat2FailsWith = 0;
    EXPECT_FALSE(error) << unsupported;
    EXPECT_THAT(stringsOf(result->objectForKey("names")), ElementsAre("item"));
    EXPECT_EQ(contentOf("taken"), "item");
    EXPECT_FALSE(exists("item"));
  }
}

TEST_F(RenameFailure, WithoutNoReplaceSupportThePlainRenamesErrorIsReported) {
  ASSERT_EQ(::mkdir(pathOf("folder").c_str(), 0755), 0);
  makeFile("folder/full");
  makeFile("item");
  renameat2FailsWith = EINVAL;
  ErrorPtr error;
  renameUrls(Array::make({urlOf("item")}), strings({"folder"}), &error);
  renameat2FailsWith = 0;
  expectRenameError(error, EISDIR, pathOf("item"));
  EXPECT_TRUE(exists("item"));
  EXPECT_EQ(contentOf("folder/full"), "folder/full");
}

TEST_F(RenameFailure, OtherRenameat2ErrorsDoNotFallBackToAPlainRename) {
  makeFile("item");
  renameat2FailsWith = EXDEV;
  ErrorPtr error;
  renameUrls(Array::make({urlOf("item")}), strings({"elsewhere"}), &error);
  renameat2FailsWith = 0;
  expectRenameError(error, EXDEV, pathOf("item"));
  EXPECT_TRUE(exists("item"));
  EXPECT_FALSE(exists("elsewhere"));
}

TEST_F(RenameFailure, TheErrorOutParameterMayBeNull) {
  DictionaryPtr result = renameUrls(Array::make({urlOf("gone")}), strings({"x"}), nullptr);
  ASSERT_TRUE(result);
  EXPECT_THAT(stringsOf(result->objectForKey("names")), IsEmpty());
}

}  // namespace
}  // namespace qx::renametest
