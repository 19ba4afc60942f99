// Secure coding of the model records through real keyed archives.
#include <gtest/gtest.h>
#include <plist/plist.h>

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
#include "tests/model/PermissionTrees.h"

namespace {

using namespace qxtest;
using qx::ClassSet;
using qx::KeyedArchiver;
using qx::KeyedUnarchiver;

class ModelCoding : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { registerModelClasses(); }

  template <class T>
  static std::shared_ptr<T> roundTrip(const qx::ObjectPtr& object) {
    qx::DataPtr data = KeyedArchiver::archivedDataWithRootObject(object);
    qx::ErrorPtr error;
    auto decoded =
        KeyedUnarchiver::unarchivedObjectOfClasses(ClassSet{&T::classInfo()}, *data, &error);
    EXPECT_FALSE(error) << error->description();
    return qx::cast<T>(decoded);
  }
};

// An object that archives under another class's wire name with the keys its
// test chooses: how archives with missing or odd keys are made.
class Impostor final : public qx::Object {
 public:
  Impostor(const qx::ClassInfo& cls, std::function<void(KeyedArchiver&)> encode)
      : cls_(cls), encode_(std::move(encode)) {}
  const qx::ClassInfo& objectClass() const override { return cls_; }
  void encodeWithCoder(KeyedArchiver& coder) const override { encode_(coder); }

  static qx::ObjectPtr as(const qx::ClassInfo& cls, std::function<void(KeyedArchiver&)> encode) {
    return std::make_shared<Impostor>(cls, std::move(encode));
  }

 private:
  const qx::ClassInfo& cls_;
  std::function<void(KeyedArchiver&)> encode_;
};

const qx::ClassInfo kFakeEntry("QXAclEntry", &qx::Object::classInfo());
const qx::ClassInfo kFakePermission("QXAclPermission", &qx::Object::classInfo());
const qx::ClassInfo kFakeSizeItem("QXFileSizeItem", &qx::Object::classInfo());
const qx::ClassInfo kFakeTreeNode("QXTreeNode", &qx::TreeNode::classInfo());

// ---- QXAclPermission and QXAclEntry ----

TEST_F(ModelCoding, PermissionKeepsNegativeAndWideStatesAndTopBitValues) {
  const int32_t topBit = static_cast<int32_t>(0x80000010u);
  const int64_t states[] = {-1, 0, 1, int64_t{1} << 40, std::numeric_limits<int64_t>::min()};
  for (int64_t state : states) {
    auto decoded =
        roundTrip<QXAclPermission>(QXAclPermission::make(qx::str("Delete"), topBit, state));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->state(), state);
    EXPECT_EQ(decoded->permission(), topBit);
    EXPECT_EQ(static_cast<uint32_t>(decoded->permission()), 0x80000010u);
    EXPECT_EQ(decoded->name()->str(), "Delete");
  }
  auto nameless = roundTrip<QXAclPermission>(std::make_shared<QXAclPermission>());
  ASSERT_TRUE(nameless);
  EXPECT_FALSE(nameless->name());
  EXPECT_EQ(nameless->permission(), 2);
}

TEST_F(ModelCoding, FolderEntryRoundTripsWithItsWholeTree) {
  QXAclEntryPtr entry = entryFromTables(true, 1, static_cast<int32_t>(0x80000002u));
  entry->setInherited(true);
  auto write = qx::cast<qx::TreeNode>(entry->permissions()->objectAtIndex(1));
  recordOf(write->childNodes()[2])->setState(0);
  QXAclEntry::resolveStateForPermissionNode(write);

  auto decoded = roundTrip<QXAclEntry>(entry);
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(qx::isEqual(decoded->uuid(), entry->uuid()));
  EXPECT_EQ(static_cast<uint32_t>(decoded->tag()), 0x80000002u);
  EXPECT_TRUE(decoded->inherited());
  EXPECT_TRUE(decoded->isAcl());
  ASSERT_EQ(decoded->permissions()->count(), 4u);
  const size_t childCounts[] = {5, 6, 2, 4};
  for (size_t i = 0; i < 4; ++i) {
    auto original = qx::cast<qx::TreeNode>(entry->permissions()->objectAtIndex(i));
    auto copy = qx::cast<QXTreeNode>(decoded->permissions()->objectAtIndex(i));
    ASSERT_TRUE(copy);
    EXPECT_EQ(childNames(copy), childNames(original));
    EXPECT_EQ(copy->childNodes().size(), childCounts[i]);
    EXPECT_EQ(recordOf(copy)->state(), recordOf(original)->state());
    EXPECT_EQ(recordOf(copy)->permission(), recordOf(original)->permission());
    for (size_t j = 0; j < copy->childNodes().size(); ++j) {
      EXPECT_EQ(recordOf(copy->childNodes()[j])->state(),
                recordOf(original->childNodes()[j])->state());
      EXPECT_EQ(recordOf(copy->childNodes()[j])->permission(),
                recordOf(original->childNodes()[j])->permission());
      EXPECT_EQ(copy->childNodes()[j]->parentNode(), copy);
    }
  }
  EXPECT_EQ(recordOf(qx::cast<qx::TreeNode>(decoded->permissions()->objectAtIndex(1)))->state(),
            -1);
}

