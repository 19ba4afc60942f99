// Secure coding of the model records through real keyed archives.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>

#include "model/ModelClasses.h"
#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXFileSizeItem.h"
#include "model/QXTreeNode.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/ClassSet.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/MutableArray.h"
#include "tests/platform/archive/support/ArchiveTestSupport.h"
#include "tests/support/PermissionTrees.h"

namespace {

using namespace qx::test;
using qx::ClassSet;
using qx::KeyedArchiver;
using qx::KeyedUnarchiver;

// Decodes the archive of `object` with T alone as the top-level class.
template <class T>
std::shared_ptr<T> roundTrip(const qx::ObjectPtr& object, qx::ErrorPtr* error = nullptr) {
  qx::DataPtr data = KeyedArchiver::archivedDataWithRootObject(object);
  qx::ErrorPtr ignored;
  return qx::cast<T>(KeyedUnarchiver::unarchivedObjectOfClasses(ClassSet{&T::classInfo()}, *data,
                                                                error ? error : &ignored));
}

// An object that archives under another class's wire name with the keys its test chooses: how
// archives with missing or odd keys are made.
class Impostor final : public qx::Object {
 public:
  Impostor(const qx::ClassInfo& cls, std::function<void(KeyedArchiver&)> encode)
      : cls_(cls), encode_(std::move(encode)) {}
  const qx::ClassInfo& objectClass() const override { return cls_; }
  void encodeWithCoder(KeyedArchiver& coder) const override { encode_(coder); }

 private:
  const qx::ClassInfo& cls_;
  std::function<void(KeyedArchiver&)> encode_;
};

qx::ObjectPtr impostor(const qx::ClassInfo& cls, std::function<void(KeyedArchiver&)> encode) {
  return std::make_shared<Impostor>(cls, std::move(encode));
}

const qx::ClassInfo kFakeEntry("QXAclEntry", &qx::Object::classInfo());
const qx::ClassInfo kFakePermission("QXAclPermission", &qx::Object::classInfo());
const qx::ClassInfo kFakeSizeItem("QXFileSizeItem", &qx::Object::classInfo());
const qx::ClassInfo kFakeTreeNode("QXTreeNode", &qx::TreeNode::classInfo());

// "decoded", or the code of the error that refused the archive of `object`.
template <class T>
std::string refusal(const qx::ObjectPtr& object) {
  qx::ErrorPtr error;
  if (roundTrip<T>(object, &error)) return "decoded";
  return error ? std::to_string(error->code()) : "refused without an error";
}
const std::string kCorrupt = std::to_string(qx::kCoderReadCorruptError);

class ModelCoding : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { registerModelClasses(); }
};

TEST_F(ModelCoding, RecordsRoundTripWithEdgeValues) {
  for (int64_t state :
       {int64_t{-1}, int64_t{0}, int64_t{1} << 40, std::numeric_limits<int64_t>::min()}) {
    auto decoded = roundTrip<QXTreeNode>(permissionNode("Delete", 0x80000010u, state));
    EXPECT_EQ(decoded ? treeText(decoded) : "refused",
              "Delete:2147483664=" + std::to_string(state));
  }
  auto nameless = roundTrip<QXTreeNode>(
      QXTreeNode::treeNodeWithRepresentedObject(std::make_shared<QXAclPermission>()));
  EXPECT_EQ(nameless ? treeText(nameless) : "refused", "<nil>:2=0");

  EXPECT_EQ(QXFileSizeItem().size(), -1);
  EXPECT_TRUE(QXFileSizeItem(0).busy());
  for (int64_t size :
       {int64_t{-1}, int64_t{0}, (int64_t{1} << 32) + 5, std::numeric_limits<int64_t>::max()}) {
    for (bool busy : {false, true}) {
      auto item = QXFileSizeItem::make(size);
      item->setBusy(busy);
      auto decoded = roundTrip<QXFileSizeItem>(item);
      ASSERT_TRUE(decoded);
      EXPECT_EQ(std::pair(decoded->size(), decoded->busy()), std::pair(size, busy));
    }
  }
}

TEST_F(ModelCoding, EntriesRoundTripWithTheirWholeTree) {
  QXAclEntryPtr folder =
      entryRecord(qx::Uuid::make(), static_cast<int32_t>(0x80000002u), 0x3ffe, 0x60, true);
  folder->setInherited(true);
  auto write = qx::cast<qx::TreeNode>(folder->permissions()->objectAtIndex(1));
  recordOf(write->childNodes()[2])->setState(0);
  QXAclEntry::resolveStateForPermissionNode(write);
  QXAclEntryPtr everyone = posixRecord(nullptr, 1, 0, 1);
  for (const QXAclEntryPtr& entry : {folder, everyone}) {
    auto decoded = roundTrip<QXAclEntry>(entry);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(entryText(decoded), entryText(entry));
  }
  EXPECT_EQ(recordOf(write)->state(), -1);
}

