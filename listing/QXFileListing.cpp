#include "listing/QXFileListing.h"

#include "listing/QXFolderListing.h"

qx::ArrayPtr QXFileListing::getContentsOfDirectory(const qx::UrlPtr& url,
                                                   const qx::IndexPathPtr& indexPath,
                                                   qx::ErrorPtr* error) {
  QXFolderListing listing(url, indexPath);
  return listing.run(error);
}
