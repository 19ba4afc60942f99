#include "client/cli/LinuxView.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <optional>

#include "model/QXAclTables.h"
#include "platform/membership/IdentityUuid.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclMembership.h"
#include "platform/xacl/PosixAclStore.h"
#include "platform/xacl/PosixMapping.h"
#include "platform/xacl/xacl.h"

namespace qxcli {

namespace {

qx::xacl::AclUuid bytesOf(const qx::UuidPtr& uuid) {
  qx::xacl::AclUuid bytes{};
  if (uuid) uuid_parse(uuid->UUIDString().c_str(), bytes.data());
  return bytes;
}

}  // namespace

LinuxView::Item LinuxView::read(const std::string& path) {
  Item item;
  errno = 0;
  qx::xacl::AclHandle acl(qx::xacl::acl_get_link_state_np(path.c_str(), &item.state));
  item.readable = item.state.examined && (acl || errno == ENOENT);
  if (!item.readable || item.state.source == qx::xacl::AclSource::None) return item;
  qx::xacl::AclUuid owner;
  qx::IdentityUuid::forUser(item.state.item.owner, owner.data());
  item.report = qx::xacl::EnforcementReport::forEntries(item.state.entries, item.state.item,
                                                        qx::xacl::AclMembership::resolve(owner));
  return item;
}

const char* LinuxView::stored(const Item& item) {
  if (item.state.source == qx::xacl::AclSource::Stored) return "current";
  return item.state.storedNotInForce ? "not in force" : "none";
}

std::vector<std::string> LinuxView::access(const Item& item) {
  return qx::xacl::PosixAclStore::text(item.state.access);
}

std::vector<std::string> LinuxView::defaults(const Item& item, bool prefixed) {
  if (!item.state.defaults) return {};
  std::vector<std::string> lines = qx::xacl::PosixAclStore::text(*item.state.defaults);
  if (prefixed) {
    for (std::string& line : lines) line = "default:" + line;
  }
  return lines;
}

std::string LinuxView::rightName(uint32_t right, bool folder) {
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (row->value == right && QXAclRowApplies(*row, folder)) return row->name;
    }
  }
  return "?";
}

Output::Json LinuxView::entryJson(const Item& item, std::size_t index) {
  Output::Json unenforced = Output::Json::array();
  if (index < item.report.size()) {
    for (const auto& u : item.report[index]) {
      unenforced.push_back({{"right", rightName(u.right, item.state.item.isFolder)},
                            {"for", qx::xacl::EnforcementReport::name(u.who)}});
    }
  }
  return {{"exact", unenforced.empty()}, {"unenforced", unenforced}};
}

std::string LinuxView::entryText(const Item& item, std::size_t index) {
  std::string text;
  if (index >= item.report.size()) return text;
  for (const auto& u : item.report[index]) {
    text += (text.empty() ? "" : ", ") + rightName(u.right, item.state.item.isFolder) + " (" +
            qx::xacl::EnforcementReport::name(u.who) + ")";
  }
  return text;
}

bool LinuxView::enforced(const Item& item, const qx::UuidPtr& identity, uint32_t right,
                         bool granted) {
  if (!item.readable) return false;
  const bool folder = item.state.item.isFolder;
  std::optional<uint16_t> bit;
  for (uint16_t b :
       {qx::xacl::PosixAcl::kRead, qx::xacl::PosixAcl::kWrite, qx::xacl::PosixAcl::kExecute}) {
    if (qx::xacl::PosixMapping::rightsOfBits(b, folder) & right) bit = b;
  }
  if (!bit) return false;
  const qx::xacl::AclIdentity who = qx::xacl::AclMembership::resolve(bytesOf(identity));
  std::optional<uint32_t> uid;
  if (who.kind == qx::xacl::AclIdentity::Kind::User) uid = who.id;
  const bool kernel = item.state.access.permits(uid, who.groups, item.state.item.owner,
                                                item.state.item.group, *bit);
  return kernel == granted;
}

}  // namespace qxcli
