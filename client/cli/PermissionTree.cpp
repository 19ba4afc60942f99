#include "client/cli/PermissionTree.h"

#include <cctype>
#include <map>

#include "client/cli/UsageError.h"
#include "model/QXAclTables.h"

namespace qxcli {

namespace {

// Lower case without spaces, dashes or underscores: "Read Data", read-data
// and read_data all become "readdata".
std::string normalized(std::string_view name) {
  std::string key;
  for (char c : name) {
    if (c == ' ' || c == '-' || c == '_') continue;
    key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return key;
}

std::vector<std::string_view> splitList(std::string_view list) {
  std::vector<std::string_view> items;
  while (!list.empty()) {
    auto comma = list.find(',');
    std::string_view item = list.substr(0, comma);
    while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
    while (!item.empty() && item.back() == ' ') item.remove_suffix(1);
    if (!item.empty()) items.push_back(item);
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  return items;
}

// Every row name of both kinds, and the short names of the text form of
// ACLs, with the permission bit each stands for.
const std::map<std::string, uint32_t>& rowNames() {
  static const std::map<std::string, uint32_t> names = [] {
    std::map<std::string, uint32_t> table;
    for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
      for (const QXAclPermRow* row = group->rows; row->name; ++row) {
        table[normalized(row->name)] = row->value;
      }
    }
    const std::pair<const char*, uint32_t> shortNames[] = {
        {"read_data", kQXAclReadData},
        {"list_directory", kQXAclReadData},
        {"list", kQXAclReadData},
        {"execute", kQXAclExecute},
        {"search", kQXAclExecute},
        {"traverse", kQXAclExecute},
        {"read_extattributes", kQXAclReadExtAttributes},
        {"read_security", kQXAclReadSecurity},
        {"add_file", kQXAclWriteData},
        {"add_subdirectory", kQXAclAppendData},
        {"delete_child", kQXAclDeleteChild},
        {"write_extattributes", kQXAclWriteExtAttributes},
        {"write_security", kQXAclWriteSecurity},
    };
    for (const auto& [name, bit] : shortNames) table[normalized(name)] = bit;
    return table;
  }();
  return names;
}

uint32_t groupRights(const QXAclPermGroup& group, bool folder) {
  uint32_t bits = 0;
  for (const QXAclPermRow* row = group.rows; row->name; ++row) {
    if (QXAclRowApplies(*row, folder)) bits |= row->value;
  }
  return bits;
}

// The bits that rows of this kind of item can hold.
uint32_t applicableRights(bool folder) {
  uint32_t bits = 0;
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    bits |= groupRights(*group, folder);
  }
  return bits;
}

// The state of an "Applies to" row for the inheritance flags.
int64_t appliesToState(uint32_t flag, uint32_t flags) {
  switch (flag) {
    case PermissionTree::kOnlyInherit:
      return (flags & PermissionTree::kOnlyInherit) ? 0 : 1;
    case PermissionTree::kLimitInherit:
      return !(flags & PermissionTree::kLimitInherit) &&
             (flags & PermissionTree::kDirectoryInherit);
    default:
      return (flags & flag) ? 1 : 0;
  }
}

}  // namespace

uint32_t PermissionTree::parseRights(std::string_view list, bool folder) {
  const char* kind = folder ? "a folder" : "a file";
  uint32_t bits = 0;
  auto items = splitList(list);
  if (items.empty()) throw UsageError("no permissions given");
  for (std::string_view item : items) {
    std::string key = normalized(item);
    if (key == "none") continue;
    if (key == "all") {
      bits |= applicableRights(folder);
      continue;
    }
    const QXAclPermGroup* named = nullptr;
    for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
      if (normalized(group->name) == key || (key == "admin" && group->rows == acl_admin_perms))
        named = group;
    }
    if (named) {
      bits |= groupRights(*named, folder);
      continue;
    }
    auto row = rowNames().find(key);
    if (row == rowNames().end()) {
      throw UsageError("unknown permission \"" + std::string(item) + "\"");
    }
    if ((row->second & applicableRights(folder)) == 0) {
      throw UsageError("permission \"" + std::string(item) + "\" does not apply to " + kind);
    }
    bits |= row->second;
  }
  return bits;
}

uint32_t PermissionTree::parseInheritance(std::string_view list) {
  static const std::map<std::string, uint32_t> names = {
      {"file", kFileInherit},           {"fileinherit", kFileInherit},
      {"files", kFileInherit},          {"dir", kDirectoryInherit},
      {"directory", kDirectoryInherit}, {"directoryinherit", kDirectoryInherit},
      {"folders", kDirectoryInherit},   {"limit", kLimitInherit},
      {"limitinherit", kLimitInherit},  {"only", kOnlyInherit},
      {"onlyinherit", kOnlyInherit},
  };
  uint32_t flags = 0;
  for (std::string_view item : splitList(list)) {
    auto flag = names.find(normalized(item));
    if (flag == names.end()) {
      throw UsageError("unknown inheritance \"" + std::string(item) +
                       "\": use file, dir, limit or only");
    }
    flags |= flag->second;
  }
  return flags;
}

std::vector<std::string> PermissionTree::grantedNames(uint32_t rights, bool folder) {
  std::vector<std::string> names;
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (QXAclRowApplies(*row, folder) && (rights & row->value)) names.push_back(row->name);
    }
  }
  return names;
}

std::string PermissionTree::summary(uint32_t rights, bool folder) {
  std::string text;
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    std::string granted;
    std::size_t on = 0, rows = 0;
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, folder)) continue;
      ++rows;
      if (!(rights & row->value)) continue;
      ++on;
      granted += (granted.empty() ? "" : ", ") + std::string(row->name);
    }
    if (on == 0) continue;
    if (on == rows) granted = "all";
    text += (text.empty() ? "" : "; ") + std::string(group->name) + ": " + granted;
  }
  return text.empty() ? "none" : text;
}

std::vector<std::string> PermissionTree::appliesTo(uint32_t flags) {
  std::vector<std::string> names;
  for (const QXAclFlagRow* row = acl_flags; row->name; ++row) {
    if (appliesToState(row->flag, flags) == 1) names.push_back(row->name);
  }
  return names;
}

}  // namespace qxcli
