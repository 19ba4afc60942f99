// File reference URLs: made from items, resolved to present paths, and
// carried through keyed archives with their "qx.path" key.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "SizesTestSupport.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/FileReferenceUrl.h"

namespace qx::sizestest {

// An NSURL archive with whatever keys a hostile peer may write.
class ForgedUrl final : public Object {
  QX_DECLARE_CLASS()

 public:
  ForgedUrl(ObjectPtr relative, ObjectPtr kept, bool withKept)
      : relative_(std::move(relative)), kept_(std::move(kept)), withKept_(withKept) {}
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(nullptr, "NS.base");
    coder.encodeObject(relative_, "NS.relative");
    if (withKept_) coder.encodeObject(kept_, "qx.path");
  }

 private:
  ObjectPtr relative_;
  ObjectPtr kept_;
  bool withKept_;
};

QX_DEFINE_CLASS(ForgedUrl, "NSURL", Object)

namespace {

ObjectPtr roundTrip(const ObjectPtr& object, ErrorPtr* error = nullptr) {
  registerFoundationClasses();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(object);
  if (!data) return nullptr;
  return KeyedUnarchiver::unarchivedObjectOfClasses({&Url::classInfo()}, *data, error);
}

ObjectPtr forged(ObjectPtr relative, ObjectPtr kept, bool withKept = true) {
  return roundTrip(std::make_shared<ForgedUrl>(std::move(relative), std::move(kept), withKept));
}

TEST(FileReferenceUrl, IsMadeFromAnExistingItemOnly) {
  TempTree tree;
  tree.file("a b");
  struct stat st;
  ASSERT_EQ(lstat(tree.path("a b").c_str(), &st), 0);
  auto reference = tree.url("a b")->fileReferenceURL();
  ASSERT_NE(reference, nullptr);
  EXPECT_TRUE(reference->isFileReferenceURL());
  EXPECT_TRUE(reference->isFileURL());
  EXPECT_EQ(reference->absoluteString(),
            "file:///.file/id=" + std::to_string(st.st_dev) + "." + std::to_string(st.st_ino));
  EXPECT_EQ(reference->path(), tree.path("a b"));
  EXPECT_EQ(reference->lastPathComponent(), "a b");
  EXPECT_EQ(reference->fileReferenceURL(), reference) << "a reference is its own reference";
  errno = 0;
  EXPECT_EQ(tree.url("missing")->fileReferenceURL(), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(Url::URLWithString("https://example.invalid/x")->fileReferenceURL(), nullptr);
}

TEST(FileReferenceUrl, CrossesAnArchiveWithItsKeptPath) {
  TempTree tree;
  tree.file("with space%");
  auto reference = tree.url("with space%")->fileReferenceURL();
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(reference);
  ASSERT_NE(data, nullptr);
  std::string bytes(reinterpret_cast<const char*>(data->bytes().data()), data->bytes().size());
  EXPECT_NE(bytes.find("qx.path"), std::string::npos);
  EXPECT_NE(bytes.find("file://" + Url::percentEncodePath(tree.path("with space%"))),
            std::string::npos);
  auto decoded = cast<FileReferenceUrl>(roundTrip(reference));
  ASSERT_NE(decoded, nullptr);
  EXPECT_TRUE(decoded->isEqual(*reference));
  EXPECT_EQ(decoded->keptPath(), tree.path("with space%"));
  ASSERT_EQ(rename(tree.path("with space%").c_str(), tree.path("moved").c_str()), 0);
  EXPECT_EQ(decoded->path(), tree.path("moved")) << "the decoded reference finds the item";
  // A plain file URL stays plain.
  auto plain = cast<Url>(roundTrip(tree.url("moved")));
  ASSERT_NE(plain, nullptr);
  EXPECT_FALSE(plain->isFileReferenceURL());
}

TEST(FileReferenceUrl, MalformedReferencesAreRefused) {
  TempTree tree;
  ObjectPtr kept = str("file://" + tree.root());
  for (const char* relative :
       {"file:///.file/id=", "file:///.file/id=12", "file:///.file/id=a.1", "file:///.file/id=1.b",
        "file:///.file/id=1.2.3", "file:///.file/id=-1.2", "file:///.file/id=1.",
        "file:///.file/id=99999999999999999999999.1"}) {
    ErrorPtr error;
    DataPtr data = KeyedArchiver::archivedDataWithRootObject(
        std::make_shared<ForgedUrl>(str(relative), kept, true));
    EXPECT_EQ(KeyedUnarchiver::unarchivedObjectOfClasses({&Url::classInfo()}, *data, &error),
              nullptr)
        << relative;
    EXPECT_NE(error, nullptr) << relative;
  }
  EXPECT_EQ(forged(str("file:///.file/id=1.2"), Number::numberWithInteger(4)), nullptr);
  EXPECT_EQ(forged(str("file:///.file/id=1.2"), str("https://host/x")), nullptr);
  EXPECT_EQ(forged(str("file:///.file/id=1.2"), str("file:///.file/id=3.4")), nullptr);
  EXPECT_EQ(forged(str("file:///.file/id=1.2"), str("file:///bad%zz")), nullptr);
  // Without a kept path the reference decodes but answers no path.
  auto bare = cast<Url>(forged(str("file:///.file/id=1.2"), nullptr, false));
  ASSERT_NE(bare, nullptr);
  EXPECT_TRUE(bare->isFileReferenceURL());
  EXPECT_EQ(bare->path(), "");
  // A kept path that names another item: the reference answers no path.
  auto stale = cast<Url>(forged(str("file:///.file/id=1.2"), kept));
  ASSERT_NE(stale, nullptr);
  EXPECT_EQ(stale->path(), "");
}

}  // namespace
}  // namespace qx::sizestest
