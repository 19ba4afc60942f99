#include "sizes/QXSizeCalculation.h"

#include <cerrno>
#include <utility>

#include "model/QXOperation.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/String.h"
#include "platform/foundation/Url.h"
#include "sizes/QXFileSizes.h"

namespace {

constexpr int kOptions = qx::TreeWalk::NoChdir | qx::TreeWalk::Physical | qx::TreeWalk::XDev;

bool isPermissionError(int64_t code) {
  return code == EPERM || code == EACCES;
}

std::string withPath(const char* format, const char* path) {
  return QXOperation::stepDescription(format, path);
}

}  // namespace

QXSizeCalculation::QXSizeCalculation(const qx::ArrayPtr& urls, QXFileSizes::Report report)
    : report_(std::move(report)) {
  batch_.reserve(kItemsPerReport + 16);
  if (!urls) return;
  paths_.reserve(urls->count());
  for (const qx::ObjectPtr& object : *urls) {
    auto url = qx::cast<qx::Url>(object);
    paths_.push_back(url ? url->fileSystemRepresentation() : std::string());
  }
}

std::optional<QXSizeUpdates> QXSizeCalculation::run(qx::ErrorPtr* error) {
  // errno is read after the walk; what the queue's thread left there before
  // this call must not count.
  errno = 0;
  if (openWalk()) {
    if (paths_.size() >= 2) makeArtificialRoot();
    while (const qx::WalkEntry* entry = walk_->read()) {
      Next next = handle(*entry);
      if (next == Next::Check && reportIsDue()) next = reportAndGoOn() ? Next::Read : Next::Leave;
      if (next == Next::Leave) break;
    }
    finish();
  }
  std::optional<QXSizeUpdates> sizes = result();
  if (error) *error = recorded_;
  return sizes;
}

bool QXSizeCalculation::openWalk() {
  walk_ = qx::TreeWalk::open(paths_, kOptions, &QXFileSizes::compare);
  if (walk_) return true;
  int number = errno;
  const char* first = paths_.empty() ? nullptr : paths_.front().c_str();
  recorded_ = QXOperation::errorWithErrno(
      number, "Couldn't read folder hierarchy for selected folders.", first);
  return false;
}

void QXSizeCalculation::makeArtificialRoot() {
  stack_.push_back(place(QXFileSizeItem::make(0)));
  appendRecord(stack_.back());
}

QXSizeCalculation::Next QXSizeCalculation::handle(const qx::WalkEntry& entry) {
  switch (entry.info()) {
    case qx::WalkInfo::DC:
      return skipCycle(entry);
    case qx::WalkInfo::D:
      enterFolder();
      return Next::Check;
    case qx::WalkInfo::DP:
      leaveFolder();
      return Next::Check;
    case qx::WalkInfo::DNR:
      leaveFolder();
      return applyErrorRule(
          entry.errnum(), "Couldn't read folder contents for folder at path \"%s\".", entry.path());
    case qx::WalkInfo::Err:
    case qx::WalkInfo::NS:
      return applyErrorRule(entry.errnum(), "Couldn't get folder hierarchy item at path \"%s\".",
                            entry.path());
    case qx::WalkInfo::NSOK:
      return applyErrorRule(entry.errnum(), "Couldn't retrieve file stat for item at path \"%s\".",
                            entry.path());
    default:
      return addItem(entry);
  }
}

QXSizeCalculation::Next QXSizeCalculation::skipCycle(const qx::WalkEntry& entry) {
  if (walk_->set(&entry, qx::TreeWalk::Skip) == 0) return Next::Read;
  int number = errno;
  recorded_ = QXOperation::errorWithErrno(
      number, withPath("Couldn't skip file causing traversal cycles at path \"%s\".", entry.path()),
      entry.path());
  return Next::Leave;
}

void QXSizeCalculation::enterFolder() {
  stack_.push_back(place(QXFileSizeItem::make(0)));
  appendRecord(stack_.back());
}

