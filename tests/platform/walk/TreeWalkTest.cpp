// The walker against glibc's fts on the same trees: visiting order, entry
// kinds, levels, names, paths and error numbers must agree, whatever the
// tree holds, whoever walks it and however many descriptors are left. And a
// folder swapped while the walk runs is never entered.
#include <dirent.h>
#include <fcntl.h>
#include <fts.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <sstream>

#include "platform/walk/TreeWalk.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempTree.h"

namespace qx {
namespace {

using test::ChildProcess;
constexpr int kPropagation = FTS_PHYSICAL | FTS_NOCHDIR;
constexpr int kSizes = FTS_NOCHDIR | FTS_PHYSICAL | FTS_XDEV;

// One visit a line: info|level|errno|inode|name|path. A failed open is -2,
// a failed read -3, a failed close -4; -1 marks a TreeWalk entry whose
// parentFd() and accessName() do not reach the item examined.
using OnVisit = std::function<bool(int info, const std::string& path)>;

void line(std::ostringstream& out, int info, int level, int errnum, ino_t ino, const char* name,
          const char* path) {
  out << info << '|' << level << '|' << errnum << '|' << ino << '|' << name << '|' << path << '\n';
}

int ftsNames(const FTSENT** a, const FTSENT** b) {
  return std::strcmp((*a)->fts_name, (*b)->fts_name);
}
int walkNames(const WalkEntry* a, const WalkEntry* b) {
  return std::strcmp(a->name(), b->name());
}

std::vector<char*> argvOf(const std::vector<std::string>& paths) {
  std::vector<char*> argv;
  for (const std::string& p : paths) argv.push_back(const_cast<char*>(p.c_str()));
  argv.push_back(nullptr);
  return argv;
}

std::string withFts(const std::vector<std::string>& paths, int options, bool byName,
                    const OnVisit& onVisit = nullptr) {
  std::ostringstream out;
  FTS* fts = fts_open(argvOf(paths).data(), options, byName ? ftsNames : nullptr);
  if (fts == nullptr) return line(out, -2, 0, errno, 0, "", ""), out.str();
  errno = 0;
  while (FTSENT* e = fts_read(fts)) {
    line(out, e->fts_info, e->fts_level, e->fts_errno, e->fts_statp->st_ino, e->fts_name,
         e->fts_path);
    if (onVisit && onVisit(e->fts_info, e->fts_path)) fts_set(fts, e, FTS_SKIP);
  }
  if (errno != 0) line(out, -3, 0, errno, 0, "", "");
  fts_close(fts);
  return out.str();
}

std::string withTreeWalk(const std::vector<std::string>& paths, int options, bool byName,
                         const OnVisit& onVisit = nullptr) {
  std::ostringstream out;
  auto walk = TreeWalk::open(paths, options, byName ? walkNames : nullptr);
  if (!walk) return line(out, -2, 0, errno, 0, "", ""), out.str();
  errno = 0;
  while (const WalkEntry* e = walk->read()) {
    line(out, e->infoValue(), e->level(), e->errnum(), e->statp()->st_ino, e->name(), e->path());
    int saved = errno;
    struct stat st;
    if (e->info() != WalkInfo::NS &&
        (fstatat(e->parentFd(), e->accessName(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
         st.st_ino != e->statp()->st_ino || st.st_dev != e->statp()->st_dev))
      line(out, -1, e->level(), errno, 0, e->accessName(), e->path());
    errno = saved;
    if (onVisit && onVisit(e->infoValue(), e->path())) walk->set(e, TreeWalk::Skip);
  }
  if (errno != 0) line(out, -3, 0, errno, 0, "", "");
  if (walk->close() != 0) line(out, -4, 0, errno, 0, "", "");
  return out.str();
}

// "" when both walkers agree on `roots` in both modes, sorted and not;
// otherwise both walks. `options` narrows the modes compared.
std::string differences(const std::vector<std::string>& roots,
                        std::vector<int> modes = {kPropagation, kSizes}) {
  std::string found;
  for (int options : modes)
    for (bool byName : {false, true}) {
      std::string fts = withFts(roots, options, byName),
                  mine = withTreeWalk(roots, options, byName);
      if (fts != mine) found += "fts:\n" + fts + "TreeWalk:\n" + mine;
    }
  return found;
}

int openDescriptorCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count - 1;
}

bool has(const std::string& walk, const std::string& fragment) {
  return walk.find(fragment) != std::string::npos;
}

// Whether `walk` holds a visit of kind `info` (any when kAny) with error `errnum`.
constexpr int kAny = INT_MIN;
bool hasVisit(const std::string& walk, int info, int errnum) {
  std::istringstream in(walk);
  int kind, level, number;
  char bar;
  std::string rest;
  while (in >> kind >> bar >> level >> bar >> number && std::getline(in, rest))
    if ((info == kAny || kind == info) && number == errnum) return true;
  return false;
}

TEST(TreeWalk, MatchesFtsOnEveryKindOfItemAndEveryFormOfRoot) {
  test::TempTree tree("qx-walk");
  tree.folder("top");
  for (std::string name : {"one", "two", "Z", "_x", "\xc3\xa4", "B10", "B9", ".hidden"})
    tree.file("top/" + name, name);
  tree.folder("top/empty");
  tree.folder("top/sub/inner/bottom");
  tree.file("top/sub/inner/leaf");
  tree.folder("top/sub/skip");
  tree.file("top/sub/skip/hidden");
  tree.link("top/to-file", "one");
  tree.link("top/to-folder", "sub");
  tree.link("top/to-nowhere", "missing");
  tree.fifo("top/pipe");
  for (int i = 0; i < 40; ++i) tree.file("top/sub/f" + std::to_string(i));
  tree.link("root-link", "top");
  for (std::string name : {"b", "A", "a"}) tree.file(name + "/z");
  char previous[PATH_MAX];
  ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(chdir(tree.path("top").c_str()), 0);
  for (const std::vector<std::string>& roots : std::vector<std::vector<std::string>>{
           {tree.path("top")},
           {tree.path("b"), tree.path("a"), tree.path("A")},
           {tree.path("top/"), tree.path("missing"), tree.path("root-link"), tree.path("top/one"),
            tree.path("top//sub"), tree.path("top/pipe")},
           {"."},
           {"sub", "./empty"},
           {"..//top/sub/"}})
    EXPECT_EQ(differences(roots), "") << roots[0];
  ASSERT_EQ(chdir(previous), 0);
  // A skipped folder gets its postorder visit at once.
  auto skip = [](int info, const std::string& path) {
    return info == FTS_D && path.ends_with("/skip");
  };
  EXPECT_EQ(withTreeWalk({tree.path("top")}, kSizes, true, skip),
            withFts({tree.path("top")}, kSizes, true, skip));
}

TEST(TreeWalk, ErrnoRefusalsAndDescriptorsFollowFtsConventions) {
  test::TempTree tree("qx-walk");
  std::string nested = "n";
  for (int i = 0; i < 20; ++i) nested += "/n";
  tree.file(nested + "/leaf");
  auto walk = TreeWalk::open({tree.path("n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n")}, kSizes);
  ASSERT_TRUE(walk);
  const WalkEntry* entry = walk->read();
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(walk->set(nullptr, TreeWalk::Skip), -1);
  WalkEntry copy = *entry;
  EXPECT_EQ(walk->set(&copy, TreeWalk::Skip), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(walk->set(entry, TreeWalk::Follow), -1);
  EXPECT_EQ(errno, ENOTSUP);
  EXPECT_EQ(walk->set(entry, static_cast<TreeWalk::Instruction>(42)), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(walk->set(entry, TreeWalk::NoInstr), 0);
  while (walk->read() != nullptr) {
  }
  EXPECT_EQ(errno, 0) << "the normal end leaves errno at 0";
  errno = EBADF;
  EXPECT_EQ(walk->read(), nullptr);
  EXPECT_EQ(errno, EBADF) << "reads after the end leave errno alone";
  auto none = TreeWalk::open({}, kSizes);
  errno = EBADF;
  EXPECT_EQ(none->read(), nullptr);
  EXPECT_EQ(errno, 0);
  for (auto [options, roots, number] :
       {std::tuple{FTS_LOGICAL | FTS_NOCHDIR, std::vector{tree.root()}, EINVAL},
        std::tuple{FTS_PHYSICAL | FTS_SEEDOT, std::vector{tree.root()}, EINVAL},
        std::tuple{kSizes, std::vector{tree.root(), std::string()}, ENOENT}}) {
    errno = 0;
    EXPECT_FALSE(TreeWalk::open(roots, options));
    EXPECT_EQ(errno, number);
  }

  // One descriptor per folder on the path; closing or destroying mid-walk releases them.
  const int before = openDescriptorCount();
  walk = TreeWalk::open({tree.path("n")}, kSizes);
  while ((entry = walk->read()) != nullptr && entry->info() != WalkInfo::F) {
  }
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(openDescriptorCount(), before + 21);
  EXPECT_EQ(walk->close(), 0);
  EXPECT_EQ(openDescriptorCount(), before);
  EXPECT_EQ(walk->read(), nullptr);
  walk = TreeWalk::open({tree.path("n")}, kSizes);
  for (int i = 0; i < 10; ++i) walk->read();
  walk.reset();
  EXPECT_EQ(openDescriptorCount(), before);
}

TEST(TreeWalk, UnreadableFoldersAndUnexaminableItemsMatchFts) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to take another user's identity";
  test::TempTree tree("qx-walk");
  for (std::string name : {"first", "locked/x", "readonly/a", "searchonly/c", "later/y"})
    tree.file("top/" + name);
  chmod(tree.path("top/locked").c_str(), 0000);
  chmod(tree.path("top/readonly").c_str(), 0644);
  chmod(tree.path("top/searchonly").c_str(), 0111);
  const std::vector<std::string> roots = {tree.path("top"), tree.path("top/locked/x")};
  std::string text = ChildProcess::runAs(
      65534, 65534, [&] { return differences(roots) + withTreeWalk(roots, kSizes, true); });
  EXPECT_TRUE(hasVisit(text, FTS_DNR, EACCES) && hasVisit(text, FTS_NS, EACCES)) << text;
  EXPECT_FALSE(has(text, "fts:")) << text;
}

TEST(TreeWalk, OtherVolumesAndBindMountCyclesMatchFts) {
  test::TempTree tree("qx-walk");
  tree.folder("top/mnt");
  tree.folder("top/sub/loop");
  tree.file("top/sub/file");
  // Mounts in a mount namespace of the child's own, gone with it.
  std::string text = ChildProcess::runAs(0, 0, [&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        mount("none", tree.path("top/mnt").c_str(), "tmpfs", 0, nullptr) != 0 ||
        mount(tree.path("top").c_str(), tree.path("top/sub/loop").c_str(), nullptr, MS_BIND,
              nullptr) != 0)
      return std::string("cannot mount: ") + std::strerror(errno);
    tree.file("top/mnt/on-tmpfs");
    return differences({tree.path("top")}) + withTreeWalk({tree.path("top")}, kPropagation, true);
  });
  if (text.starts_with("cannot mount")) GTEST_SKIP() << text;
  EXPECT_FALSE(has(text, "fts:")) << text;
  EXPECT_TRUE(hasVisit(text, FTS_DC, 0) && has(text, "|on-tmpfs|")) << text;
}

TEST(TreeWalk, DeepTreesAndAShortDescriptorSupplyMatchFts) {
  test::TempTree tree("qx-walk");
  const int depth = static_cast<int>(TreeWalk::kOpenLevelLimit) * 2 + 100;
  std::string chain = "top";
  tree.folder(chain);
  for (int level = 1; level <= depth; ++level) {
    tree.folder(chain += "/d");
    if (level % 97 == 0 || level <= 120) tree.file(chain + "/file");
    // Siblings entered after the walk has come back up past closed levels.
    if (level == 150 || level == 400) {
      tree.file(chain + "/e/f/g");
      tree.file(chain + "/z");
    }
  }
  EXPECT_EQ(differences({tree.path("top")}, {kPropagation}), "");
  const int before = openDescriptorCount();
  auto walk = TreeWalk::open({tree.path("top")}, kSizes);
  int most = 0;
  while (const WalkEntry* entry = walk->read())
    if (entry->level() % 50 == 0) most = std::max(most, openDescriptorCount() - before);
  EXPECT_EQ(errno, 0);
  EXPECT_LE(most, static_cast<int>(TreeWalk::kOpenLevelLimit));
  EXPECT_GT(most, 200);
  walk.reset();

  // A dozen spare descriptors: outer folders are closed and reopened, no
  // EMFILE. None at all: the top is unreadable with EMFILE, as fts says.
  for (int spare : {12, 0}) {
    std::string text = ChildProcess::runAs(0, 0, [&] {
      int lowestFree = dup(0);
      close(lowestFree);
      rlimit limit{rlim_t(lowestFree + spare), rlim_t(lowestFree + spare)};
      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::string("setrlimit failed");
      return withTreeWalk({tree.path("top")}, kPropagation, true) + "----\n" +
             withFts({tree.path("top")}, kPropagation, true);
    });
    const std::size_t cut = text.find("----\n");
    ASSERT_NE(cut, std::string::npos) << text;
    EXPECT_EQ(text.substr(0, cut), text.substr(cut + 5)) << "spare " << spare;
    EXPECT_EQ(hasVisit(text, kAny, EMFILE), spare == 0) << text;
  }
}

// A folder swapped for a link or for another folder after it was examined,
// or moved away while the walk is inside it.
TEST(TreeWalk, SwappedFoldersAreNeverEntered) {
  enum Swap { ForLink, ForForeignFolder, WhileInside };
  for (Swap swap : {ForLink, ForForeignFolder, WhileInside}) {
    SCOPED_TRACE(swap);
    test::TempTree tree("qx-walk"), outside("qx-walk");
    tree.file("top/a/mine");
    tree.folder("top/a/inner");
    tree.file("top/z");
    outside.file("elsewhere/secret");
    const std::string a = tree.path("top/a"), moved = tree.path("top/a.moved");
    bool done = false;
    auto swapper = [&](int info, const std::string& path) {
      if (done || info != FTS_D || path != (swap == WhileInside ? a + "/inner" : a)) return false;
      done = true;
      EXPECT_EQ(rename(a.c_str(), moved.c_str()), 0);
      EXPECT_EQ(swap == ForForeignFolder ? rename(outside.path("elsewhere").c_str(), a.c_str())
                                         : symlink(outside.path("elsewhere").c_str(), a.c_str()),
                0);
      return false;
    };
    std::string visits = withTreeWalk({tree.path("top")}, kPropagation, true, swapper);
    EXPECT_FALSE(has(visits, "secret")) << visits;
    EXPECT_TRUE(has(visits, "|z|")) << "the walk goes on";
    // Moved while inside, the walk finishes the folder it is in; swapped, the new one is
    // unreadable.
    EXPECT_TRUE(swap == WhileInside ? has(visits, "|mine|")
                                    : hasVisit(visits, FTS_DNR, swap == ForLink ? ENOTDIR : ENOENT))
        << visits;
  }
}

}  // namespace
}  // namespace qx
