#include "client/cli/AclCommand.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <functional>

#include "client/cli/ExitCode.h"
#include "client/cli/Identity.h"
#include "client/cli/LinuxView.h"
#include "client/cli/PermissionTree.h"
#include "client/cli/Session.h"
#include "client/cli/UsageError.h"
#include "client/lib/QXFileClientSync.h"

namespace qxcli {

namespace {

constexpr int32_t kAllow = 1;
constexpr int32_t kDeny = 2;

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::string octal(unsigned mode) {
  char text[8];
  std::snprintf(text, sizeof text, "0%03o", mode & 0777);
  return text;
}

const char* tagName(int32_t tag) {
  return tag == kAllow ? "allow" : tag == kDeny ? "deny" : "undefined";
}

int32_t parseTag(const std::string& text) {
  if (text == "allow") return kAllow;
  if (text == "deny") return kDeny;
  throw UsageError("\"" + text + "\" is neither allow nor deny");
}

unsigned parseMode(const std::string& text) {
  unsigned mode = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mode, 8);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || mode > 0777) {
    throw UsageError("\"" + text + "\" is not a mode: give octal permission bits, 000 to 777");
  }
  return mode;
}

std::optional<std::size_t> parsePosition(const std::string& text) {
  std::size_t position = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), position);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return position;
}

// What Linux enforces, under the entries: the POSIX ACL in getfacl's words and the entries it
// cannot enforce exactly.
void printLinux(const LinuxView::Item& view, std::size_t entries) {
  if (!view.readable) return;
  if (view.state.storedNotInForce) {
    std::printf(
        "stored ACL: present but not in force (the entries above are what Linux "
        "enforces)\n");
  }
  std::printf("Linux enforces:\n");
  for (const std::string& line : LinuxView::access(view)) std::printf("  %s\n", line.c_str());
  for (const std::string& line : LinuxView::defaults(view, true)) {
    std::printf("  %s\n", line.c_str());
  }
  for (std::size_t i = 0; i < entries; ++i) {
    const std::string text = LinuxView::entryText(view, i);
    if (!text.empty()) std::printf("  entry %zu not enforced exactly: %s\n", i, text.c_str());
  }
}

// Reads the item's entries, lets `change` edit them, writes them back and
// shows what the item has now. `change` is null for `show`.
int edit(const AclCommand::Options& options, const std::function<void(EntryList&)>& change) {
  auto url = Session::urlFor(options.path);
  std::string path = url->path();
  QXFileClient client;
  if (!Session::connect(client, options.json)) return kExitFailed;
  QXFileClientSync sync(client);
  qx::ErrorPtr error;
  auto entries = sync.getAclEntriesWithUrl(url, &error);
  if (!entries || error) return Session::fail(error, options.json, {{"path", path}});
  std::string problem;
  auto list = EntryList::fromArray(entries, &problem);
  if (!list) return Session::fail(problem, options.json);

  if (change) {
    change(*list);
    if (!sync.setAclEntries(list->toArray(), url, &error)) {
      return Session::fail(error, options.json, {{"path", path}});
    }
    entries = sync.getAclEntriesWithUrl(url, &error);
    if (!entries || error) return Session::fail(error, options.json, {{"path", path}});
    list = EntryList::fromArray(entries, &problem);
    if (!list) return Session::fail(problem, options.json);
  }
  const LinuxView::Item view = LinuxView::read(path);
  if (options.json) {
    Output::Json json = AclCommand::toJson(path, *list);
    json["stored"] = LinuxView::stored(view);
    json["posix"] = {{"access", LinuxView::access(view)},
                     {"default", LinuxView::defaults(view, false)}};
    for (std::size_t i = 0; i < json["acl"].size(); ++i) {
      json["acl"][i]["linux"] = LinuxView::entryJson(view, i);
    }
    Output::printJson(json);
  } else {
    AclCommand::print(path, *list);
    printLinux(view, list->acl().size());
  }
  return kExitOk;
}

Output::Json entryJson(std::size_t index, const QXAclEntry& entry) {
  Output::Json json;
  json["index"] = index;
  json["tag"] = tagName(entry.tag());
  json["identity"] = Identity::fromUuid(entry.uuid()).toJson();
  json["permissions"] = PermissionTree::grantedNames(entry);
  json["rights"] = PermissionTree::rights(entry);
  json["appliesTo"] = PermissionTree::appliesTo(entry);
  json["flags"] = PermissionTree::inheritance(entry);
  json["inherited"] = entry.inherited();
  return json;
}

}  // namespace

