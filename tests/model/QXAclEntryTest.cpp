// State resolution, the entry shapes and the folder-to-file conversion.
#include <gtest/gtest.h>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "tests/support/PermissionTrees.h"

namespace {

using namespace qx::test;

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
}

TEST(QXAclEntryConvertParent, AFolderEntryBecomesAFileEntryInPlace) {
  QXAclEntryPtr entry = entryRecord(qx::Uuid::make(), 1, 0x3ffe, 0x60, true);
  qx::ArrayPtr before = entry->permissions();
  auto write = groupAt(entry, 1);
  // Only "Delete Subfolders and Files" disagrees: the group is mixed.
  recordOf(write->childNodes()[3])->setState(0);
  QXAclEntry::resolveStateForPermissionNode(write);

  ASSERT_TRUE(entry->convertParentToFileEntry());
  EXPECT_NE(entry->permissions(), before);
  // The file's rows in the nodes of the folder's; group states are not resolved again.
  QXAclEntryPtr file = entryRecord(entry->uuid(), 1, 0x3ffe, 0, false);
  recordOf(groupAt(file, 1))->setState(-1);
  EXPECT_EQ(entryText(entry), entryText(file));
  // The nodes are shared: the old array's "Write" group lost its child too,
  // while the old array itself still holds four nodes.
  EXPECT_EQ(groupAt(entry, 1), write);
  EXPECT_EQ(before->count(), 4u);

  // Other shapes are left alone.
  auto strings = qx::Array::make({qx::str("a"), qx::str("b"), qx::str("c"), qx::str("d")});
  for (const QXAclEntryPtr& other :
       {file, posixRecord(qx::Uuid::make(), 1, 0, 1), std::make_shared<QXAclEntry>(),
        QXAclEntry::make(nullptr, 1, strings, false)}) {
    qx::ArrayPtr permissions = other->permissions();
    const std::string text = entryText(other);
    EXPECT_FALSE(other->convertParentToFileEntry());
    EXPECT_EQ(other->permissions(), permissions);
    EXPECT_EQ(entryText(other), text);
  }
}

}  // namespace