TEST_F(ModelCoding, EveryonePseudoEntryRoundTrips) {
  QXAclEntryPtr everyone = posixEntry(1, 0, 1);
  everyone->setUuid(nullptr);
  auto decoded = roundTrip<QXAclEntry>(everyone);
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->uuid());
  EXPECT_EQ(decoded->tag(), 1);
  EXPECT_FALSE(decoded->isAcl());
  ASSERT_EQ(decoded->permissions()->count(), 3u);
  EXPECT_EQ(recordOf(qx::cast<qx::TreeNode>(decoded->permissions()->objectAtIndex(1)))->state(), 0);
  EXPECT_EQ(nameOf(qx::cast<qx::TreeNode>(decoded->permissions()->objectAtIndex(2))),
            "Execute File");
}

TEST_F(ModelCoding, MissingKeysGiveTheCodersDefaults) {
  auto entry = roundTrip<QXAclEntry>(
      Impostor::as(kFakeEntry, [](KeyedArchiver& c) { c.encodeInt(2, "tag"); }));
  ASSERT_TRUE(entry);
  EXPECT_FALSE(entry->uuid());
  EXPECT_EQ(entry->tag(), 2);
  EXPECT_FALSE(entry->permissions());
  EXPECT_FALSE(entry->inherited());
  EXPECT_FALSE(entry->isAcl());

  // Decoding goes through the designated initialiser, not init: permission 0.
  auto permission =
      roundTrip<QXAclPermission>(Impostor::as(kFakePermission, [](KeyedArchiver&) {}));
  ASSERT_TRUE(permission);
  EXPECT_FALSE(permission->name());
  EXPECT_EQ(permission->permission(), 0);
  EXPECT_EQ(permission->state(), 0);

  auto noBusy = roundTrip<QXFileSizeItem>(
      Impostor::as(kFakeSizeItem, [](KeyedArchiver& c) { c.encodeInteger(77, "size"); }));
  ASSERT_TRUE(noBusy);
  EXPECT_EQ(noBusy->size(), 77);
  EXPECT_FALSE(noBusy->busy());

  auto noSize = roundTrip<QXFileSizeItem>(
      Impostor::as(kFakeSizeItem, [](KeyedArchiver& c) { c.encodeBool(true, "busy"); }));
  ASSERT_TRUE(noSize);
  EXPECT_EQ(noSize->size(), 0);
  EXPECT_TRUE(noSize->busy());

  auto bare = roundTrip<QXTreeNode>(Impostor::as(kFakeTreeNode, [](KeyedArchiver&) {}));
  ASSERT_TRUE(bare);
  EXPECT_FALSE(bare->representedObject());
  EXPECT_TRUE(bare->isLeaf());
}

TEST_F(ModelCoding, EntryRefusesForeignObjectsInItsPermissions) {
  auto entry = QXAclEntry::make(qx::Uuid::make(), 1, qx::Array::make({qx::str("Read")}), false);
  qx::DataPtr data = KeyedArchiver::archivedDataWithRootObject(entry);
  qx::ErrorPtr error;
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(ClassSet{&QXAclEntry::classInfo()}, *data,
                                                          &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), qx::kCoderReadCorruptError);
}

// ---- QXFileSizeItem ----

TEST_F(ModelCoding, SizeItemDefaultsAreBusy) {
  QXFileSizeItem fresh;
  EXPECT_EQ(fresh.size(), -1);
  EXPECT_TRUE(fresh.busy());
  QXFileSizeItem empty(0);
  EXPECT_EQ(empty.size(), 0);
  EXPECT_TRUE(empty.busy());
}