void AclCommand::print(const std::string& path, const EntryList& entries) {
  unsigned mode = entries.mode();
  std::printf("%s (%s)\n", path.c_str(), entries.folder() ? "folder" : "file");
  std::printf("owner: %s\n", Identity::fromUuid(entries.owner()->uuid()).label().c_str());
  std::printf("group: %s\n", Identity::fromUuid(entries.group()->uuid()).label().c_str());
  std::printf("mode:  %s (%s)\n", octal(mode).c_str(), EntryList::modeString(mode).c_str());
  if (entries.acl().empty()) {
    std::printf("ACL:   no entries\n");
    return;
  }
  std::printf("ACL:\n");
  std::size_t width = 0;
  for (const auto& entry : entries.acl()) {
    width = std::max(width, Identity::fromUuid(entry->uuid()).label().size());
  }
  for (std::size_t i = 0; i < entries.acl().size(); ++i) {
    const QXAclEntry& entry = *entries.acl()[i];
    std::printf("  %zu: %-5s %-*s  %s%s\n", i, tagName(entry.tag()), static_cast<int>(width),
                Identity::fromUuid(entry.uuid()).label().c_str(),
                PermissionTree::summary(entry).c_str(), entry.inherited() ? "  [inherited]" : "");
    if (PermissionTree::hasFolderShape(entry)) {
      auto appliesTo = PermissionTree::appliesTo(entry);
      std::printf("     applies to: %s\n",
                  appliesTo.empty() ? "nothing" : joined(appliesTo).c_str());
    }
  }
}

Output::Json AclCommand::toJson(const std::string& path, const EntryList& entries) {
  Output::Json json;
  json["path"] = path;
  json["kind"] = entries.folder() ? "folder" : "file";
  json["owner"] = Identity::fromUuid(entries.owner()->uuid()).toJson();
  json["group"] = Identity::fromUuid(entries.group()->uuid()).toJson();
  json["mode"] = octal(entries.mode());
  json["acl"] = Output::Json::array();
  for (std::size_t i = 0; i < entries.acl().size(); ++i) {
    json["acl"].push_back(entryJson(i, *entries.acl()[i]));
  }
  return json;
}

int AclCommand::show(const Options& options) {
  return edit(options, nullptr);
}

int AclCommand::add(const Options& options) {
  // Everything that needs no look at the item is checked before the service is asked.
  int32_t tag = parseTag(options.tag);
  Identity identity = Identity::parse(options.identity, Identity::Kind::User);
  uint32_t flags = PermissionTree::parseInheritance(options.inherit);
  PermissionTree::parseRights(options.rights, true);
  if (options.at && *options.at < 0) throw UsageError("--at takes a position from 0");
  return edit(options, [&](EntryList& entries) {
    uint32_t rights = PermissionTree::parseRights(options.rights, entries.folder());
    if (!entries.folder() && !options.inherit.empty()) {
      throw UsageError("--inherit applies to folders only; " + options.path + " is a file");
    }
    std::size_t at = options.at ? static_cast<std::size_t>(*options.at) : entries.acl().size();
    if (at > entries.acl().size()) {
      throw UsageError("--at " + std::to_string(at) + " is past the end: the item has " +
                       std::to_string(entries.acl().size()) + " ACL entries");
    }
    auto entry = QXAclEntry::make(identity.uuid(), tag,
                                  PermissionTree::make(rights, flags, entries.folder()), false);
    entries.acl().insert(entries.acl().begin() + static_cast<std::ptrdiff_t>(at), entry);
  });
}

int AclCommand::remove(const Options& options) {
  auto position = parsePosition(options.value);
  std::optional<Identity> identity;
  if (!position) identity = Identity::parse(options.value, Identity::Kind::User);
  return edit(options, [&](EntryList& entries) {
    auto& acl = entries.acl();
    if (position) {
      if (*position >= acl.size()) {
        throw UsageError("no ACL entry " + std::to_string(*position) + ": the item has " +
                         std::to_string(acl.size()));
      }
      acl.erase(acl.begin() + static_cast<std::ptrdiff_t>(*position));
      return;
    }
    auto end = std::remove_if(acl.begin(), acl.end(), [&](const QXAclEntryPtr& entry) {
      return qx::isEqual(entry->uuid(), identity->uuid());
    });
    if (end == acl.end()) throw UsageError("no ACL entry for " + identity->label());
    acl.erase(end, acl.end());
  });
}

int AclCommand::owner(const Options& options) {
  Identity identity = Identity::parse(options.value, Identity::Kind::User);
  if (identity.kind() != Identity::Kind::User) {
    throw UsageError("the owner must be a user, not " + identity.label());
  }
  return edit(options, [&](EntryList& entries) { entries.owner()->setUuid(identity.uuid()); });
}

int AclCommand::group(const Options& options) {
  Identity identity = Identity::parse(options.value, Identity::Kind::Group);
  if (identity.kind() != Identity::Kind::Group) {
    throw UsageError("the group must be a group, not " + identity.label());
  }
  return edit(options, [&](EntryList& entries) { entries.group()->setUuid(identity.uuid()); });
}

int AclCommand::mode(const Options& options) {
  unsigned mode = parseMode(options.value);
  return edit(options, [&](EntryList& entries) { entries.setMode(mode); });
}

}  // namespace qxcli
