// A real file system mounted without POSIX ACLs, in a private mount namespace: writing a non-empty
// ACL fails cleanly and stores nothing, reading works.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/enforcement/QxfileCommand.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/TempTree.h"

namespace {

using qx::test::QxfileCommand;

struct FileSystem {
  const char* name;
  const char* mkfs;  // makes the image named last on its command line
  const char* size;
};
// Kernels that no longer know ext4's noacl refuse the mount; btrfs keeps it.
const FileSystem kFileSystems[] = {{"ext4", "mkfs.ext4 -q -F", "16M"},
                                   {"btrfs", "mkfs.btrfs -q -f", "128M"}};

std::string errnoText(const char* call) {
  return std::string(call) + ": " + std::strerror(errno);
}

// The attribute `name` of `path`: "none" when there is none, else what lgetxattr says.
std::string attribute(const std::string& path, const char* name) {
  char value[256];
  ssize_t size = lgetxattr(path.c_str(), name, value, sizeof value);
  if (size >= 0) return std::to_string(size) + " bytes";
  return errno == ENODATA || errno == ENOTSUP ? "none" : std::strerror(errno);
}

// What qxfile does on the mounted file system, one finding a line. Only commands run here, so that
// the child that mounted it starts no threads.
std::string exercise(const std::string& mountPoint) {
  qx::test::ServiceSandbox sandbox(QX_SERVICE_EXECUTABLE);  // a service in this namespace
  const std::string file = mountPoint + "/file";
  if (system(("echo contents > '" + file + "' && chmod 644 '" + file + "'").c_str()) != 0) {
    return "could not make the file";
  }
  const auto added = QxfileCommand::run({"acl", "add", file, "allow", "user:qxother", "read"});
  std::string report = "acl add: status " + std::to_string(added.status) + "\n" + added.err +
                       "stored attribute: " + attribute(file, "user.qxfile.acl") + "\n" +
                       "POSIX ACL: " + attribute(file, "system.posix_acl_access") + "\n";
  const auto shown = QxfileCommand::run({"acl", "show", file, "--json"});
  const auto moded = QxfileCommand::run({"acl", "mode", file, "600", "--json"});
  report += "acl show: status " + std::to_string(shown.status) + ", stored " +
            shown.json().value("stored", "?") + ", " + std::to_string(shown.json()["acl"].size()) +
            " entries\nacl mode: status " + std::to_string(moded.status) + ", mode " +
            moded.json().value("mode", "?") + "\n";
  sandbox.allGoneWithin(std::chrono::seconds(15));
  return report;
}

TEST(NoPosixAclFileSystem, NonEmptyWriteFailsWithEnotsupAndStoresNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a file system image needs root";
  qx::test::TempTree tree("qx-noacl");
  std::string skipped;
  int exercised = 0;
  for (const FileSystem& fs : kFileSystems) {
    SCOPED_TRACE(fs.name);
    const std::string image = tree.path(std::string(fs.name) + ".img");
    const std::string mountPoint = tree.path(fs.name);
    tree.folder(fs.name);
    const std::string make = std::string("truncate -s ") + fs.size + " '" + image + "' && " +
                             fs.mkfs + " '" + image + "' >/dev/null 2>&1";
    if (system(make.c_str()) != 0) {
      skipped += std::string(fs.name) + ": cannot make the image (" + fs.mkfs + ")\n";
      continue;
    }
    const std::string answer = qx::test::ChildProcess::runAs(
        0, 0,
        [&] {
          if (unshare(CLONE_NEWNS) != 0) return "not mounted: " + errnoText("unshare");
          if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return "not mounted: " + errnoText("mount --make-rprivate /");
          }
          const std::string command =
              "mount -o loop,noacl '" + image + "' '" + mountPoint + "' 2>/dev/null";
          if (system(command.c_str()) != 0) return std::string("not mounted: mount -o noacl");
          return exercise(mountPoint);
        },
        120);
    if (answer.rfind("not mounted", 0) == 0) {
      skipped += std::string(fs.name) + ": " + answer + "\n";
      continue;
    }
    ++exercised;
    EXPECT_EQ(answer,
              "acl add: status 1\nqxfile: Error saving file Acces Control List entries\n"
              "  Couldn't set file Acces Control List entries for file at path \"" +
                  mountPoint +
                  "/file\". Operation not supported\nstored attribute: none\n"
                  "POSIX ACL: none\nacl show: status 0, stored none, 0 entries\n"
                  "acl mode: status 0, mode 0600\n");
  }
  if (exercised == 0)
    GTEST_SKIP() << "no file system without POSIX ACLs could be mounted:\n" << skipped;
  if (!skipped.empty()) std::printf("not exercised:\n%s", skipped.c_str());
}

}  // namespace
