// Which archives DirectArchiveReader takes. That it decodes them as the general
// path does is checked by the direct-decode fuzzer and its seeds; here, that
// the shape it exists for (an array of records, as a size report carries
// them) does not quietly fall back to the general path, and that archives it
// does not take do.
#include <gtest/gtest.h>

#include "platform/archive/DirectArchiveReader.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/Foundation.h"
#include "tests/platform/archive/ArchiveTestClasses.h"

namespace qx::testing {
namespace {

ArrayPtr records(std::size_t count) {
  static const ObjectPtr pathKey = str("QXIndexPath");
  static const ObjectPtr itemKey = str("QXFileSizeItem");
  auto array = MutableArray::make(count);
  for (uint64_t i = 0; i < count; ++i) {
    DictionaryEntries pairs;
    pairs.push_back({pathKey, IndexPath::make({0, 3, i})});
    pairs.push_back({itemKey, SizeRecord::make(int64_t(i) * 4096 - 1, i % 2 == 0)});
    array->addObject(Dictionary::make(std::move(pairs)));
  }
  return array;
}

bool readsDirectly(const ObjectPtr& root) {
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(root);
  ObjectPtr decoded;
  bool taken = KeyedUnarchiver::readDirectly(data->span(), [&](DirectArchiveReader& reader) {
    return reader.decode(reader.rootUid(), nullptr, decoded);
  });
  return taken;
}

TEST(DirectArchiveReader, TakesArraysOfRecordsAndLeavesTheRest) {
  registerTestClasses();
  auto item = SizeRecord::make(7, false);
  auto record = records(1)->objectAtIndex(0);
  auto nested = std::make_shared<NestingNode>(SizeRecord::make(1, true));
  nested->children.push_back(std::make_shared<NestingNode>());
  struct Row {
    const char* name;
    ObjectPtr root;
    bool taken;
  } rows[] = {
      {"a report of 100 records", records(100), true},
      {"an empty report", records(0), true},
      {"a record named twice", Array::make({item, item}), true},
      {"a dictionary named twice", Array::make({record, record}), false},
      {"a string that is not ASCII", str("d\xc3\xa9j\xc3\xa0"), false},
      {"a class that decodes objects of its own", nested, false},
      {"the same class again, once it is known", nested, false},
  };
  for (const Row& row : rows) EXPECT_EQ(readsDirectly(row.root), row.taken) << row.name;
}

}  // namespace
}  // namespace qx::testing
