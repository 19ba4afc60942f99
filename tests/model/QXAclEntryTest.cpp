// State resolution, the entry shapes and the folder-to-file conversion.
#include <gtest/gtest.h>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "tests/support/PermissionTrees.h"

namespace {

using namespace qx::test;
using Names = std::vector<std::string>;

qx::TreeNodePtr groupAt(const QXAclEntryPtr& entry, size_t index) {
  return qx::cast<qx::TreeNode>(entry->permissions()->objectAtIndex(index));
}

TEST(QXAclEntryResolveState, FollowsTheChildrenOneLevelDown) {
  const std::pair<std::vector<int64_t>, int64_t> cases[] = {
      {{1, 1, 1}, 1}, {{0, 0}, 0}, {{1, 0, 1}, -1}, {{0, 0, 1}, -1}, {{-1, -1}, -1}, {{}, 0}};
  for (const auto& [states, expected] : cases) {
    std::vector<QXTreeNodePtr> leaves;
    for (int64_t state : states) leaves.push_back(permissionNode("leaf", 2, state));
    auto group = permissionNode("Read", 2, 42, leaves);
    QXAclEntry::resolveStateForPermissionNode(group);
    EXPECT_EQ(recordOf(group)->state(), expected) << states.size();
  }
  // Only the children count, not theirs; a child without a record counts as off.
  auto middle = permissionNode("Read", 2, 42, {permissionNode("leaf", 2, 1)});
  auto top = permissionNode("Applies to", 0x2000, 7, {middle});
  QXAclEntry::resolveStateForPermissionNode(top);
  EXPECT_EQ(recordOf(top)->state(), 42);
  middle->mutableChildNodes().addObject(QXTreeNode::treeNodeWithRepresentedObject(nullptr));
  QXAclEntry::resolveStateForPermissionNode(middle);
  EXPECT_EQ(recordOf(middle)->state(), -1);
}

TEST(QXAclEntryShapes, OnlyEntriesWhoseFirstNodeHasChildrenAreAcls) {
  EXPECT_FALSE(QXAclEntry().isAcl());
  EXPECT_FALSE(QXAclEntry(nullptr, 1, qx::Array::make(), false).isAcl());
  EXPECT_FALSE(posixRecord(qx::Uuid::make(), 1, 1, 0)->isAcl());
  EXPECT_TRUE(entryRecord(qx::Uuid::make(), 1, 0x3ffe, 0, false)->isAcl());
  EXPECT_TRUE(entryRecord(qx::Uuid::make(), 1, 0, 0x60, true)->isAcl());

  const std::pair<uint32_t, const char*> renamed[] = {{2, "Read Data"},  {8, "Execute File"},
                                                      {4, "Write Data"}, {32, "Append Data"},
                                                      {0x10, "Kept"},    {0x2000, "Kept"}};
  for (auto [value, fileName] : renamed) {
    auto permission = QXAclPermission::make("Kept", value, 1);
    permission->convertToFilePermission();
    EXPECT_EQ(permission->name()->str(), fileName);
    EXPECT_EQ(permission->permission(), static_cast<int32_t>(value));
    EXPECT_EQ(permission->state(), 1);
  }
}

TEST(QXAclEntryConvertParent, AFolderEntryBecomesAFileEntryInPlace) {
  QXAclEntryPtr entry = entryRecord(qx::Uuid::make(), 1, 0x3ffe, 0x60, true);
  qx::ArrayPtr before = entry->permissions();
  auto write = groupAt(entry, 1);
  // Only "Delete Subfolders and Files" disagrees: the group is mixed.
  recordOf(write->childNodes()[3])->setState(0);
  QXAclEntry::resolveStateForPermissionNode(write);

  ASSERT_TRUE(entry->convertParentToFileEntry());
  ASSERT_EQ(entry->permissions()->count(), 3u);
  EXPECT_NE(entry->permissions(), before);
  EXPECT_EQ(childNames(groupAt(entry, 0)), (Names{"Read Data", "Execute File", "Read Attributes",
                                                  "Read Extended Attributes", "Read Permissions"}));
  EXPECT_EQ(childNames(groupAt(entry, 1)),
            (Names{"Write Data", "Append Data", "Delete", "Write Attributes",
                   "Write Extended Attributes"}));
  EXPECT_EQ(recordOf(groupAt(entry, 0)->childNodes()[1])->permission(), 8);
  // Group states are not resolved again.
  EXPECT_EQ(recordOf(write)->state(), -1);
  // The nodes are shared: the old array's "Write" group lost its child too,
  // while the old array itself still holds four nodes.
  EXPECT_EQ(groupAt(entry, 1), write);
  EXPECT_EQ(before->count(), 4u);
  EXPECT_TRUE(entry->isAcl());

  // Other shapes are left alone.
  QXAclEntryPtr file = entryRecord(qx::Uuid::make(), 1, 0x3ffe, 0, false);
  QXAclEntryPtr posix = posixRecord(qx::Uuid::make(), 1, 0, 1);
  qx::ArrayPtr fileBefore = file->permissions();
  auto strings = qx::Array::make({qx::str("a"), qx::str("b"), qx::str("c"), qx::str("d")});
  for (const QXAclEntryPtr& other : {file, posix, std::make_shared<QXAclEntry>(),
                                     QXAclEntry::make(nullptr, 1, strings, false)}) {
    qx::ArrayPtr permissions = other->permissions();
    EXPECT_FALSE(other->convertParentToFileEntry());
    EXPECT_EQ(other->permissions(), permissions);
  }
  EXPECT_EQ(childNames(groupAt(file, 0))[0], "Read Data");
  EXPECT_EQ(posix->permissions()->count(), 3u);
}

}  // namespace
