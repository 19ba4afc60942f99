// The pure rules (the kernel's POSIX check, the evaluator, the mapping to POSIX ACLs, the
// translation back and the enforcement report) against hand-written expectations, then what a write
// leaves the kernel, as getfacl shows it. What qxfile shows after changes made beside it belongs to
// tests/enforcement.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "XaclTestSupport.h"
#include "platform/xacl/AccessEvaluator.h"
#include "platform/xacl/Acl.h"
#include "platform/xacl/EnforcementReport.h"
#include "platform/xacl/ItemAcl.h"
#include "platform/xacl/PosixAcl.h"
#include "platform/xacl/PosixMapping.h"
#include "tests/support/AclFixtures.h"
#include "tests/support/TempTree.h"

namespace qx::xacl {
namespace {

using qx::test::kBlocked;
using qx::test::kMember;
using qx::test::kTeam;

AclUuid user(uint32_t uid) {
  return test::uuidOf(qx::test::userUuidText(uid).c_str());
}
AclUuid group(uint32_t gid) {
  return test::uuidOf(qx::test::groupUuidText(gid).c_str());
}

ExtendedEntry allow(const AclUuid& who, uint32_t rights, uint32_t flags = 0) {
  return {ACL_EXTENDED_ALLOW, who, rights, flags};
}
ExtendedEntry deny(const AclUuid& who, uint32_t rights, uint32_t flags = 0) {
  return {ACL_EXTENDED_DENY, who, rights, flags};
}

// "u::rw-,u:1001:r-x,g::r--,m::r-x,o::---", parsed by hand for the expectations.
PosixAcl parse(const std::string& text) {
  PosixAcl acl;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    const size_t c1 = item.find(':'), c2 = item.rfind(':');
    const std::string id = item.substr(c1 + 1, c2 - c1 - 1);
    const char* rwx = item.c_str() + c2 + 1;
    const int perm = (rwx[0] == 'r') * 4 + (rwx[1] == 'w') * 2 + (rwx[2] == 'x');
    const uint16_t tag = item[0] == 'u'   ? (id.empty() ? PosixAcl::UserObj : PosixAcl::User)
                         : item[0] == 'g' ? (id.empty() ? PosixAcl::GroupObj : PosixAcl::Group)
                         : item[0] == 'm' ? PosixAcl::Mask
                                          : PosixAcl::Other;
    acl.set(tag, static_cast<uint16_t>(perm), id.empty() ? 0 : std::stoul(id));
  }
  return acl;
}

std::string text(const PosixAcl& acl) {
  std::string out;
  for (const PosixAcl::Entry& e : acl.entries()) {
    const bool named = e.tag == PosixAcl::User || e.tag == PosixAcl::Group;
    const char* tag = e.tag <= PosixAcl::User    ? "u"
                      : e.tag <= PosixAcl::Group ? "g"
                      : e.tag == PosixAcl::Mask  ? "m"
                                                 : "o";
    out += std::string(out.empty() ? "" : ",") + tag + ":" + (named ? std::to_string(e.id) : "") +
           ":" + (e.perm & 4 ? "r" : "-") + (e.perm & 2 ? "w" : "-") + (e.perm & 1 ? "x" : "-");
  }
  return out;
}

TEST(PosixCheck, KernelOrderOwnerNamedUserGroupsThenOthersMasked) {
  // Owner 1000, owning group 2000.
  const PosixAcl acl = parse("u::rw-,u:1001:rwx,g::r--,g:2001:-w-,m::r-x,o::--x");
  // uid, groups, bits wanted, granted
  const std::tuple<std::optional<uint32_t>, std::vector<uint32_t>, uint16_t, bool> rows[] = {
      {1000, {2000}, 4, true},   // the owner's own entry...
      {1000, {2000}, 1, false},  // ...decides, even where its group would grant
      {1001, {}, 4, true},       // named user, within the mask
      {1001, {}, 2, false},      // named user, masked out
      {1002, {2000}, 4, true},   // owning group
      {1002, {2001}, 2, false},  // named group, masked out
      {1002, {2001}, 1, false},  // in a named group: others' bits no longer count
      {1003, {}, 1, true},       // others
      {std::nullopt, {2000}, 4, true},
      {1002, {2000, 2001}, 6, false},  // no single group entry holds both bits
  };
  for (const auto& [uid, gids, want, granted] : rows) {
    EXPECT_EQ(acl.permits(uid, gids, 1000, 2000, want), granted)
        << (uid ? std::to_string(*uid) : "group") << " want " << want;
  }
  EXPECT_EQ(acl.modeBits(), 0641u);
  EXPECT_EQ(acl.statModeBits(), 0651u);

  // With the mask empty the kernel leaves the ACL aside and answers from the mode; a mask that
  // grants nothing through the entries keeps it to them.
  const PosixAcl unmasked = parse("u::rw-,u:1001:---,g::---,g:2001:---,m::---,o::r--");
  const PosixAcl masked = parse("u::rw-,u:1001:---,g::---,g:2001:---,m::r--,o::r--");
  // uid, groups, bits wanted, granted with the empty mask, with the mask r--
  const std::tuple<uint32_t, std::vector<uint32_t>, uint16_t, bool, bool> byMask[] = {
      {1000, {2000}, 2, true, true},    // the owner's bits either way
      {1001, {}, 4, true, false},       // a named user: the other bits, or its entry
      {1002, {2001}, 4, true, false},   // a named group's member, likewise
      {1002, {2000}, 4, false, false},  // the owning group: the mode's group bits, none
      {1003, {}, 4, true, true},        // others
  };
  for (const auto& [uid, gids, want, unmaskedGrants, maskedGrants] : byMask) {
    EXPECT_EQ(unmasked.permits(uid, gids, 1000, 2000, want), unmaskedGrants)
        << uid << " want " << want << ", empty mask";
    EXPECT_EQ(masked.permits(uid, gids, 1000, 2000, want), maskedGrants)
        << uid << " want " << want << ", mask r--";
  }
  EXPECT_EQ(masked.modeBits(), 0604u);
  EXPECT_EQ(masked.statModeBits(), 0644u);
}

TEST(Evaluator, FirstApplyingEntryDecidesThenTheMode) {
  const AclIdentity alice = AclIdentity::user(1001, {3001, 2001});  // in staff (2001)
  const AclIdentity owner = AclIdentity::user(1000, {2000});
  const ItemOwnership file{1000, 2000, 0640, false};
  const ItemOwnership folder{1000, 2000, 0776, true};
  const uint32_t otherFill = ACL_DELETE | ACL_READ_ATTRIBUTES | ACL_READ_SECURITY;
  const uint32_t ownerFill = ACL_READ_DATA | ACL_WRITE_DATA | ACL_APPEND_DATA |
                             ACL_READ_EXTATTRIBUTES | ACL_WRITE_EXTATTRIBUTES |
                             ACL_WRITE_ATTRIBUTES | ACL_WRITE_SECURITY | otherFill;
  const uint32_t search = ACL_SEARCH, attributes = ACL_READ_ATTRIBUTES;
  const uint32_t security = ACL_READ_SECURITY, changes = ACL_ADD_FILE | ACL_DELETE_CHILD;
  // clang-format off
  // name, entries, identity, item, rights granted
  const std::tuple<const char*, ExtendedEntries, AclIdentity, ItemOwnership, uint32_t> rows[] = {
      {"mode only, others", {}, alice, file, otherFill},
      {"mode only, owner", {}, owner, file, ownerFill},
      {"group deny before user allow",
       {deny(group(2001), ACL_WRITE_DATA), allow(user(1001), ACL_WRITE_DATA | ACL_EXECUTE)},
       alice, file, ACL_EXECUTE | otherFill},
      {"denied attributes take read permissions back",
       {deny(user(1001), attributes), allow(user(1001), security)}, alice, file, ACL_DELETE},
      {"denied attributes alone leave read permissions to the mode",
       {deny(user(1001), attributes)}, alice, file, ACL_DELETE | security},
      {"later deny takes an allowed read permissions back",
       {allow(user(1001), security), deny(group(2001), security)}, alice, file,
       ACL_DELETE | attributes},
      {"not once attributes were allowed",
       {allow(user(1001), security | attributes), deny(group(2001), security)}, alice, file,
       otherFill},
      {"a first deny of read permissions stays",
       {deny(group(2001), security), allow(user(1001), security)}, alice, file,
       ACL_DELETE | attributes},
      {"no changes in a folder one cannot search", {allow(user(1001), changes)}, alice, folder,
       ACL_LIST_DIRECTORY | ACL_READ_EXTATTRIBUTES | ACL_WRITE_EXTATTRIBUTES | otherFill},
      {"changes, the mode's too, in a folder one may search",
       {allow(user(1001), changes | search)}, alice, folder,
       ACL_LIST_DIRECTORY | search | changes | ACL_ADD_SUBDIRECTORY | ACL_READ_EXTATTRIBUTES |
           ACL_WRITE_EXTATTRIBUTES | otherFill},
      {"entries for a group one is not in", {deny(group(2002), ACL_DELETE)}, alice, file, otherFill},
  };
  // clang-format on
  for (const auto& [name, entries, who, item, granted] : rows) {
    AccessEvaluator::Decision d = AccessEvaluator::evaluate(entries, who, item);
    EXPECT_EQ(d.status, 0) << name;
    EXPECT_EQ(d.granted, granted) << name << std::hex << " got 0x" << d.granted;
  }
  // A user without a passwd entry cannot be placed against a group.
  AclIdentity unknown = AclIdentity::user(1999, {});
  unknown.status = ENOENT;
  EXPECT_EQ(AccessEvaluator::evaluate({}, unknown, file).status, ENOENT);
  EXPECT_EQ(AccessEvaluator::evaluate({allow(user(1999), ACL_READ_DATA)}, unknown,
                                      {1999, 2000, 0600, false})
                .status,
            0)
      << "the owner's own entry and class need no membership";
}

TEST(Mapping, NamedEntriesGetEffectiveAccessModeStays) {
  PosixMapping::Identities users;
  users[user(1001)] = AclIdentity::user(1001, {3001, 2001});
  users[user(1002)] = AclIdentity::user(1002, {2000});
  const uint32_t rw = ACL_READ_DATA | ACL_WRITE_DATA | ACL_APPEND_DATA;
  const uint32_t both = ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT;
  const ItemOwnership file0640{1000, 2000, 0640, false};
  // clang-format off
  // name, entries, item, access ACL, default ACL ("" for none)
  const std::tuple<const char*, ExtendedEntries, ItemOwnership, const char*, const char*> rows[] = {
      {"a named user", {allow(user(1001), rw)}, file0640,
       "u::rw-,u:1001:rw-,g::r--,m::rw-,o::---", ""},
      {"write needs both rights", {allow(user(1001), ACL_READ_DATA | ACL_WRITE_DATA)}, file0640,
       "u::rw-,u:1001:r--,g::r--,m::r--,o::---", ""},
      {"a group deny reaches the user; the group gets its own",
       {deny(group(2001), ACL_WRITE_DATA), allow(user(1001), ACL_WRITE_DATA | ACL_APPEND_DATA)},
       file0640, "u::rw-,u:1001:---,g::r--,g:2001:---,m::r--,o::---", ""},
      {"an earlier deny for another group is taken off a group",
       {deny(group(2001), ACL_READ_DATA), allow(group(2000), rw)}, {1000, 2000, 0600, false},
       "u::rw-,g::---,g:2000:-w-,g:2001:---,m::-w-,o::---", ""},
      {"the owner named: its mode bits stay", {deny(user(1000), ACL_WRITE_DATA)}, file0640,
       "u::rw-,u:1000:r--,g::r--,m::r--,o::---", ""},
      {"a folder's default ACL from what files and folders both inherit",
       {allow(user(1001), ACL_LIST_DIRECTORY | ACL_SEARCH, both),
        allow(user(1002), ACL_LIST_DIRECTORY, ACL_ENTRY_FILE_INHERIT),
        deny(group(2001), ACL_SEARCH, ACL_ENTRY_DIRECTORY_INHERIT)}, {1000, 2000, 0750, true},
       "u::rwx,u:1001:r-x,u:1002:r-x,g::r-x,g:2001:---,m::r-x,o::---",
       "u::rwx,u:1001:r-x,g::r-x,g:2001:---,m::r-x,o::---"},
      {"a group's entry takes from the mode only what the owning group and others share",
       {allow(group(2001), ACL_READ_DATA)}, {1000, 2000, 0601, false},
       "u::rw-,g::---,g:2001:r--,m::r--,o::--x", ""},
      {"a group's denial leaves it neither the others' w nor the owning group's r",
       {deny(group(2001), ACL_EXECUTE)}, {1000, 2000, 0653, false},
       "u::rw-,g::r-x,g:2001:---,m::r-x,o::-wx", ""},
      {"nothing granted through the entries: the mask is r--, never empty",
       {deny(user(1001), ACL_READ_DATA), deny(group(2001), ACL_READ_DATA)},
       {1000, 2000, 0604, false}, "u::rw-,u:1001:---,g::---,g:2001:---,m::r--,o::r--", ""},
      {"the same for a folder's default ACL", {deny(user(1001), ACL_LIST_DIRECTORY, both)},
       {1000, 2000, 0704, true}, "u::rwx,u:1001:---,g::---,m::r--,o::r--",
       "u::rwx,u:1001:---,g::---,m::r--,o::r--"},
      {"no entries: the mode alone", {}, {1000, 2000, 0754, true}, "u::rwx,g::r-x,o::r--", ""},
  };
  // clang-format on
  for (const auto& [name, entries, item, access, defaults] : rows) {
    PosixMapping::Enforced enforced = PosixMapping::enforce(entries, item, users);
    EXPECT_EQ(text(enforced.access), access) << name;
    EXPECT_EQ(enforced.defaults ? text(*enforced.defaults) : "", defaults) << name;
  }
}

TEST(Mapping, TranslationMasksNamedEntriesIntoAllowEntries) {
  const PosixAcl access = parse("u::rw-,u:1001:rwx,g::r--,g:2001:r-x,m::r-x,o::---");
  const PosixAcl defaults = parse("u::rwx,u:1002:rw-,g::r-x,m::rwx,o::---");
  const ExtendedEntries expected = {
      allow(user(1001), 0xA8A),         // r and x: data, attributes, extended attributes,
      allow(group(2001), 0xA8A),        // permissions, execute
      allow(user(1002), 0xFE6, 0x160),  // r and w on a folder, inherited by both, only
  };
  EXPECT_EQ(PosixMapping::translate(access, defaults, true), expected);
  const ExtendedEntries fileExpected = {allow(user(1001), 0xA8A), allow(group(2001), 0xA8A)};
  EXPECT_EQ(PosixMapping::translate(access, std::nullopt, false), fileExpected);
  const ExtendedEntries writer = {allow(user(1001), 0x524)};  // w on a file
  EXPECT_EQ(PosixMapping::translate(parse("u::rw-,u:1001:-w-,g::---,m::rw-,o::---"), {}, false),
            writer);
}

TEST(EnforcementReport, MarksRightsWithoutBitsPartBitsAndDenialsTheModeGrants) {
  using R = EnforcementReport::Unenforced;
  using F = EnforcementReport::For;
  const ExtendedEntries entries = {deny(group(2001), ACL_READ_DATA | ACL_DELETE),
                                   allow(user(1001), ACL_WRITE_DATA),
                                   deny(user(1000), ACL_READ_DATA | ACL_EXECUTE),
                                   allow(user(1001), ACL_READ_DATA | ACL_EXECUTE)};
  const auto report = EnforcementReport::forEntries(entries, {1000, 2000, 0640, false},
                                                    AclIdentity::user(1000, {2000}));
  const std::vector<std::vector<R>> expected = {
      {{ACL_DELETE, F::NoPosixBit}, {ACL_READ_DATA, F::OwningGroup}},
      {{ACL_WRITE_DATA, F::Partly}},
      {{ACL_READ_DATA, F::Owner}},  // the owner has no x to take away
      {},
  };
  EXPECT_EQ(report, expected);
}

// Runs a command and gives its output; "failed" when it does not succeed.
std::string run(const std::string& command) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return "failed";
  std::string out;
  char buffer[256];
  while (fgets(buffer, sizeof buffer, pipe)) out += buffer;
  return pclose(pipe) == 0 ? out : "failed: " + out;
}

