#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "model/QXFileSizeItem.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/TreeNode.h"
#include "platform/walk/TreeWalk.h"

// One size calculation: walks the hierarchies below the given items, builds
// the size tree, reports the totals gathered every 100 items and returns the
// last batch. Used once, by QXFileSizes.
class QXSizeCalculation {
 public:
  // Sends a batch to the client and waits for its answer: true to go on,
  // false to stop (a connection that can no longer answer counts as stop).
  using Report = std::function<bool(const qx::ArrayPtr& batch)>;

  static constexpr int kItemsPerReport = 100;

  QXSizeCalculation(const qx::ArrayPtr& urls, Report report);

  // The last batch of update records, or nil; `error` as the calculation
  // defines it.
  qx::ArrayPtr run(qx::ErrorPtr* error);

 private:
  enum class Next { Read, Check, Leave };

  bool openWalk();
  void makeArtificialRoot();
  Next handle(const qx::WalkEntry& entry);
  Next skipCycle(const qx::WalkEntry& entry);
  void enterFolder();
  void leaveFolder();
  Next addItem(const qx::WalkEntry& entry);
  Next applyErrorRule(int number, const char* format, const char* path);
  bool reportIsDue() const { return counter_ >= kItemsPerReport; }
  bool reportAndGoOn();
  // A node of the size tree with its item and index path at hand.
  struct Placed {
    qx::TreeNodePtr node;
    std::shared_ptr<QXFileSizeItem> item;
    qx::IndexPathPtr indexPath;
  };
  Placed place(std::shared_ptr<QXFileSizeItem> item);
  void appendRecord(qx::IndexPathPtr indexPath, std::shared_ptr<QXFileSizeItem> item);
  void appendRecord(const Placed& placed) { appendRecord(placed.indexPath, placed.item); }
  void finish();
  qx::ArrayPtr result();

  std::vector<std::string> paths_;
  Report report_;
  std::unique_ptr<qx::TreeWalk> walk_;
  std::vector<Placed> stack_;  // the open folders, outermost first
  qx::MutableArrayPtr batch_;
  int counter_ = 0;
  qx::ErrorPtr recorded_;
};
