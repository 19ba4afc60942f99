#include "service/QXFileRequestProxy.h"

void QXFileRequestProxy::getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply) {
  send("getAclEntriesWithUrl:reply:", std::move(reply), url);
}

void QXFileRequestProxy::getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply) {
  send("getAclAccessWithUrl:uuid:reply:", std::move(reply), url, uuid);
}

void QXFileRequestProxy::setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) {
  send("setAclEntries:url:reply:", std::move(reply), entries, url);
}

void QXFileRequestProxy::propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url,
                                             ErrorReply reply) {
  send("propagateAclEntries:url:reply:", std::move(reply), entries, url);
}

void QXFileRequestProxy::renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply) {
  send("renameUrls:names:reply:", std::move(reply), urls, names);
}

void QXFileRequestProxy::getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply) {
  send("getSizesWithUrls:reply:", std::move(reply), urls);
}

void QXFileRequestProxy::getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath,
                                                ArrayReply reply) {
  send("getContentsOfDirectory:indexPath:reply:", std::move(reply), url, indexPath);
}
