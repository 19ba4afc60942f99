#pragma once

#include <dirent.h>

#include <string>

#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/Url.h"

// One listing request: the contents of a folder and, following an index path,
// of the folders below it, one level per index, each level an array of file
// reference URLs sorted by path. Used once, by QXFileListing.
class QXFolderListing {
 public:
  QXFolderListing(qx::UrlPtr url, qx::IndexPathPtr indexPath);

  // The levels, or nil; `error` as the listing defines it.
  qx::ArrayPtr run(qx::ErrorPtr* error);

 private:
  enum class Step { NextLevel, Stop };

  Step listLevel(std::size_t level);
  bool isFolder() const;
  void readEntries(DIR* dir, const std::string& path, qx::MutableArray& contents);
  Step selectEntry(std::size_t level, const qx::MutableArray& contents, const std::string& path);
  void record(const qx::ErrorPtr& error) { recorded_ = error; }
  bool hasHardError() const;

  qx::UrlPtr current_;
  qx::IndexPathPtr indexPath_;
  qx::MutableArrayPtr result_;
  qx::ErrorPtr recorded_;
};
