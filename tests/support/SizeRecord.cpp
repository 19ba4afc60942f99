#include "tests/support/SizeRecord.h"

#include "model/QXFileSizeItem.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/IndexPath.h"

namespace qx::test {

std::vector<SizeRecord> SizeRecord::listOf(const ArrayPtr& batch) {
  std::vector<SizeRecord> records;
  if (!batch) return records;
  for (const ObjectPtr& object : *batch) {
    auto record = cast<Dictionary>(object);
    auto indexPath = record ? record->objectForKeyAs<IndexPath>("QXIndexPath") : nullptr;
    auto item = record ? record->objectForKeyAs<QXFileSizeItem>("QXFileSizeItem") : nullptr;
    if (!indexPath || !item || record->count() != 2) {
      records.push_back({{999999}});
      continue;
    }
    records.push_back({indexPath->indexes(), item->size(), item->busy()});
  }
  return records;
}

std::ostream& operator<<(std::ostream& out, const SizeRecord& record) {
  out << "[";
  for (std::size_t i = 0; i < record.indexPath.size(); ++i) {
    out << (i ? "," : "") << record.indexPath[i];
  }
  return out << "] " << record.size << (record.busy ? " busy" : "");
}

}  // namespace qx::test
