#include "fuzz/FuzzArgumentSets.h"

#include <array>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXFileSizeItem.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/Foundation.h"
#include "service/QXFileRequest.h"
#include "service/QXFileResponse.h"

using namespace qx;

namespace {

constexpr std::array<std::string_view, 9> kReplySelectors = {
    "getAclEntriesWithUrl:reply:",
    "getAclAccessWithUrl:uuid:reply:",
    "setAclEntries:url:reply:",
    "propagateAclEntries:url:reply:",
    "renameUrls:names:reply:",
    "getSizesWithUrls:reply:",
    "getContentsOfDirectory:indexPath:reply:",
    "progressWithReply:",
    "updateFileSizes:reply:",
};
constexpr std::size_t kFirstResponseSelector = 7;

ClassSet answerClasses() {
  return {&Array::classInfo(),      &Dictionary::classInfo(),    &String::classInfo(),
          &Number::classInfo(),     &Data::classInfo(),          &Url::classInfo(),
          &IndexPath::classInfo(),  &QXAclEntry::classInfo(),    &QXAclPermission::classInfo(),
          &QXTreeNode::classInfo(), &QXFileSizeItem::classInfo()};
}

}  // namespace

FuzzArgumentSets::FuzzArgumentSets()
    : serviceExported_(XpcInterface::interfaceWithProtocol(QXFileRequest::protocol())),
      clientExported_(XpcInterface::interfaceWithProtocol(QXFileResponse::protocol())),
      clientRemote_(XpcInterface::interfaceWithProtocol(QXFileRequest::protocol())),
      serviceRemote_(XpcInterface::interfaceWithProtocol(QXFileResponse::protocol())) {
  const ClassSet entries{&Array::classInfo(), &String::classInfo(), &QXTreeNode::classInfo(),
                         &QXAclEntry::classInfo()};
  const ClassSet urls{&Array::classInfo(), &Url::classInfo()};
  serviceExported_->setClasses(entries, "setAclEntries:url:reply:", 0, false);
  serviceExported_->setClasses(entries, "propagateAclEntries:url:reply:", 0, false);
  serviceExported_->setClasses(urls, "renameUrls:names:reply:", 0, false);
  serviceExported_->setClasses(urls, "getSizesWithUrls:reply:", 0, false);

  const ClassSet answers = answerClasses();
  clientExported_->setClasses(answers, "updateFileSizes:reply:", 0, false);
  clientRemote_->setClasses(answers, "getAclEntriesWithUrl:reply:", 0, true);
  clientRemote_->setClasses(answers, "getAclAccessWithUrl:uuid:reply:", 0, true);
  clientRemote_->setClasses(answers, "renameUrls:names:reply:", 0, true);
  clientRemote_->setClasses(answers, "renameUrls:names:reply:", 1, true);
  clientRemote_->setClasses(answers, "getSizesWithUrls:reply:", 0, true);
  clientRemote_->setClasses(answers, "getContentsOfDirectory:indexPath:reply:", 0, true);
}

std::optional<std::vector<ClassSet>> FuzzArgumentSets::forInvocation(std::string_view selector) {
  if (auto sets = serviceExported_->argumentClasses(selector, false)) return sets;
  return clientExported_->argumentClasses(selector, false);
}

std::optional<std::vector<ClassSet>> FuzzArgumentSets::forReply(uint64_t replyTo) {
  const std::size_t slot = replyTo % 10;
  if (slot == 0) return std::nullopt;
  const std::string_view selector = kReplySelectors[slot - 1];
  const auto& interface = slot - 1 < kFirstResponseSelector ? clientRemote_ : serviceRemote_;
  return interface->argumentClasses(selector, true);
}

std::string FuzzArgumentSets::replySelector(uint64_t replyTo) {
  const std::size_t slot = replyTo % 10;
  return slot == 0 ? std::string() : std::string(kReplySelectors[slot - 1]);
}

uint64_t FuzzArgumentSets::replyToFor(std::string_view selector) {
  for (std::size_t i = 0; i < kReplySelectors.size(); ++i) {
    if (kReplySelectors[i] == selector) return i + 1;
  }
  return 0;
}
