#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/QXFileSizeItem.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/IndexPath.h"
#include "platform/foundation/MutableArray.h"
#include "platform/foundation/TreeNode.h"
#include "platform/walk/TreeWalk.h"
#include "sizes/QXFileSizes.h"

// One size calculation: walks the hierarchies below the given items, builds
// the size tree, reports the totals gathered every 100 items and returns the
// last batch. Used once, by QXFileSizes.
class QXSizeCalculation {
 public:
  static constexpr int kItemsPerReport = 100;

  QXSizeCalculation(const qx::ArrayPtr& urls, QXFileSizes::Report report);

  // The last batch of updates, or nullopt; `error` as the calculation
  // defines it.
  std::optional<QXSizeUpdates> run(qx::ErrorPtr* error);

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
  std::optional<QXSizeUpdates> result();

  std::vector<std::string> paths_;
  QXFileSizes::Report report_;
  std::unique_ptr<qx::TreeWalk> walk_;
  std::vector<Placed> stack_;  // the open folders, outermost first
  QXSizeUpdates batch_;
  int counter_ = 0;
  qx::ErrorPtr recorded_;
};
