#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <thread>

#include "ModificationTestSupport.h"
#include "acl/QXFileAcl.h"

namespace qxtest {
namespace {

using namespace qx::xacl;

constexpr int kItems = 150;

std::string itemName(int i) {
  char name[16];
  snprintf(name, sizeof name, "f%03d", i);
  return name;
}

// What a change by the propagation would show on an item: mode, owners, ctime, ACL attribute.
struct Fingerprint {
  mode_t mode;
  uid_t uid;
  gid_t gid;
  int64_t ctimeNs;
  bool hasAcl;

  static Fingerprint of(const std::string& path) {
    struct stat st = lstatOf(path);
    return {st.st_mode, st.st_uid, st.st_gid, st.st_ctim.tv_sec * 1000000000L + st.st_ctim.tv_nsec,
            hasAclAttribute(path)};
  }
  bool operator==(const Fingerprint& other) const {
    return mode == other.mode && uid == other.uid && gid == other.gid && ctimeNs == other.ctimeNs &&
           hasAcl == other.hasAcl;
  }
};

std::map<std::string, Fingerprint> fingerprints(const std::string& folder) {
  std::map<std::string, Fingerprint> all{{folder, Fingerprint::of(folder)}};
  for (const auto& item : std::filesystem::recursive_directory_iterator(folder)) {
    all.emplace(item.path().string(), Fingerprint::of(item.path().string()));
  }
  return all;
}

// Propagation runs as root over trees that other users can write. While it runs, another
// thread keeps swapping a folder inside the tree for a symbolic link to a folder outside it,
// whose items have the same names. A walk that opened folders by path, or changed items by
// path, would sooner or later change the outside items; this one must never.
TEST(PropagateSecurity, FolderSwappedForALinkNeverLeadsChangesOutside) {
  if (geteuid() != 0) GTEST_SKIP() << "the attack matters, and owner changes work, as root";
  TempDir dir;
  const std::string top = dir / "top";
  const std::string victim = top + "/victim";
  const std::string parked = top + "/victim.parked";
  const std::string outside = dir / "outside";
  ASSERT_TRUE(makeFolder(top, 0770));
  ASSERT_EQ(chown(top.c_str(), kAlice, kStaff), 0);
  for (const std::string& folder : {victim, outside}) {
    ASSERT_TRUE(makeFolder(folder, 0755));
    ASSERT_TRUE(makeFolder(folder + "/nested", 0755));
    for (int i = 0; i < kItems; ++i) {
      ASSERT_TRUE(makeFile(folder + "/" + itemName(i), 0644));
      ASSERT_TRUE(makeFile(folder + "/nested/" + itemName(i), 0644));
    }
  }
  const auto outsideBefore = fingerprints(outside);

  std::atomic<bool> stop{false};
  std::atomic<long> swaps{0};
  std::thread attacker([&] {
    while (!stop.load()) {
      if (rename(victim.c_str(), parked.c_str()) != 0) continue;
      if (symlink(outside.c_str(), victim.c_str()) == 0) {
        std::this_thread::yield();
        unlink(victim.c_str());
      }
      rename(parked.c_str(), victim.c_str());
      swaps.fetch_add(1);
    }
  });

  auto entries =
      listing({aclEntry({ACL_EXTENDED_ALLOW, userUuid(kBob), ACL_LIST_DIRECTORY | ACL_SEARCH,
                         ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT},
                        true)},
              {});
  int runs = 0;
  int succeeded = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < deadline) {
    qx::ErrorPtr error;
    if (QXFileAcl::propagateEntries(entries, urlOf(top), &error)) ++succeeded;
    ++runs;
  }
  stop.store(true);
  attacker.join();

  EXPECT_GT(swaps.load(), 100) << "the swapping went on throughout";
  EXPECT_EQ(lstatOf(victim + "/" + itemName(0)).st_uid, kAlice)
      << "the walks did reach the swapped folder (" << runs << " runs, " << succeeded
      << " without interference)";
  const auto outsideAfter = fingerprints(outside);
  ASSERT_EQ(outsideAfter.size(), outsideBefore.size());
  int changed = 0;
  for (const auto& [path, before] : outsideBefore) {
    if (!(outsideAfter.at(path) == before)) {
      ++changed;
      ADD_FAILURE() << path << " was changed from inside the tree";
      if (changed > 5) break;
    }
  }
}

}  // namespace
}  // namespace qxtest
