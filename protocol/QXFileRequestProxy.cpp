#include "protocol/QXFileRequestProxy.h"

void QXFileRequestProxy::getAclEntriesWithUrl(qx::UrlPtr url, ArrayReply reply) {
  send(&QXFileRequest::getAclEntriesWithUrl, std::move(reply), url);
}

void QXFileRequestProxy::getAclAccessWithUrl(qx::UrlPtr url, qx::UuidPtr uuid, ArrayReply reply) {
  send(&QXFileRequest::getAclAccessWithUrl, std::move(reply), url, uuid);
}

void QXFileRequestProxy::setAclEntries(qx::ArrayPtr entries, qx::UrlPtr url, ErrorReply reply) {
  send(&QXFileRequest::setAclEntries, std::move(reply), entries, url);
}

void QXFileRequestProxy::propagateAclEntries(qx::ArrayPtr entries, qx::UrlPtr url,
                                             ErrorReply reply) {
  send(&QXFileRequest::propagateAclEntries, std::move(reply), entries, url);
}

void QXFileRequestProxy::renameUrls(qx::ArrayPtr urls, qx::ArrayPtr names, RenameReply reply) {
  send(&QXFileRequest::renameUrls, std::move(reply), urls, names);
}

void QXFileRequestProxy::getSizesWithUrls(qx::ArrayPtr urls, ArrayReply reply) {
  send(&QXFileRequest::getSizesWithUrls, std::move(reply), urls);
}

void QXFileRequestProxy::getContentsOfDirectory(qx::UrlPtr url, qx::IndexPathPtr indexPath,
                                                ArrayReply reply) {
  send(&QXFileRequest::getContentsOfDirectory, std::move(reply), url, indexPath);
}
