#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "ModificationTestSupport.h"
#include "acl/QXAclAttribute.h"
#include "acl/QXAclWriter.h"
#include "platform/xacl/AclHandle.h"

namespace qxtest {
namespace {

using namespace qx::xacl;

const AclFields kEntry{ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_READ_DATA | ACL_EXECUTE, 0};

AclHandle makeAcl(const std::vector<AclFields>& entries) {
  std::vector<qx::ObjectPtr> records;
  for (const AclFields& fields : entries) records.push_back(aclEntry(fields, false));
  acl_t acl = nullptr;
  EXPECT_TRUE(QXAclWriter::getAcl(&acl, qx::Array::make(records), "", nullptr));
  return AclHandle(acl);
}

// Both ways of writing through a folder's descriptor: the descriptor-relative calls where the
// kernel has them, and acl_set_link_np on the path through /proc that stands in for them
// elsewhere. They must mean the same as acl_set_link_np on the item's own path.
class AclAttributeTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    folderFd = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folderFd, 0);
  }
  void TearDown() override { close(folderFd); }

  // 0, or the errno of the failure.
  int setAt(const std::string& name, const AclHandle& acl) {
    errno = 0;
    int result;
    if (GetParam()) {
      result = QXAclAttribute::setAt(folderFd, name.c_str(), lstatOf(dir / name), acl.get());
    } else {
      result = acl_set_link_np(QXAclAttribute::pathThroughFolder(folderFd, name.c_str()).c_str(),
                               ACL_TYPE_EXTENDED, acl.get());
    }
    return result == 0 ? 0 : errno;
  }

  TempDir dir;
  int folderFd = -1;
};

TEST_P(AclAttributeTest, FilesAndFoldersTakeTheAclAndAnEmptyOneRemovesIt) {
  ASSERT_TRUE(makeFile(dir / "file"));
  ASSERT_TRUE(makeFolder(dir / "folder"));
  for (const char* name : {"file", "folder"}) {
    EXPECT_EQ(setAt(name, makeAcl({kEntry})), 0) << name;
    EXPECT_EQ(storedAcl(dir / name).value_or(std::vector<AclFields>{}),
              std::vector<AclFields>{kEntry})
        << name;
    EXPECT_EQ(setAt(name, makeAcl({})), 0) << name;
    EXPECT_FALSE(hasAclAttribute(dir / name)) << name;
    EXPECT_EQ(setAt(name, makeAcl({})), 0) << name << ": nothing to remove";
  }
}

TEST_P(AclAttributeTest, LinksAndSpecialFilesTakeOnlyAnEmptyAcl) {
  ASSERT_TRUE(makeFile(dir / "target"));
  ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  for (const char* name : {"link", "pipe"}) {
    EXPECT_EQ(setAt(name, makeAcl({})), 0) << name;
    EXPECT_EQ(setAt(name, makeAcl({kEntry})), ENOTSUP) << name;
  }
  EXPECT_FALSE(hasAclAttribute(dir / "target")) << "a link is never followed";
}

TEST_P(AclAttributeTest, IncompleteEntriesAndNonAclsAreRefused) {
  ASSERT_TRUE(makeFile(dir / "file"));
  AclHandle acl(acl_init(1));
  acl_t raw = acl.get();
  acl_entry_t entry = nullptr;
  ASSERT_EQ(acl_create_entry(&raw, &entry), 0);
  EXPECT_EQ(setAt("file", acl), EINVAL);
  EXPECT_FALSE(hasAclAttribute(dir / "file"));
  if (GetParam()) {
    errno = 0;
    EXPECT_EQ(QXAclAttribute::setAt(folderFd, "file", lstatOf(dir / "file"), nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
  }
}

// An item swapped for a link to an outside file after the walk examined it: the write fails
// or lands on the link, never on the link's target.
TEST_P(AclAttributeTest, ItemSwappedForALinkIsNotFollowed) {
  ASSERT_TRUE(makeFile(dir / "item"));
  const struct stat examined = lstatOf(dir / "item");
  TempDir outside;
  ASSERT_TRUE(makeFile(outside / "secret"));
  ASSERT_EQ(unlink((dir / "item").c_str()), 0);
  ASSERT_EQ(symlink((outside / "secret").c_str(), (dir / "item").c_str()), 0);
  errno = 0;
  int result = GetParam()
                   ? QXAclAttribute::setAt(folderFd, "item", examined, makeAcl({kEntry}).get())
                   : setAt("item", makeAcl({kEntry}));
  EXPECT_NE(result, 0);
  EXPECT_FALSE(hasAclAttribute(outside / "secret"));
}

TEST_P(AclAttributeTest, FolderRenamedAwayIsStillTheOneWritten) {
  ASSERT_TRUE(makeFolder(dir / "sub"));
  ASSERT_TRUE(makeFile(dir / "sub/file"));
  int subFd = open((dir / "sub").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(subFd, 0);
  const struct stat st = lstatOf(dir / "sub/file");
  ASSERT_EQ(rename((dir / "sub").c_str(), (dir / "moved").c_str()), 0);
  ASSERT_TRUE(makeFolder(dir / "sub"));
  ASSERT_TRUE(makeFile(dir / "sub/file"));
  AclHandle acl = makeAcl({kEntry});
  int result = GetParam()
                   ? QXAclAttribute::setAt(subFd, "file", st, acl.get())
                   : acl_set_link_np(QXAclAttribute::pathThroughFolder(subFd, "file").c_str(),
                                     ACL_TYPE_EXTENDED, acl.get());
  close(subFd);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(hasAclAttribute(dir / "moved/file"));
  EXPECT_FALSE(hasAclAttribute(dir / "sub/file"));
}

INSTANTIATE_TEST_SUITE_P(Ways, AclAttributeTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "DescriptorCalls" : "PathThroughProc";
                         });

}  // namespace
}  // namespace qxtest
