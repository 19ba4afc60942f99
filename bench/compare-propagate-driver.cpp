// The qxfile side of bench/compare-propagate.
//
//   compare-propagate-driver generate FOLDER ITEMS
//     Makes a tree of about ITEMS items below the new folder FOLDER: folders of
//     folders of files (mode 0755 and 0644, as a usual umask leaves them), with
//     one symbolic link in every hundred items.
//   compare-propagate-driver propagate FOLDER
//     Propagates an ACL entry that allows the user nobody (uid 65534) to read,
//     write and execute, inherited by files and folders, with FOLDER's own mode,
//     owner and group, to everything below FOLDER, and prints the seconds it
//     took. The entry is the one `setfacl -R -m u:nobody:rwx` adds.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "acl/QXFileAcl.h"
#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/String.h"
#include "platform/membership/IdentityUuid.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr long kFilesPerFolder = 99;
constexpr long kFoldersPerGroup = 10;

bool makeFolder(const std::string& path) {
  if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
  perror(path.c_str());
  return false;
}

bool makeFile(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    perror(path.c_str());
    return false;
  }
  close(fd);
  return true;
}

// Groups of ten folders of 99 items each: 1 + 10 * 100 items per group.
int generate(const std::string& top, long items) {
  umask(022);
  if (!makeFolder(top)) return 1;
  long made = 0;
  for (long group = 0; made < items; ++group) {
    const std::string groupPath = top + "/g" + std::to_string(group);
    if (!makeFolder(groupPath)) return 1;
    ++made;
    for (long folder = 0; folder < kFoldersPerGroup && made < items; ++folder) {
      const std::string folderPath = groupPath + "/d" + std::to_string(folder);
      if (!makeFolder(folderPath)) return 1;
      ++made;
      for (long file = 0; file < kFilesPerFolder && made < items; ++file, ++made) {
        const std::string name = folderPath + "/f" + std::to_string(file);
        if (file == kFilesPerFolder - 1) {
          if (symlink("f0", name.c_str()) != 0) {
            perror(name.c_str());
            return 1;
          }
        } else if (!makeFile(name)) {
          return 1;
        }
      }
    }
  }
  printf("%ld items\n", made);
  return 0;
}

QXTreeNodePtr node(const char* name, uint32_t permission, int64_t state) {
  return QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, permission, state));
}

// A folder's ACL entry, as the entry listing shows it: every permission that read, write
// and execute stand for, inherited by child files and folders at every depth.
QXAclEntryPtr nobodyEntry() {
  const uint32_t granted = kQXAclReadData | kQXAclExecute | kQXAclWriteData |
                           kQXAclAppendData | kQXAclDelete | kQXAclDeleteChild;
  auto permissions = qx::MutableArray::make(4);
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = node(group->name, kQXGroupNodePermission, 0);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, true)) continue;
      groupNode->mutableChildNodes().addObject(
          node(row->name, row->value, (granted & row->value) ? 1 : 0));
    }
    QXAclEntry::resolveStateForPermissionNode(groupNode);
    permissions->addObject(groupNode);
  }
  auto appliesTo = node("Applies to", kQXAppliesToPermission, 1);
  for (const QXAclFlagRow* row = acl_flags; row->name; ++row) {
    appliesTo->mutableChildNodes().addObject(node(row->name, row->flag, 1));
  }
  permissions->addObject(appliesTo);
  uint8_t uuid[16];
  qx::IdentityUuid::forUser(kNobody, uuid);
  return QXAclEntry::make(qx::Uuid::withBytes(uuid), 1, permissions->copy(), false);
}

int propagate(const std::string& top) {
  auto entries = qx::Array::make({qx::str("ACL"), nobodyEntry(), qx::str("POSIX")});
  auto url = qx::Url::fileURLWithPath(top);
  qx::ErrorPtr error;
  const auto start = std::chrono::steady_clock::now();
  const bool ok = QXFileAcl::propagateEntries(entries, url, &error);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  if (!ok) {
    fprintf(stderr, "%s: %s\n", error->localizedDescription().c_str(),
            error->localizedRecoverySuggestion().value_or("").c_str());
    return 1;
  }
  printf("%.6f\n", elapsed.count());
  return 0;
}

int usage() {
  fprintf(stderr,
          "usage: compare-propagate-driver generate FOLDER ITEMS\n"
          "       compare-propagate-driver propagate FOLDER\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "generate") {
    char* end = nullptr;
    long items = strtol(argv[3], &end, 10);
    if (*end != '\0' || items < 1) return usage();
    return generate(argv[2], items);
  }
  if (argc == 3 && std::string(argv[1]) == "propagate") return propagate(argv[2]);
  return usage();
}