TEST_F(ModelCoding, SizeItemRoundTripsWideAndNegativeSizesAndTheFlag) {
  const int64_t sizes[] = {-1, 0, (int64_t{1} << 32) + 5, int64_t{5} << 40,
                           std::numeric_limits<int64_t>::max()};
  for (int64_t size : sizes) {
    for (bool busy : {false, true}) {
      auto item = QXFileSizeItem::make(size);
      item->setBusy(busy);
      auto decoded = roundTrip<QXFileSizeItem>(item);
      ASSERT_TRUE(decoded);
      EXPECT_EQ(decoded->size(), size);
      EXPECT_EQ(decoded->busy(), busy);
    }
  }
}

// ---- QXTreeNode ----

// The root object's dictionary of an archive, and the archive's $objects.
struct ArchiveView {
  plist_t root = nullptr;
  plist_t objects = nullptr;
  plist_t top = nullptr;
  explicit ArchiveView(const qx::Data& data) {
    plist_from_bin(reinterpret_cast<const char*>(data.data()), static_cast<uint32_t>(data.length()),
                   &top);
    if (!top) return;
    objects = plist_dict_get_item(top, "$objects");
    plist_t topDict = plist_dict_get_item(top, "$top");
    plist_t rootUid = topDict ? plist_dict_get_item(topDict, "root") : nullptr;
    root = rootUid ? at(rootUid) : nullptr;
  }
  ~ArchiveView() {
    if (top) plist_free(top);
  }
  plist_t at(plist_t uid) const {
    uint64_t index = 0;
    plist_get_uid_val(uid, &index);
    return plist_array_get_item(objects, static_cast<uint32_t>(index));
  }
};

TEST_F(ModelCoding, LeafEncodesAnEmptyChildrenArray) {
  auto leaf = node("Read Data", 2, 1);
  qx::DataPtr data = KeyedArchiver::archivedDataWithRootObject(leaf);
  ArchiveView view(*data);
  ASSERT_TRUE(view.root);
  plist_t childrenUid = plist_dict_get_item(view.root, "children");
  ASSERT_TRUE(childrenUid);
  ASSERT_EQ(plist_get_node_type(childrenUid), PLIST_UID);
  plist_t children = view.at(childrenUid);
  ASSERT_TRUE(children);
  plist_t elements = plist_dict_get_item(children, "NS.objects");
  ASSERT_TRUE(elements);
  EXPECT_EQ(plist_array_get_size(elements), 0u);
  ASSERT_TRUE(plist_dict_get_item(view.root, "object"));

  auto decoded = roundTrip<QXTreeNode>(leaf);
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(decoded->isLeaf());
  EXPECT_EQ(nameOf(decoded), "Read Data");
}

TEST_F(ModelCoding, ChildrenTravelAsStandaloneArchives) {
  auto parent = node("Read", 2, 1);
  parent->mutableChildNodes().addObject(node("Read Data", 2, 1));
  qx::DataPtr data = KeyedArchiver::archivedDataWithRootObject(parent);
  ArchiveView view(*data);
  ASSERT_TRUE(view.root);
  plist_t children = view.at(plist_dict_get_item(view.root, "children"));
  plist_t elements = plist_dict_get_item(children, "NS.objects");
  ASSERT_EQ(plist_array_get_size(elements), 1u);
  plist_t blob = view.at(plist_array_get_item(elements, 0));
  ASSERT_EQ(plist_get_node_type(blob), PLIST_DATA);
  uint64_t length = 0;
  const char* bytes = plist_get_data_ptr(blob, &length);
  auto child = qx::cast<QXTreeNode>(KeyedUnarchiver::unarchiveObjectWithData(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes), length)));
  ASSERT_TRUE(child);
  EXPECT_EQ(nameOf(child), "Read Data");
}