TEST_F(ModelCoding, MissingKeysGiveTheCodersDefaults) {
  auto entry =
      roundTrip<QXAclEntry>(impostor(kFakeEntry, [](KeyedArchiver& c) { c.encodeInt(2, "tag"); }));
  EXPECT_EQ(entry ? entryText(entry) : "refused", "everyone tag 2: nil");
  // Decoding goes through the designated initialiser, not init: permission 0.
  auto permission = roundTrip<QXAclPermission>(impostor(kFakePermission, [](KeyedArchiver&) {}));
  ASSERT_TRUE(permission);
  EXPECT_TRUE(!permission->name() && permission->permission() == 0 && permission->state() == 0);
  auto sizeItem = [](std::function<void(KeyedArchiver&)> encode) {
    auto item = roundTrip<QXFileSizeItem>(impostor(kFakeSizeItem, std::move(encode)));
    return item ? std::pair(item->size(), item->busy()) : std::pair(int64_t{-99}, true);
  };
  EXPECT_EQ(sizeItem([](KeyedArchiver& c) { c.encodeInteger(77, "size"); }),
            std::pair(int64_t{77}, false));
  EXPECT_EQ(sizeItem([](KeyedArchiver& c) { c.encodeBool(true, "busy"); }).first, 0);
  auto bare = roundTrip<QXTreeNode>(impostor(kFakeTreeNode, [](KeyedArchiver&) {}));
  ASSERT_TRUE(bare);
  EXPECT_TRUE(!bare->representedObject() && bare->isLeaf());
}

// The blobs in the "children" array of the root of an archive.
std::vector<std::vector<uint8_t>> childArchives(const qx::Data& archive) {
  const qx::testing::json plist = qx::testing::readJson(archive.span());
  auto at = [&](const qx::testing::json& uid) -> const qx::testing::json& {
    return plist.at("$objects").at(uid.at("UID").get<size_t>());
  };
  const qx::testing::json root = at(plist.at("$top").at("root"));
  EXPECT_TRUE(root.contains("object"));
  std::vector<std::vector<uint8_t>> blobs;
  for (const auto& uid : at(root.at("children")).at("NS.objects")) {
    blobs.push_back(qx::testing::unhex(at(uid).at("data")));
  }
  return blobs;
}

TEST_F(ModelCoding, TreesTravelWithEachChildAsAStandaloneArchive) {
  auto parent = permissionNode("Read", 2, 1, {permissionNode("Read Data", 2, 1)});
  auto blobs = childArchives(*KeyedArchiver::archivedDataWithRootObject(parent));
  ASSERT_EQ(blobs.size(), 1u);
  auto child = qx::cast<QXTreeNode>(KeyedUnarchiver::unarchiveObjectWithData(blobs[0]));
  ASSERT_TRUE(child);
  EXPECT_EQ(nameOf(child), "Read Data");
  // A leaf still encodes its (empty) children array.
  EXPECT_TRUE(childArchives(qx::Data(blobs[0])).empty());

  auto root =
      permissionNode("root", 2, -1, {permissionNode("m", 2, 2, {permissionNode("l", 8, 0)})});
  auto decoded = roundTrip<QXTreeNode>(root);
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->parentNode());
  EXPECT_EQ(treeText(decoded), treeText(root));
}

TEST_F(ModelCoding, ForeignObjectsAndMalformedChildrenAreRefused) {
  // A represented object that is no permission: refused at the top, but not inside a child archive,
  // which is decoded unrestricted.
  auto stringNode = QXTreeNode::treeNodeWithRepresentedObject(qx::str("not a permission"));
  EXPECT_EQ(refusal<QXTreeNode>(stringNode), kCorrupt);
  auto decoded = roundTrip<QXTreeNode>(permissionNode("Read", 2, 0, {stringNode}));
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->childNodes().size(), 1u);
  auto text = decoded->childNodes()[0]->representedObjectAs<qx::String>();
  EXPECT_EQ(text ? text->str() : "<none>", "not a permission");
  EXPECT_EQ(refusal<QXAclEntry>(
                QXAclEntry::make(qx::Uuid::make(), 1, qx::Array::make({qx::str("Read")}), false)),
            kCorrupt);

  auto childArchive = KeyedArchiver::archivedDataWithRootObject(permissionNode("x", 2, 1));
  const std::vector<uint8_t> garbage = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 0xff, 0x00};
  const std::pair<const char*, qx::ObjectPtr> children[] = {
      {"a string among the blobs", qx::Array::make({childArchive, qx::str("x")})},
      {"an array among the blobs", qx::Array::make({qx::Array::make({childArchive})})},
      {"a blob that is not an archive", qx::Array::make({qx::Data::make(garbage)})},
      {"an archive of a permission", qx::Array::make({KeyedArchiver::archivedDataWithRootObject(
                                         QXAclPermission::make("x", 2, 1))})},
      {"data instead of an array", childArchive},
  };
  for (const auto& [what, value] : children) {
    auto encode = [value](KeyedArchiver& c) {
      c.encodeObject(nullptr, "object");
      c.encodeObject(value, "children");
    };
    EXPECT_EQ(refusal<QXTreeNode>(impostor(kFakeTreeNode, encode)), kCorrupt) << what;
  }

  // Children nested beyond the archive depth limit.
  auto root = permissionNode("0", 2, 0);
  QXTreeNodePtr tip = root;
  for (int depth = 1; depth < qx::kMaxArchiveDepth + 20; ++depth) {
    auto next = permissionNode("n", 2, 0);
    tip->mutableChildNodes().addObject(next);
    tip = next;
  }
  EXPECT_EQ(refusal<QXTreeNode>(root), kCorrupt);
}

}  // namespace