std::string getfacl(const std::string& path) {
  return run("getfacl -cnEp '" + path + "'");
}

int write(const std::string& path, const ExtendedEntries& entries) {
  AclHandle acl(acl_init(0));
  acl.get()->assign(entries);
  return acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, acl.get()) == 0 ? 0 : errno;
}

AclState stateOf(const std::string& path) {
  AclState state;
  AclHandle acl(acl_get_link_state_np(path.c_str(), &state));
  return state;
}

// The mode bits the item's POSIX ACL gives, then st_mode's, which show the mask.
std::string modes(const std::string& path) {
  struct stat st {};
  mode_t bits = 0;
  if (lstat(path.c_str(), &st) != 0 || ItemAcl::modeBits(path.c_str(), st, &bits) != 0) return "?";
  char text[32];
  std::snprintf(text, sizeof text, "%04o st_mode %04o", bits, st.st_mode & 0777);
  return text;
}

class AclLayers : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to own items as the test users";
    if (run("getfacl --version").rfind("failed", 0) == 0) GTEST_SKIP() << "needs getfacl";
  }
  std::string item(const std::string& name, mode_t mode, bool folder = false) {
    const std::string path = tree_.path(name);
    folder ? tree_.folder(name) : tree_.file(name);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  qx::test::TempTree tree_{"qx-layers"};
};