void QXSizeCalculation::leaveFolder() {
  if (stack_.empty()) return;
  Placed folder = std::move(stack_.back());
  stack_.pop_back();
  folder.item->setBusy(false);
  // Nothing below a finished folder is looked at again: the records hold the
  // items themselves, so the nodes can go.
  folder.node->mutableChildNodes().removeAllObjects();
}

QXSizeCalculation::Next QXSizeCalculation::addItem(const qx::WalkEntry& entry) {
  auto item = QXFileSizes::itemWithNode(&entry);
  if (!item) {
    return applyErrorRule(errno, "Couldn't retrieve file size for item at path \"%s\".",
                          entry.path());
  }
  Placed placed = place(std::move(item));
  placed.item->setBusy(false);
  int64_t size = placed.item->size();
  for (const Placed& open : stack_) open.item->setSize(open.item->size() + size);
  appendRecord(std::move(placed.indexPath), std::move(placed.item));
  ++counter_;
  return Next::Check;
}

// Permission errors: the first is kept and the walk goes on. Any other error
// replaces what was kept and ends the walk.
QXSizeCalculation::Next QXSizeCalculation::applyErrorRule(int number, const char* format,
                                                          const char* path) {
  if (isPermissionError(number)) {
    if (!recorded_) {
      recorded_ = QXOperation::errorWithErrno(number, withPath(format, path), path);
    }
    return Next::Check;
  }
  recorded_ = QXOperation::errorWithErrno(number, withPath(format, path), path);
  return Next::Leave;
}

bool QXSizeCalculation::reportAndGoOn() {
  // The report belongs to the platform, not to the walk: errno is kept
  // across it for the check after the loop.
  int saved = errno;
  bool goOn = report_ && report_(batch_);
  errno = saved;
  if (!goOn) return false;
  batch_.clear();
  for (const Placed& open : stack_) appendRecord(open);
  counter_ = 0;
  return true;
}

// Makes the item's node and appends it to the children of the current folder
// (none: it is the root). Its index path is the folder's followed by its
// position, as the tree would answer it.
QXSizeCalculation::Placed QXSizeCalculation::place(std::shared_ptr<QXFileSizeItem> item) {
  auto node = qx::TreeNode::treeNodeWithRepresentedObject(item);
  if (stack_.empty()) return {node, std::move(item), qx::IndexPath::make()};
  const Placed& folder = stack_.back();
  folder.node->mutableChildNodes().addObject(node);
  auto indexPath = folder.indexPath->indexPathByAddingIndex(folder.node->childNodes().size() - 1);
  return {std::move(node), std::move(item), std::move(indexPath)};
}

void QXSizeCalculation::appendRecord(qx::IndexPathPtr indexPath,
                                     std::shared_ptr<QXFileSizeItem> item) {
  batch_.push_back({std::move(indexPath), std::move(item)});
}

void QXSizeCalculation::finish() {
  for (const Placed& open : stack_) open.item->setBusy(false);
  const char* first = paths_.empty() ? "" : paths_.front().c_str();
  if (errno != 0 && !recorded_) {
    int number = errno;
    recorded_ = QXOperation::errorWithErrno(
        number,
        withPath("Couldn't retrieve folder hierarchy item for folder at path \"%s\".", first),
        first);
  }
  if (walk_->close() != 0 && !recorded_) {
    int number = errno;
    recorded_ = QXOperation::errorWithErrno(
        number,
        withPath("Couldn't release folder hierarchy storage for folder at path \"%s\".", first),
        first);
  }
}

std::optional<QXSizeUpdates> QXSizeCalculation::result() {
  if (!walk_) {
    // The walk never started: no result, and the error wrapped unless it is a
    // permission error.
    if (recorded_ && !isPermissionError(recorded_->code())) {
      recorded_ = QXOperation::errorWithError(recorded_, "Error calculating file sizes");
    }
    return std::nullopt;
  }
  if (!recorded_ || isPermissionError(recorded_->code())) return std::move(batch_);
  recorded_ = QXOperation::errorWithError(recorded_, "Error calculating file sizes");
  return std::nullopt;
}
