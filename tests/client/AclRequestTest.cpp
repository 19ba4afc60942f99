// The four ACL requests through the client library and the real service.
#include <sys/xattr.h>

#include <cstdint>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXTreeNode.h"
#include "tests/client/ClientTestSupport.h"

namespace qxclienttest {
namespace {

qx::UuidPtr userUuid(uid_t uid) {
  char text[64];
  std::snprintf(text, sizeof text, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA%08X", uid);
  return qx::Uuid::withString(text);
}

qx::UuidPtr groupUuid(gid_t gid) {
  char text[64];
  std::snprintf(text, sizeof text, "ABCDEFAB-CDEF-ABCD-EFAB-CDEF%08X", gid);
  return qx::Uuid::withString(text);
}

// Stores a one-entry extended ACL in the item's attribute, in the service's
// own layout: an allow entry for `who` with the given rights.
void storeAcl(const std::string& path, const qx::UuidPtr& who, uint32_t rights) {
  std::vector<uint8_t> bytes;
  auto put = [&](uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(uint8_t(value >> shift));
  };
  put(0x012cc16d);
  put(1);
  put(0);
  bytes.insert(bytes.end(), who->bytes().begin(), who->bytes().end());
  put(1);  // allow, no entry flags
  put(rights);
  ASSERT_EQ(::lsetxattr(path.c_str(), "user.qxfile.acl", bytes.data(), bytes.size(), 0), 0);
}

std::vector<uint8_t> storedAcl(const std::string& path) {
  std::vector<uint8_t> bytes(4096);
  ssize_t length = ::lgetxattr(path.c_str(), "user.qxfile.acl", bytes.data(), bytes.size());
  bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return bytes;
}

std::vector<int64_t> leafStates(const QXAclEntryPtr& entry) {
  std::vector<int64_t> states;
  for (const auto& node : *entry->permissions()) {
    auto tree = qx::cast<qx::TreeNode>(node);
    auto record = tree ? tree->representedObjectAs<QXAclPermission>() : nullptr;
    states.push_back(record ? record->state() : -9);
  }
  return states;
}

std::string nodeName(const qx::ObjectPtr& node) {
  auto tree = qx::cast<QXTreeNode>(node);
  auto record = tree ? tree->representedObjectAs<QXAclPermission>() : nullptr;
  return record && record->name() ? record->name()->str() : "<none>";
}

class AclRequests : public PrivateService {};

TEST_F(AclRequests, EntriesOfAnItemCrossWithTheirPermissionTrees) {
  std::string path = makeFile(files_ / "item", 5, 0754);
  storeAcl(path, groupUuid(4242), 0x2 | 0x80);
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error = qx::Error::errorWithDomain("stale", 1);
  qx::ArrayPtr entries = sync.getAclEntriesWithUrl(urlOf(path), &error);
  EXPECT_FALSE(error);
  ASSERT_TRUE(entries);
  ASSERT_EQ(entries->count(), 6u);
  EXPECT_TRUE(qx::isEqual(entries->objectAtIndex(0), qx::str("ACL")));
  EXPECT_TRUE(qx::isEqual(entries->objectAtIndex(2), qx::str("POSIX")));
  auto acl = entries->objectAs<QXAclEntry>(1);
  ASSERT_TRUE(acl);
  EXPECT_TRUE(acl->isAcl());
  EXPECT_EQ(acl->tag(), 1);
  EXPECT_TRUE(qx::isEqual(acl->uuid(), groupUuid(4242)));
  ASSERT_EQ(acl->permissions()->count(), 3u);  // a file's three groups
  EXPECT_EQ(nodeName(acl->permissions()->objectAtIndex(0)), "Read");

  auto owner = entries->objectAs<QXAclEntry>(3);
  auto group = entries->objectAs<QXAclEntry>(4);
  auto everyone = entries->objectAs<QXAclEntry>(5);
  ASSERT_TRUE(owner && group && everyone);
  EXPECT_TRUE(qx::isEqual(owner->uuid(), userUuid(::getuid())));
  EXPECT_TRUE(qx::isEqual(group->uuid(), groupUuid(::getgid())));
  EXPECT_FALSE(everyone->uuid());
  EXPECT_EQ(leafStates(owner), (std::vector<int64_t>{1, 1, 1}));
  EXPECT_EQ(leafStates(group), (std::vector<int64_t>{1, 0, 1}));
  EXPECT_EQ(leafStates(everyone), (std::vector<int64_t>{1, 0, 0}));
}

TEST_F(AclRequests, SettingEntriesWritesAclAndModeToTheItem) {
  std::string source = makeFile(files_ / "source", 0, 0754);
  storeAcl(source, groupUuid(4242), 0x2 | 0x4);
  std::string target = makeFile(files_ / "target", 0, 0600);
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error;
  qx::ArrayPtr entries = sync.getAclEntriesWithUrl(urlOf(source), &error);
  ASSERT_TRUE(entries) << error->description();

  EXPECT_TRUE(sync.setAclEntries(entries, urlOf(target), &error)) << error->description();
  EXPECT_FALSE(error);
  EXPECT_EQ(modeOf(target), 0754u);
  EXPECT_EQ(storedAcl(target), storedAcl(source));

  // The everyone pseudo-entry loses its read leaf: the mode follows.
  auto everyone = entries->objectAs<QXAclEntry>(entries->count() - 1);
  auto read = qx::cast<qx::TreeNode>(everyone->permissions()->objectAtIndex(0));
  read->representedObjectAs<QXAclPermission>()->setState(0);
  EXPECT_TRUE(sync.setAclEntries(entries, urlOf(target), &error));
  EXPECT_EQ(modeOf(target), 0750u);
}

TEST_F(AclRequests, PropagationGivesTheFolderSettingsToEverythingBelow) {
  std::string top = makeFolder(files_ / "top", 0750);
  storeAcl(top, groupUuid(4242), 0x2 | 0x80);
  std::string file = makeFile(top + "/file", 3, 0600);
  std::string sub = makeFolder(top + "/sub", 0700);
  std::string deep = makeFile(sub + "/deep", 3, 0666);
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error;
  qx::ArrayPtr entries = sync.getAclEntriesWithUrl(urlOf(top), &error);
  ASSERT_TRUE(entries);

  EXPECT_TRUE(sync.propagateAclEntries(entries, urlOf(top), &error))
      << (error ? error->description() : "");
  for (const std::string& below : {file, sub, deep}) {
    EXPECT_EQ(modeOf(below), 0750u) << below;
    EXPECT_FALSE(storedAcl(below).empty()) << below;
  }
  qx::ArrayPtr below = sync.getAclEntriesWithUrl(urlOf(sub), &error);
  ASSERT_TRUE(below && below->count() == 6u);
  EXPECT_TRUE(qx::isEqual(below->objectAs<QXAclEntry>(1)->uuid(), groupUuid(4242)));
}

TEST_F(AclRequests, EffectiveAccessComesAsThreeGroups) {
  std::string path = makeFile(files_ / "mine", 0, 0644);
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error;
  qx::ArrayPtr access = sync.getAclAccessWithUrl(urlOf(path), userUuid(::getuid()), &error);
  ASSERT_TRUE(access) << (error ? error->description() : "");
  EXPECT_FALSE(error);
  ASSERT_EQ(access->count(), 3u);
  EXPECT_EQ(nodeName(access->objectAtIndex(0)), "Read");
  EXPECT_EQ(nodeName(access->objectAtIndex(1)), "Write");
  EXPECT_EQ(nodeName(access->objectAtIndex(2)), "Administration");
}

TEST_F(AclRequests, FailuresArriveAsTheServiceMadeThem) {
  std::string missing = files_ / "missing";
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error;
  EXPECT_FALSE(sync.getAclEntriesWithUrl(urlOf(missing), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), qx::kPOSIXErrorDomain);
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_EQ(error->localizedDescription(), "Error retrieving file Access Control List entries");
  ASSERT_TRUE(error->localizedRecoverySuggestion());
  EXPECT_NE(error->localizedRecoverySuggestion()->find(missing), std::string::npos);

  qx::ArrayPtr entries = sync.getAclEntriesWithUrl(urlOf(makeFile(files_ / "real")), &error);
  ASSERT_TRUE(entries);
  EXPECT_FALSE(sync.propagateAclEntries(entries, urlOf(files_ / "real"), &error));
  ASSERT_TRUE(error);  // the top of a propagation must be a folder
  EXPECT_EQ(error->code(), ENOTDIR);
}

// The entries argument admits arrays, strings, tree nodes and entries only.
TEST_F(AclRequests, EntriesHoldingAnotherClassAreRefusedBeforeTheService) {
  std::string path = makeFile(files_ / "kept", 0, 0640);
  QXFileClientSync sync(connectClient());
  qx::ErrorPtr error;
  qx::ArrayPtr entries = sync.getAclEntriesWithUrl(urlOf(path), &error);
  ASSERT_TRUE(entries);

  auto withNumber = entries->mutableCopy();
  withNumber->addObject(qx::Number::numberWithInteger(0777));
  EXPECT_FALSE(sync.setAclEntries(withNumber, urlOf(path), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), qx::kCocoaErrorDomain);
  EXPECT_EQ(error->code(), 4864);
  EXPECT_NE(error->localizedDescription().find("NSNumber"), std::string::npos)
      << error->localizedDescription();

  auto withUrl = entries->mutableCopy();
  withUrl->addObject(urlOf(path));
  EXPECT_FALSE(sync.propagateAclEntries(withUrl, urlOf(files_.path()), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 4864);
  EXPECT_NE(error->localizedDescription().find("NSURL"), std::string::npos);

  // Nothing reached the item, and the connection goes on.
  EXPECT_EQ(modeOf(path), 0640u);
  EXPECT_TRUE(sync.setAclEntries(entries, urlOf(path), &error));
}

}  // namespace
}  // namespace qxclienttest

namespace qxclienttest {
namespace {

// A long propagation holds the connection's delivery queue: the ACL requests
// sent behind it are answered after it, in the order they were sent, while
// another client's request is answered in the meantime.
TEST_F(AclRequests, RequestsOfAConnectionNeverOverlapOthersGoOn) {
  std::string top = makeFolder(files_ / "top", 0750);
  for (int i = 0; i < 20; ++i) {
    std::string folder = makeFolder(top + "/d" + std::to_string(i));
    fillFolder(folder, 200, 0);
  }
  std::string item = makeFile(files_ / "item", 0, 0600);
  QXFileClient& client = connectClient();
  QXFileClient& other = connectClient();
  qx::ErrorPtr error;
  qx::ArrayPtr entries = QXFileClientSync(client).getAclEntriesWithUrl(urlOf(top), &error);
  ASSERT_TRUE(entries);

  ReplyLog log;
  auto start = std::chrono::steady_clock::now();
  client.propagateAclEntries(entries, urlOf(top), [&](qx::ErrorPtr error) {
    log.add(error ? "propagate failed" : "propagate");
  });
  client.getAclEntriesWithUrl(urlOf(item), [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("get"); });
  client.setAclEntries(entries, urlOf(item), [&](qx::ErrorPtr) { log.add("set"); });
  client.getAclAccessWithUrl(urlOf(item), nullptr,
                             [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("access"); });
  other.getAclEntriesWithUrl(urlOf(item),
                             [&](qx::ArrayPtr, qx::ErrorPtr) { log.add("other client"); });
  EXPECT_TRUE(eventually([&] { return log.count() == 5; }, 60s));
  auto elapsed = std::chrono::steady_clock::now() - start;
  auto order = log.entries();
  order.erase(std::find(order.begin(), order.end(), "other client"));
  EXPECT_EQ(order, (std::vector<std::string>{"propagate", "get", "set", "access"}));
  EXPECT_EQ(log.entries().front(), "other client")
      << "the propagation took "
      << std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() << " ms";
}

}  // namespace
}  // namespace qxclienttest
