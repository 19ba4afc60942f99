#pragma once

#include "platform/xpc/XpcRemoteProxy.h"
#include "protocol/QXFileRequest.h"

// The client's side of QXFileRequest: each call is sent to the service at
// once; its reply block runs on the connection's delivery queue when the
// answer arrives. Made by XpcConnection::remoteObjectProxy<QXFileRequest>().
class QXFileRequestProxy final : public QXFileRequest, qx::XpcRemoteProxy {
 public:
  using XpcRemoteProxy::XpcRemoteProxy;

  void getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply) override;
  void getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply) override;
  void setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) override;
  void propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) override;
  void renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply) override;
  void getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply) override;
  void getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath,
                              ArrayReply reply) override;
};
