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
#include "qxfile/BlockingClient.h"

namespace qxcli {

namespace {

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

const char* tagName(bool deny) {
  return deny ? "deny" : "allow";
}

// True for deny.
bool parseTag(const std::string& text) {
  if (text == "allow") return false;
  if (text == "deny") return true;
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
int edit(const AclCommand::Options& options,
         const std::function<void(qxfile::AclListing&)>& change) {
  std::string path = Session::absolute(options.path);
  qxfile::Client client;
  if (!Session::connect(client, options.json)) return kExitFailed;
  qxfile::BlockingClient blocking(client);
  std::optional<qxfile::Error> error;
  auto listing = blocking.getAcl(path, &error);
  if (error) return Session::fail(error, options.json, {{"path", path}});
  if (change) {
    change(listing);
    if (!blocking.setAcl(path, listing, &error)) {
      return Session::fail(error, options.json, {{"path", path}});
    }
    listing = blocking.getAcl(path, &error);
    if (error) return Session::fail(error, options.json, {{"path", path}});
  }
  const LinuxView::Item view = LinuxView::read(path);
  if (options.json) {
    Output::Json json = AclCommand::toJson(path, listing);
    json["stored"] = LinuxView::stored(view);
    json["posix"] = {{"access", LinuxView::access(view)},
                     {"default", LinuxView::defaults(view, false)}};
    for (std::size_t i = 0; i < json["acl"].size(); ++i) {
      json["acl"][i]["linux"] = LinuxView::entryJson(view, i);
    }
    Output::printJson(json);
  } else {
    AclCommand::print(path, listing);
    printLinux(view, listing.acl.size());
  }
  return kExitOk;
}

Output::Json entryJson(std::size_t index, const qxfile::AclEntry& entry, bool folder) {
  Output::Json json;
  json["index"] = index;
  json["tag"] = tagName(entry.deny);
  json["identity"] = Identity::fromRecord(entry.identity).toJson();
  json["permissions"] = PermissionTree::grantedNames(entry.rights, folder);
  json["rights"] = entry.rights;
  json["appliesTo"] =
      folder ? PermissionTree::appliesTo(entry.inheritance) : std::vector<std::string>();
  json["flags"] = entry.inheritance;
  json["inherited"] = entry.inherited;
  return json;
}

}  // namespace

void AclCommand::print(const std::string& path, const qxfile::AclListing& listing) {
  unsigned mode = listing.mode();
  std::printf("%s (%s)\n", path.c_str(), listing.folder ? "folder" : "file");
  std::printf("owner: %s\n", Identity::fromRecord(listing.owner.identity).label().c_str());
  std::printf("group: %s\n", Identity::fromRecord(listing.group.identity).label().c_str());
  std::printf("mode:  %s (%s)\n", octal(mode).c_str(), modeString(mode).c_str());
  if (listing.acl.empty()) {
    std::printf("ACL:   no entries\n");
    return;
  }
  std::printf("ACL:\n");
  std::size_t width = 0;
  for (const auto& entry : listing.acl) {
    width = std::max(width, Identity::fromRecord(entry.identity).label().size());
  }
  for (std::size_t i = 0; i < listing.acl.size(); ++i) {
    const qxfile::AclEntry& entry = listing.acl[i];
    std::printf("  %zu: %-5s %-*s  %s%s\n", i, tagName(entry.deny), static_cast<int>(width),
                Identity::fromRecord(entry.identity).label().c_str(),
                PermissionTree::summary(entry.rights, listing.folder).c_str(),
                entry.inherited ? "  [inherited]" : "");
    if (listing.folder) {
      auto appliesTo = PermissionTree::appliesTo(entry.inheritance);
      std::printf("     applies to: %s\n",
                  appliesTo.empty() ? "nothing" : joined(appliesTo).c_str());
    }
  }
}

Output::Json AclCommand::toJson(const std::string& path, const qxfile::AclListing& listing) {
  Output::Json json;
  json["path"] = path;
  json["kind"] = listing.folder ? "folder" : "file";
  json["owner"] = Identity::fromRecord(listing.owner.identity).toJson();
  json["group"] = Identity::fromRecord(listing.group.identity).toJson();
  json["mode"] = octal(listing.mode());
  json["acl"] = Output::Json::array();
  for (std::size_t i = 0; i < listing.acl.size(); ++i) {
    json["acl"].push_back(entryJson(i, listing.acl[i], listing.folder));
  }
  return json;
}

std::string AclCommand::modeString(unsigned mode) {
  std::string text = "rwxrwxrwx";
  for (int i = 0; i < 9; ++i) {
    if (!(mode & (0400u >> i))) text[i] = '-';
  }
  return text;
}

int AclCommand::show(const Options& options) {
  return edit(options, nullptr);
}

int AclCommand::add(const Options& options) {
  // Everything that needs no look at the item is checked before the service is asked.
  bool deny = parseTag(options.tag);
  Identity identity = Identity::parse(options.identity, Identity::Kind::User);
  uint32_t flags = PermissionTree::parseInheritance(options.inherit);
  PermissionTree::parseRights(options.rights, true);
  if (options.at && *options.at < 0) throw UsageError("--at takes a position from 0");
  return edit(options, [&](qxfile::AclListing& listing) {
    uint32_t rights = PermissionTree::parseRights(options.rights, listing.folder);
    if (!listing.folder && !options.inherit.empty()) {
      throw UsageError("--inherit applies to folders only; " + options.path + " is a file");
    }
    auto& acl = listing.acl;
    std::size_t at = options.at ? static_cast<std::size_t>(*options.at) : acl.size();
    if (at > acl.size()) {
      throw UsageError("--at " + std::to_string(at) + " is past the end: the item has " +
                       std::to_string(acl.size()) + " ACL entries");
    }
    qxfile::AclEntry entry{identity.record(), deny, false, rights, listing.folder ? flags : 0};
    acl.insert(acl.begin() + static_cast<std::ptrdiff_t>(at), entry);
  });
}

int AclCommand::remove(const Options& options) {
  auto position = parsePosition(options.value);
  std::optional<Identity> identity;
  if (!position) identity = Identity::parse(options.value, Identity::Kind::User);
  return edit(options, [&](qxfile::AclListing& listing) {
    auto& acl = listing.acl;
    if (position) {
      if (*position >= acl.size()) {
        throw UsageError("no ACL entry " + std::to_string(*position) + ": the item has " +
                         std::to_string(acl.size()));
      }
      acl.erase(acl.begin() + static_cast<std::ptrdiff_t>(*position));
      return;
    }
    const std::string uuid = identity->record().uuid;
    auto end = std::remove_if(acl.begin(), acl.end(), [&](const qxfile::AclEntry& entry) {
      return entry.identity.uuid == uuid;
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
  return edit(options,
              [&](qxfile::AclListing& listing) { listing.owner.identity = identity.record(); });
}

int AclCommand::group(const Options& options) {
  Identity identity = Identity::parse(options.value, Identity::Kind::Group);
  if (identity.kind() != Identity::Kind::Group) {
    throw UsageError("the group must be a group, not " + identity.label());
  }
  return edit(options,
              [&](qxfile::AclListing& listing) { listing.group.identity = identity.record(); });
}

int AclCommand::mode(const Options& options) {
  unsigned mode = parseMode(options.value);
  return edit(options, [&](qxfile::AclListing& listing) {
    listing.owner.bits = mode >> 6 & 7;
    listing.group.bits = mode >> 3 & 7;
    listing.everyone.bits = mode & 7;
  });
}

}  // namespace qxcli
