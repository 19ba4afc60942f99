// File reference URLs: made from items, resolved to present paths, and
// carried through keyed archives with their "qx.path" key.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Foundation.h"
#include "tests/support/TempTree.h"

namespace qx {

// An NSURL archive with whatever keys a hostile peer may write.
class ForgedUrl final : public Object {
  QX_DECLARE_CLASS()

 public:
  ForgedUrl(ObjectPtr relative, ObjectPtr kept)
      : relative_(std::move(relative)), kept_(std::move(kept)) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(nullptr, "NS.base");
    coder.encodeObject(relative_, "NS.relative");
    if (kept_) coder.encodeObject(kept_, "qx.path");
  }

 private:
  ObjectPtr relative_;
  ObjectPtr kept_;
};

QX_DEFINE_CLASS(ForgedUrl, "NSURL", Object)

namespace {

ObjectPtr roundTrip(const ObjectPtr& object) {
  registerFoundationClasses();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(object);
  ErrorPtr error;
  ObjectPtr decoded =
      KeyedUnarchiver::unarchivedObjectOfClasses({&Url::classInfo()}, *data, &error);
  EXPECT_EQ(decoded == nullptr, error != nullptr);
  return decoded;
}

UrlPtr forged(const std::string& relative, ObjectPtr kept) {
  return cast<Url>(roundTrip(std::make_shared<ForgedUrl>(str(relative), std::move(kept))));
}

TEST(FileReferenceUrl, IsMadeFromAnItemAndCrossesAnArchiveWithItsKeptPath) {
  test::TempTree tree("qx-reference");
  tree.file("with space%");
  struct stat st;
  ASSERT_EQ(lstat(tree.path("with space%").c_str(), &st), 0);
  auto reference = Url::fileURLWithPath(tree.path("with space%"))->fileReferenceURL();
  ASSERT_NE(reference, nullptr);
  EXPECT_TRUE(reference->isFileReferenceURL() && reference->isFileURL());
  EXPECT_EQ(reference->absoluteString(),
            "file:///.file/id=" + std::to_string(st.st_dev) + "." + std::to_string(st.st_ino));
  EXPECT_EQ(reference->lastPathComponent(), "with space%");
  EXPECT_EQ(reference->fileReferenceURL(), reference) << "a reference is its own reference";
  errno = 0;
  EXPECT_EQ(Url::fileURLWithPath(tree.path("missing"))->fileReferenceURL(), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(Url::URLWithString("https://example.invalid/x")->fileReferenceURL(), nullptr);

  DataPtr data = KeyedArchiver::archivedDataWithRootObject(reference);
  std::string bytes(reinterpret_cast<const char*>(data->bytes().data()), data->bytes().size());
  EXPECT_NE(bytes.find("file://" + Url::percentEncodePath(tree.path("with space%"))),
            std::string::npos);
  auto decoded = cast<FileReferenceUrl>(roundTrip(reference));
  ASSERT_NE(decoded, nullptr);
  EXPECT_TRUE(decoded->isEqual(*reference));
  ASSERT_EQ(rename(tree.path("with space%").c_str(), tree.path("moved").c_str()), 0);
  EXPECT_EQ(decoded->path(), tree.path("moved")) << "the decoded reference finds the item";
  auto plain = cast<Url>(roundTrip(Url::fileURLWithPath(tree.path("moved"))));
  ASSERT_NE(plain, nullptr);
  EXPECT_FALSE(plain->isFileReferenceURL());

  // Without a kept path, or with one that names another item: no present path.
  for (ObjectPtr kept : {ObjectPtr(), ObjectPtr(str("file://" + tree.root()))}) {
    auto bare = forged("file:///.file/id=1.2", kept);
    ASSERT_NE(bare, nullptr);
    EXPECT_TRUE(bare->isFileReferenceURL());
    EXPECT_EQ(bare->path(), "");
  }
}

TEST(FileReferenceUrl, MalformedReferencesAreRefused) {
  const ObjectPtr kept = str("file:///tmp");
  for (const char* relative :
       {"file:///.file/id=", "file:///.file/id=12", "file:///.file/id=a.1", "file:///.file/id=1.b",
        "file:///.file/id=1.2.3", "file:///.file/id=-1.2", "file:///.file/id=1.",
        "file:///.file/id=99999999999999999999999.1"}) {
    EXPECT_EQ(forged(relative, kept), nullptr) << relative;
  }
  for (ObjectPtr badKept :
       {ObjectPtr(Number::numberWithInteger(4)), ObjectPtr(str("https://host/x")),
        ObjectPtr(str("file:///.file/id=3.4")), ObjectPtr(str("file:///bad%zz"))}) {
    EXPECT_EQ(forged("file:///.file/id=1.2", badKept), nullptr) << badKept->description();
  }
}

}  // namespace
}  // namespace qx
