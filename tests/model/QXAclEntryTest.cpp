#include <gtest/gtest.h>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "tests/model/PermissionTrees.h"

namespace {

using namespace qxtest;

QXTreeNodePtr groupWithStates(std::initializer_list<int64_t> states) {
  auto group = node("Read", 2, 42);
  for (int64_t state : states) group->mutableChildNodes().addObject(node("leaf", 2, state));
  return group;
}

int64_t resolved(std::initializer_list<int64_t> states) {
  auto group = groupWithStates(states);
  QXAclEntry::resolveStateForPermissionNode(group);
  return recordOf(group)->state();
}

TEST(QXAclEntryResolveState, FollowsTheChildren) {
  EXPECT_EQ(resolved({1, 1, 1}), 1);
  EXPECT_EQ(resolved({0, 0}), 0);
  EXPECT_EQ(resolved({1, 0, 1}), -1);
  EXPECT_EQ(resolved({0, 0, 1}), -1);
  EXPECT_EQ(resolved({-1, -1}), -1);
  EXPECT_EQ(resolved({1}), 1);
  EXPECT_EQ(resolved({}), 0);
}

TEST(QXAclEntryResolveState, LooksOneLevelDownOnly) {
  auto top = node("Applies to", 0x2000, 7);
  auto middle = groupWithStates({1, 1});  // state 42, not resolved
  top->mutableChildNodes().addObject(middle);
  QXAclEntry::resolveStateForPermissionNode(top);
  EXPECT_EQ(recordOf(top)->state(), 42);
  EXPECT_EQ(recordOf(middle)->state(), 42);
}

TEST(QXAclEntryResolveState, ChildWithoutRecordCountsAsOff) {
  auto group = groupWithStates({0});
  group->mutableChildNodes().addObject(QXTreeNode::treeNodeWithRepresentedObject(nullptr));
  QXAclEntry::resolveStateForPermissionNode(group);
  EXPECT_EQ(recordOf(group)->state(), 0);
}

TEST(QXAclEntryRecords, DefaultsAndIsAcl) {
  QXAclPermission permission;
  EXPECT_EQ(permission.permission(), 2);
  EXPECT_EQ(permission.state(), 0);
  EXPECT_FALSE(permission.name());

  QXAclEntry entry;
  EXPECT_FALSE(entry.isAcl());
  EXPECT_EQ(entry.tag(), 0);
  EXPECT_FALSE(entry.uuid());
  EXPECT_FALSE(entry.inherited());

  entry.setPermissions(qx::Array::make());
  EXPECT_FALSE(entry.isAcl());
  EXPECT_FALSE(posixEntry(1, 1, 0)->isAcl());
  EXPECT_TRUE(entryFromTables(false, 1)->isAcl());
  EXPECT_TRUE(entryFromTables(true, 0)->isAcl());
}

TEST(QXAclEntryRecords, ConvertToFilePermissionRenamesOnlyTheSharedBits) {
  const std::pair<uint32_t, const char*> renamed[] = {
      {2, "Read Data"}, {8, "Execute File"}, {4, "Write Data"}, {32, "Append Data"}};
  for (auto [value, fileName] : renamed) {
    auto permission = QXAclPermission::make("folder name", value, 1);
    permission->convertToFilePermission();
    EXPECT_EQ(permission->name()->str(), fileName);
    EXPECT_EQ(permission->permission(), static_cast<int32_t>(value));
    EXPECT_EQ(permission->state(), 1);
  }
  for (uint32_t value : {0x10u, 0x40u, 0x80u, 0x2000u, 0u}) {
    auto permission = QXAclPermission::make("Delete Subfolders and Files", value, 0);
    permission->convertToFilePermission();
    EXPECT_EQ(permission->name()->str(), "Delete Subfolders and Files") << value;
  }
}

TEST(QXAclEntryTables, ShapesForFilesAndFolders) {
  std::vector<std::vector<std::string>> file, folder;
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    file.emplace_back();
    folder.emplace_back();
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (QXAclRowApplies(*row, false)) file.back().push_back(row->name);
      if (QXAclRowApplies(*row, true)) folder.back().push_back(row->name);
    }
  }
  using V = std::vector<std::string>;
  EXPECT_EQ(file, (std::vector<V>{{"Read Data", "Execute File", "Read Attributes",
                                   "Read Extended Attributes", "Read Permissions"},
                                  {"Write Data", "Append Data", "Delete", "Write Attributes",
                                   "Write Extended Attributes"},
                                  {"Change Permissions", "Change Owner"}}));
  EXPECT_EQ(folder, (std::vector<V>{
                        {"List Folder Contents", "Traverse Folder", "Read Attributes",
                         "Read Extended Attributes", "Read Permissions"},
                        {"Create Files", "Create Folder", "Delete", "Delete Subfolders and Files",
                         "Write Attributes", "Write Extended Attributes"},
                        {"Change Permissions", "Change Owner"}}));
  EXPECT_STREQ(acl_perms[0].name, "Read");
  EXPECT_STREQ(acl_perms[1].name, "Write");
  EXPECT_STREQ(acl_perms[2].name, "Administration");
  EXPECT_EQ(acl_perms[3].rows, nullptr);
  std::vector<std::pair<std::string, uint32_t>> flags;
  for (const QXAclFlagRow* row = acl_flags; row->name; ++row)
    flags.emplace_back(row->name, row->flag);
  EXPECT_EQ(flags, (std::vector<std::pair<std::string, uint32_t>>{{"This item", 0x100},
                                                                  {"Child files", 0x20},
                                                                  {"Child folders", 0x40},
                                                                  {"All descendants", 0x80}}));
}

