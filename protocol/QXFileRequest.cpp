#include "protocol/QXFileRequest.h"

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXFileSizeItem.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/Foundation.h"
#include "protocol/QXFileRequestProxy.h"

const qx::XpcProtocol& QXFileRequest::protocol() {
  static const qx::XpcProtocol protocol = qx::XpcProtocol::describe<QXFileRequest,
                                                                    QXFileRequestProxy>(
      "QXFileRequest",
      {
          qx::xpcLongMethod("getAclEntriesWithUrl:reply:", &QXFileRequest::getAclEntriesWithUrl),
          qx::xpcLongMethod("getAclAccessWithUrl:uuid:reply:", &QXFileRequest::getAclAccessWithUrl),
          qx::xpcLongMethod("setAclEntries:url:reply:", &QXFileRequest::setAclEntries),
          qx::xpcLongMethod("propagateAclEntries:url:reply:", &QXFileRequest::propagateAclEntries),
          qx::xpcMethod("renameUrls:names:reply:", &QXFileRequest::renameUrls),
          qx::xpcMethod("getSizesWithUrls:reply:", &QXFileRequest::getSizesWithUrls),
          qx::xpcMethod("getContentsOfDirectory:indexPath:reply:",
                        &QXFileRequest::getContentsOfDirectory),
      });
  return protocol;
}

const qx::ClassSet& QXFileRequest::entryClasses() {
  static const qx::ClassSet classes{&qx::Array::classInfo(), &qx::String::classInfo(),
                                    &QXTreeNode::classInfo(), &QXAclEntry::classInfo()};
  return classes;
}

const qx::ClassSet& QXFileRequest::urlArrayClasses() {
  static const qx::ClassSet classes{&qx::Array::classInfo(), &qx::Url::classInfo()};
  return classes;
}

const qx::ClassSet& QXFileRequest::answerClasses() {
  static const qx::ClassSet classes{
      &qx::Array::classInfo(),     &qx::Dictionary::classInfo(), &qx::String::classInfo(),
      &qx::Number::classInfo(),    &qx::Data::classInfo(),       &qx::Url::classInfo(),
      &qx::IndexPath::classInfo(), &QXAclEntry::classInfo(),     &QXAclPermission::classInfo(),
      &QXTreeNode::classInfo(),    &QXFileSizeItem::classInfo()};
  return classes;
}

bool QXFileRequest::restrictArguments(qx::XpcInterface& exported) {
  // The propagation shares the entries set of setAclEntries.
  return exported.setClasses(entryClasses(), &QXFileRequest::setAclEntries, 0, false) &&
         exported.setClasses(entryClasses(), &QXFileRequest::propagateAclEntries, 0, false) &&
         exported.setClasses(urlArrayClasses(), &QXFileRequest::renameUrls, 0, false) &&
         exported.setClasses(urlArrayClasses(), &QXFileRequest::getSizesWithUrls, 0, false);
}

bool QXFileRequest::restrictReplies(qx::XpcInterface& remote) {
  const qx::ClassSet& answers = answerClasses();
  return remote.setClasses(answers, &QXFileRequest::getAclEntriesWithUrl, 0, true) &&
         remote.setClasses(answers, &QXFileRequest::getAclAccessWithUrl, 0, true) &&
         remote.setClasses(answers, &QXFileRequest::renameUrls, 0, true) &&
         remote.setClasses(answers, &QXFileRequest::renameUrls, 1, true) &&
         remote.setClasses(answers, &QXFileRequest::getSizesWithUrls, 0, true) &&
         remote.setClasses(answers, &QXFileRequest::getContentsOfDirectory, 0, true);
}