TEST_F(AclLayers, WritesLeaveTheKernelTheEnforcingAclAndReadBackStored) {
  const uint32_t rw = ACL_READ_DATA | ACL_WRITE_DATA | ACL_APPEND_DATA;
  const uint32_t inherit = ACL_ENTRY_FILE_INHERIT | ACL_ENTRY_DIRECTORY_INHERIT;
  // clang-format off
  // name, folder, mode, entries, what getfacl shows
  const std::tuple<const char*, bool, mode_t, ExtendedEntries, std::string> rows[] = {
      {"user", false, 0640, {allow(user(kMember), rw)},
       "user::rw-\nuser:2102:rw-\ngroup::r--\nmask::rw-\nother::---\n\n"},
      // qxblocked is in qxteam: the deny comes first; qxteam's own entry loses w.
      {"team denied, a member allowed", false, 0664,
       {deny(group(kTeam), ACL_WRITE_DATA), allow(user(kBlocked), ACL_WRITE_DATA | ACL_APPEND_DATA)},
       "user::rw-\nuser:2105:r--\ngroup::rw-\ngroup:3110:r--\nmask::rw-\nother::r--\n\n"},
      {"folder", true, 0750, {allow(user(kMember), ACL_LIST_DIRECTORY | ACL_SEARCH, inherit)},
       "user::rwx\nuser:2102:r-x\ngroup::r-x\nmask::r-x\nother::---\ndefault:user::rwx\n"
       "default:user:2102:r-x\ndefault:group::r-x\ndefault:mask::r-x\ndefault:other::---\n\n"},
  };
  // clang-format on
  for (const auto& [name, folder, mode, entries, shown] : rows) {
    const std::string path = item(name, mode, folder);
    ASSERT_EQ(write(path, entries), 0) << name;
    EXPECT_EQ(getfacl(path), shown) << name;
    AclState state = stateOf(path);
    EXPECT_EQ(std::tie(state.source, state.entries, state.item.mode),
              std::tuple(AclSource::Stored, entries, mode))
        << name << ": stored, read back, the mode kept";
    ASSERT_EQ(write(path, {}), 0);
    EXPECT_EQ(stateOf(path).source, AclSource::None) << name << ": emptied";
    EXPECT_EQ(lgetxattr(path.c_str(), ItemAcl::kPosixAccess, nullptr, 0), -1);
    EXPECT_EQ(lgetxattr(path.c_str(), kAclAttributeName, nullptr, 0), -1);
  }
}

