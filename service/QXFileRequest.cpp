#include "service/QXFileRequest.h"

#include "service/QXFileRequestProxy.h"

const qx::XpcProtocol& QXFileRequest::protocol() {
  static const qx::XpcProtocol protocol =
      qx::XpcProtocol::describe<QXFileRequest, QXFileRequestProxy>(
          "QXFileRequest",
          {
              qx::xpcMethod("getAclEntriesWithUrl:reply:", &QXFileRequest::getAclEntriesWithUrl),
              qx::xpcMethod("getAclAccessWithUrl:uuid:reply:", &QXFileRequest::getAclAccessWithUrl),
              qx::xpcMethod("setAclEntries:url:reply:", &QXFileRequest::setAclEntries),
              qx::xpcMethod("propagateAclEntries:url:reply:", &QXFileRequest::propagateAclEntries),
              qx::xpcMethod("renameUrls:names:reply:", &QXFileRequest::renameUrls),
              qx::xpcMethod("getSizesWithUrls:reply:", &QXFileRequest::getSizesWithUrls),
              qx::xpcMethod("getContentsOfDirectory:indexPath:reply:",
                            &QXFileRequest::getContentsOfDirectory),
          });
  return protocol;
}
