// Writes the seed corpora of the message and frame-reader fuzzers:
//   message_corpus MESSAGE_FOLDER FRAME_FOLDER
// The message seeds are real payloads of the messages that cross a service
// connection: every request and callback with realistic arguments, their
// replies, a refusal, and a few invocations the receiver refuses. The frame
// seeds are byte streams of such payloads in frames, behind the one byte
// that tells the fuzzer how to cut them.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/FuzzArgumentSets.h"
#include "model/ModelClasses.h"
#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXAclTables.h"
#include "model/QXFileSizeItem.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcFrame.h"

using namespace qx;

namespace {

QXTreeNodePtr node(const char* name, uint32_t permission, int64_t state) {
  return QXTreeNode::treeNodeWithRepresentedObject(QXAclPermission::make(name, permission, state));
}

// The "Read", "Write" and "Administration" groups of a folder entry, with
// their rows, and the "Applies to" node.
ArrayPtr permissionTree(uint32_t granted) {
  std::vector<ObjectPtr> groups;
  for (const QXAclPermGroup* group = acl_perms; group->name; ++group) {
    auto groupNode = node(group->name, kQXGroupNodePermission, -1);
    for (const QXAclPermRow* row = group->rows; row->name; ++row) {
      if (!QXAclRowApplies(*row, true)) continue;
      groupNode->mutableChildNodes().addObject(
          node(row->name, row->value, (granted & row->value) != 0 ? 1 : 0));
    }
    groups.push_back(groupNode);
  }
  auto appliesTo = node("Applies to", kQXAppliesToPermission, -1);
  for (const QXAclFlagRow* row = acl_flags; row->name; ++row) {
    appliesTo->mutableChildNodes().addObject(node(row->name, row->flag, row->flag == 0x20));
  }
  groups.push_back(appliesTo);
  return Array::make(std::move(groups));
}

ArrayPtr posixTree(bool read, bool write, bool traverse) {
  return Array::make({node("Read", 0x80, read), node("Write", 0x100, write),
                      node("Traverse Folder", 0x1000, traverse)});
}

// An entries array as the service answers it and as the client sends it back.
ArrayPtr entries() {
  auto alice = Uuid::withString("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000003E8");
  auto staff = Uuid::withString("ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000032");
  return Array::make({str("ACL"),
                      QXAclEntry::make(alice, 1, permissionTree(0x2 | 0x8 | 0x80), false),
                      QXAclEntry::make(staff, 2, permissionTree(0x10 | 0x40), true), str("POSIX"),
                      QXAclEntry::make(alice, 1, posixTree(true, true, true), false),
                      QXAclEntry::make(staff, 1, posixTree(true, false, true), false),
                      QXAclEntry::make(nullptr, 1, posixTree(false, false, false), false)});
}

// The access answer: the three groups with 0/1 leaves.
ArrayPtr access() {
  std::vector<ObjectPtr> groups;
  auto tree = permissionTree(0x2 | 0x4);
  for (std::size_t i = 0; i + 1 < tree->count(); ++i) groups.push_back(tree->objectAtIndex(i));
  return Array::make(std::move(groups));
}

ArrayPtr sizeRecords(uint64_t first, int count) {
  std::vector<ObjectPtr> records;
  for (int i = 0; i < count; ++i) {
    auto item = QXFileSizeItem::make(4096 * (i + 1));
    item->setBusy(i % 2 == 0);
    records.push_back(Dictionary::withStringKeys(
        {{"QXIndexPath", IndexPath::make({first, static_cast<uint64_t>(i)})},
         {"QXFileSizeItem", item}}));
  }
  return Array::make(std::move(records));
}

ErrorPtr failure() {
  return Error::errorWithDomain(
      kCocoaErrorDomain, 513,
      Dictionary::withStringKeys(
          {{kLocalizedDescriptionKey, str("You don\u2019t have permission.")},
           {"NSURL", Url::fileURLWithPath("/home/alice/shared")},
           {"NSUnderlyingError", Error::errorWithDomain(kPOSIXErrorDomain, 13)}}));
}

std::vector<std::pair<std::string, XpcMessage>> messages() {
  auto folder = Url::fileURLWithPath("/home/alice/Documents/");
  auto file = Url::fileURLWithPath("/home/alice/Documents/report 2024.txt");
  auto reference = std::make_shared<FileReferenceUrl>(2049, 131075, "/home/alice/Documents/a.txt");
  auto reply = [](std::string_view selector, std::vector<ObjectPtr> arguments) {
    return XpcMessage::reply(FuzzArgumentSets::replyToFor(selector), std::move(arguments));
  };
  return {
      {"get-acl-entries", XpcMessage::invocation("getAclEntriesWithUrl:reply:", {folder}, 1)},
      {"get-acl-access",
       XpcMessage::invocation("getAclAccessWithUrl:uuid:reply:",
                              {file, Uuid::withString("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000003E8")}, 2)},
      {"set-acl-entries", XpcMessage::invocation("setAclEntries:url:reply:", {entries(), file}, 3)},
      {"propagate-acl-entries",
       XpcMessage::invocation("propagateAclEntries:url:reply:", {entries(), folder}, 4)},
      {"rename-urls",
       XpcMessage::invocation(
           "renameUrls:names:reply:",
           {Array::make({file, reference}), Array::make({str("b.txt"), str("c")})}, 5)},
      {"get-sizes",
       XpcMessage::invocation("getSizesWithUrls:reply:", {Array::make({folder, reference})}, 6)},
      {"get-contents", XpcMessage::invocation("getContentsOfDirectory:indexPath:reply:",
                                              {folder, IndexPath::make({0, 2})}, 7)},
      {"no-reply-expected", XpcMessage::invocation("getAclEntriesWithUrl:reply:", {file}, 0)},
      {"nil-arguments", XpcMessage::invocation("setAclEntries:url:reply:", {nullptr, nullptr}, 8)},
      {"unknown-selector", XpcMessage::invocation("frobnicate:", {str("x")}, 9)},
      {"wrong-argument-count",
       XpcMessage::invocation("getContentsOfDirectory:indexPath:reply:", {folder}, 10)},
      {"refused-class", XpcMessage::invocation("getSizesWithUrls:reply:",
                                               {Array::make({Number::numberWithInteger(1)})}, 11)},
      {"progress", XpcMessage::invocation("progressWithReply:", {}, 12)},
      {"update-file-sizes",
       XpcMessage::invocation("updateFileSizes:reply:", {sizeRecords(0, 5)}, 13)},
      {"reply-entries", reply("getAclEntriesWithUrl:reply:", {entries(), nullptr})},
      {"reply-access", reply("getAclAccessWithUrl:uuid:reply:", {access(), nullptr})},
      {"reply-error", reply("setAclEntries:url:reply:", {failure()})},
      {"reply-rename",
       reply("renameUrls:names:reply:", {Array::make({Url::fileURLWithPath("/home/alice/b.txt")}),
                                         Array::make({str("a.txt")}), nullptr})},
      {"reply-sizes", reply("getSizesWithUrls:reply:", {sizeRecords(1, 3), nullptr})},
      {"reply-contents",
       reply("getContentsOfDirectory:indexPath:reply:",
             {Array::make({Array::make({reference}), Array::make({})}), failure()})},
      {"reply-progress", reply("progressWithReply:", {Number::numberWithBool(true)})},
      {"reply-update", reply("updateFileSizes:reply:", {Number::numberWithBool(false)})},
      {"reply-nothing-pending", XpcMessage::reply(10, {Number::numberWithBool(true)})},
      {"refusal", XpcMessage::refusal(9, "unknown selector \"frobnicate:\"")},
  };
}

void write(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

void appendFrame(std::vector<uint8_t>& stream, const std::vector<uint8_t>& payload) {
  auto frame = XpcFrame::encode(payload);
  stream.insert(stream.end(), frame.begin(), frame.end());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s MESSAGE_FOLDER FRAME_FOLDER\n", argv[0]);
    return 2;
  }
  registerModelClasses();
  const std::filesystem::path messageFolder = argv[1];
  const std::filesystem::path frameFolder = argv[2];
  std::filesystem::create_directories(messageFolder);
  std::filesystem::create_directories(frameFolder);

  std::vector<std::vector<uint8_t>> payloads;
  for (const auto& [name, message] : messages()) {
    std::vector<uint8_t> payload = message.encode();
    if (payload.empty()) {
      std::fprintf(stderr, "cannot encode %s\n", name.c_str());
      return 1;
    }
    write(messageFolder / (name + ".bplist"), payload);
    payloads.push_back(std::move(payload));
  }

  // Frame streams: the first byte picks the fuzzer's cuts.
  std::vector<uint8_t> one{0};
  appendFrame(one, payloads[0]);
  write(frameFolder / "one-frame", one);
  std::vector<uint8_t> several{7};
  for (const auto& payload : payloads) {
    if (payload.size() < 2048) appendFrame(several, payload);
  }
  appendFrame(several, {});
  write(frameFolder / "small-messages-and-an-empty-frame", several);
  // More than 64 KiB of small frames, so that consumed bytes are dropped from
  // the reader's buffer on the way, and a partial frame at the end.
  std::vector<uint8_t> many{200};
  while (many.size() < 80000) appendFrame(many, payloads.back());
  many.insert(many.end(), {0, 0, 1, 0, 42});
  write(frameFolder / "many-small-frames", many);
  return 0;
}