TEST_F(AclLayers, ModeWritesKeepTheGroupEntryApartFromTheMask) {
  const std::string path = item("f", 0640);
  ASSERT_EQ(write(path, {{ACL_EXTENDED_ALLOW, user(kMember),
                          ACL_READ_DATA | ACL_WRITE_DATA | ACL_APPEND_DATA | ACL_EXECUTE, 0}}),
            0);
  EXPECT_EQ(modes(path), "0640 st_mode 0670");
  ASSERT_EQ(ItemAcl::setModeBits(path.c_str(), 0750), 0);
  EXPECT_EQ(getfacl(path), "user::rwx\nuser:2102:rwx\ngroup::r-x\nmask::rwx\nother::---\n\n");
  EXPECT_EQ(modes(path), "0750 st_mode 0770");
  EXPECT_EQ(stateOf(path).source, AclSource::Stored) << "what the stored ACL maps to with 0750";

  // An ACL that grants nothing through its entries keeps a mask of r--: an empty one would leave
  // alice the other bits. st_mode shows it; the group's bits stay the entry's.
  const std::string closed = item("closed", 0604);
  ASSERT_EQ(write(closed, {{ACL_EXTENDED_DENY, user(kMember), ACL_READ_DATA, 0}}), 0);
  EXPECT_EQ(getfacl(closed), "user::rw-\nuser:2102:---\ngroup::---\nmask::r--\nother::r--\n\n");
  EXPECT_EQ(modes(closed), "0604 st_mode 0644");
  ASSERT_EQ(ItemAcl::setModeBits(closed.c_str(), 0600), 0);
  EXPECT_EQ(getfacl(closed), "user::rw-\nuser:2102:---\ngroup::---\nmask::r--\nother::---\n\n");
  EXPECT_EQ(stateOf(closed).source, AclSource::Stored);
}

}  // namespace
}  // namespace qx::xacl