TEST(QXAclEntryConvertParent, FolderEntryBecomesAFileEntry) {
  QXAclEntryPtr entry = entryFromTables(true, 1);
  qx::ArrayPtr before = entry->permissions();
  auto write = qx::cast<qx::TreeNode>(before->objectAtIndex(1));
  // Only "Delete Subfolders and Files" disagrees: the group is mixed.
  recordOf(write->childNodes()[3])->setState(0);
  QXAclEntry::resolveStateForPermissionNode(write);

  ASSERT_TRUE(entry->convertParentToFileEntry());

  const qx::ArrayPtr& after = entry->permissions();
  ASSERT_EQ(after->count(), 3u);
  EXPECT_NE(after, before);
  auto read = qx::cast<qx::TreeNode>(after->objectAtIndex(0));
  EXPECT_EQ(childNames(read),
            (std::vector<std::string>{"Read Data", "Execute File", "Read Attributes",
                                      "Read Extended Attributes", "Read Permissions"}));
  EXPECT_EQ(childNames(qx::cast<qx::TreeNode>(after->objectAtIndex(1))),
            (std::vector<std::string>{"Write Data", "Append Data", "Delete", "Write Attributes",
                                      "Write Extended Attributes"}));
  EXPECT_EQ(recordOf(read->childNodes()[0])->permission(), 2);
  EXPECT_EQ(recordOf(read->childNodes()[1])->permission(), 8);
  // Group states are not resolved again.
  EXPECT_EQ(recordOf(write)->state(), -1);
  // The nodes are shared: the old array's "Write" group lost its child too,
  // while the old array itself still holds four nodes.
  EXPECT_EQ(after->objectAtIndex(1), before->objectAtIndex(1));
  EXPECT_EQ(write->childNodes().size(), 5u);
  EXPECT_EQ(before->count(), 4u);
  EXPECT_TRUE(entry->isAcl());
}

TEST(QXAclEntryConvertParent, OtherShapesAreLeftAlone) {
  QXAclEntryPtr file = entryFromTables(false, 1);
  qx::ArrayPtr before = file->permissions();
  EXPECT_FALSE(file->convertParentToFileEntry());
  EXPECT_EQ(file->permissions(), before);
  EXPECT_EQ(childNames(qx::cast<qx::TreeNode>(before->objectAtIndex(0)))[0], "Read Data");

  QXAclEntryPtr posix = posixEntry(1, 0, 1);
  EXPECT_FALSE(posix->convertParentToFileEntry());
  EXPECT_EQ(posix->permissions()->count(), 3u);

  QXAclEntry empty;
  EXPECT_FALSE(empty.convertParentToFileEntry());

  // Four top-level objects that are not tree nodes.
  QXAclEntryPtr strings = QXAclEntry::make(
      nullptr, 1, qx::Array::make({qx::str("a"), qx::str("b"), qx::str("c"), qx::str("d")}), false);
  EXPECT_FALSE(strings->convertParentToFileEntry());
}

}  // namespace