TEST_F(ModelCoding, ThreeLevelTreeKeepsOrderAndParents) {
  auto root = node("root", 2, -1);
  for (int i = 0; i < 3; ++i) {
    auto middle = node(("m" + std::to_string(i)).c_str(), 2, i);
    for (int j = 0; j < 4; ++j) {
      middle->mutableChildNodes().addObject(
          node(("l" + std::to_string(i) + std::to_string(j)).c_str(), 8, j % 2));
    }
    root->mutableChildNodes().addObject(middle);
  }
  auto decoded = roundTrip<QXTreeNode>(root);
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->parentNode());
  EXPECT_EQ(recordOf(decoded)->state(), -1);
  ASSERT_EQ(childNames(decoded), (std::vector<std::string>{"m0", "m1", "m2"}));
  for (size_t i = 0; i < 3; ++i) {
    const qx::TreeNodePtr& middle = decoded->childNodes()[i];
    EXPECT_EQ(middle->parentNode(), decoded);
    EXPECT_TRUE(qx::cast<QXTreeNode>(middle));
    EXPECT_EQ(recordOf(middle)->state(), static_cast<int64_t>(i));
    ASSERT_EQ(middle->childNodes().size(), 4u);
    for (size_t j = 0; j < 4; ++j) {
      const qx::TreeNodePtr& leaf = middle->childNodes()[j];
      EXPECT_EQ(nameOf(leaf), "l" + std::to_string(i) + std::to_string(j));
      EXPECT_EQ(leaf->parentNode(), middle);
      EXPECT_EQ(recordOf(leaf)->state(), static_cast<int64_t>(j % 2));
      EXPECT_EQ(leaf->indexPath()->description(), qx::IndexPath::make({i, j})->description());
    }
  }
}

TEST_F(ModelCoding, ForeignRepresentedObjectIsRefusedOnlyAtTheTop) {
  auto stringNode = QXTreeNode::treeNodeWithRepresentedObject(qx::str("not a permission"));
  qx::DataPtr data = KeyedArchiver::archivedDataWithRootObject(stringNode);
  qx::ErrorPtr error;
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(ClassSet{&QXTreeNode::classInfo()}, *data,
                                                          &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), qx::kCoderReadCorruptError);

  auto parent = node("Read", 2, 0);
  parent->mutableChildNodes().addObject(stringNode);
  auto decoded = roundTrip<QXTreeNode>(parent);
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->childNodes().size(), 1u);
  auto text = decoded->childNodes()[0]->representedObjectAs<qx::String>();
  ASSERT_TRUE(text);
  EXPECT_EQ(text->str(), "not a permission");
}

qx::ErrorPtr decodeFailure(const qx::ObjectPtr& impostor) {
  qx::DataPtr data = KeyedArchiver::archivedDataWithRootObject(impostor);
  qx::ErrorPtr error;
  qx::ObjectPtr decoded =
      KeyedUnarchiver::unarchivedObjectOfClasses(ClassSet{&QXTreeNode::classInfo()}, *data, &error);
  EXPECT_FALSE(decoded);
  return error;
}

TEST_F(ModelCoding, MalformedChildrenFailCleanly) {
  auto withChildren = [](qx::ObjectPtr children) {
    return Impostor::as(kFakeTreeNode, [children](KeyedArchiver& c) {
      c.encodeObject(nullptr, "object");
      c.encodeObject(children, "children");
    });
  };
  auto childArchive = KeyedArchiver::archivedDataWithRootObject(node("x", 2, 1));
  const std::vector<uint8_t> garbage = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 0xff, 0x00};
  const std::pair<const char*, qx::ObjectPtr> cases[] = {
      {"a string among the blobs", qx::Array::make({childArchive, qx::str("x")})},
      {"an array among the blobs", qx::Array::make({qx::Array::make({childArchive})})},
      {"a blob that is not an archive", qx::Array::make({qx::Data::make(garbage)})},
      {"an archive of a permission", qx::Array::make({KeyedArchiver::archivedDataWithRootObject(
                                         QXAclPermission::make("x", 2, 1))})},
      {"data instead of an array", childArchive},
  };
  for (const auto& [what, children] : cases) {
    qx::ErrorPtr error = decodeFailure(withChildren(children));
    EXPECT_TRUE(error) << what;
  }
}

TEST_F(ModelCoding, TreeNestedBeyondTheArchiveDepthLimitIsRefused) {
  auto root = node("0", 2, 0);
  QXTreeNodePtr tip = root;
  for (int depth = 1; depth < qx::kMaxArchiveDepth + 20; ++depth) {
    auto next = node("n", 2, 0);
    tip->mutableChildNodes().addObject(next);
    tip = next;
  }
  qx::DataPtr data = KeyedArchiver::archivedDataWithRootObject(root);
  qx::ErrorPtr error;
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses(ClassSet{&QXTreeNode::classInfo()}, *data,
                                                          &error));
  EXPECT_TRUE(error);
}

}  // namespace
