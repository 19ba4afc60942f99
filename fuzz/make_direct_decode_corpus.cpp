// Writes the seed corpus of the direct-decode fuzzer:
//   direct_decode_corpus FOLDER
// Real size reports as the client receives them (as the service writes them:
// one string object per key shared by every record), reports with objects
// shared, keys written per record and paths of every form, a reply and a
// plain archive of records, and damaged copies: cut short, bits flipped,
// a class name and a key renamed. The archive-* seeds beside them are copies
// of unarchiver seeds (the archive tests' records, nested archives).
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "model/ModelClasses.h"
#include "model/QXFileSizeItem.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcMessage.h"

using namespace qx;

namespace {

using Bytes = std::vector<uint8_t>;

struct Record {
  std::vector<uint64_t> path;
  int64_t size;
  bool busy;
};

ArrayPtr records(const std::vector<Record>& list, bool sharedKeys) {
  static const ObjectPtr pathKey = str("QXIndexPath");
  static const ObjectPtr itemKey = str("QXFileSizeItem");
  auto array = MutableArray::make(list.size());
  for (const Record& record : list) {
    auto item = QXFileSizeItem::make(record.size);
    item->setBusy(record.busy);
    DictionaryEntries pairs;
    pairs.push_back({sharedKeys ? pathKey : str("QXIndexPath"), IndexPath::make(record.path)});
    pairs.push_back({sharedKeys ? itemKey : str("QXFileSizeItem"), item});
    array->addObject(Dictionary::make(std::move(pairs)));
  }
  return array;
}

std::vector<Record> walkRecords(std::size_t count) {
  std::vector<Record> list;
  for (uint64_t i = 0; i < count; ++i)
    list.push_back({{0, 3, i}, int64_t(i * 4096 + 17), i % 3 == 0});
  return list;
}

Bytes report(const ArrayPtr& array, uint64_t sequence = 7) {
  return XpcMessage::invocation("updateFileSizes:reply:", {array}, sequence).encode();
}

// A report in which a folder's item and path appear twice, as when it is
// reported on opening and again on closing.
ArrayPtr sharedRecords() {
  static const ObjectPtr pathKey = str("QXIndexPath");
  static const ObjectPtr itemKey = str("QXFileSizeItem");
  auto folder = IndexPath::make({0, 1});
  auto total = QXFileSizeItem::make(8192);
  auto array = MutableArray::make(3);
  for (int i = 0; i < 3; ++i) {
    DictionaryEntries pairs;
    pairs.push_back({pathKey, i == 1 ? IndexPath::make({0, 1, 0}) : folder});
    pairs.push_back({itemKey, i == 1 ? QXFileSizeItem::make(4096) : total});
    array->addObject(Dictionary::make(std::move(pairs)));
  }
  return array;
}

Bytes replaced(Bytes bytes, std::string_view from, std::string_view to) {
  std::string text(bytes.begin(), bytes.end());
  auto at = text.find(from);
  if (at != std::string::npos) std::copy(to.begin(), to.end(), bytes.begin() + long(at));
  return bytes;
}

void write(const std::filesystem::path& folder, const std::string& name, const Bytes& bytes) {
  std::ofstream out(folder / (name + ".bplist"), std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: direct_decode_corpus FOLDER\n");
    return 2;
  }
  registerModelClasses();
  std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);
  constexpr int64_t kLargest = std::numeric_limits<int64_t>::max();
  Bytes forms = report(records({{{}, -1, true},
                                {{4}, 0, false},
                                {{0, 300}, 1LL << 40, true},
                                {{1, 2, 3, 4, 5, 6}, kLargest, false},
                                {{0, 3, 9}, 4096, true}},
                               true),
                       13);
  write(folder, "report-100", report(records(walkRecords(100), true)));
  write(folder, "report-path-forms", forms);
  write(folder, "report-shared-objects", report(sharedRecords()));
  write(folder, "report-keys-per-record", report(records(walkRecords(4), false)));
  write(folder, "report-empty", report(MutableArray::make(0)));
  write(folder, "reply-sizes",
        XpcMessage::reply(1, {records(walkRecords(3), true), nullptr}).encode());
  DataPtr plain = KeyedArchiver::archivedDataWithRootObject(records(walkRecords(3), true));
  write(folder, "plain-records", plain->bytes());
  // Damaged copies of a small report.
  Bytes small = report(records(walkRecords(3), true));
  write(folder, "damaged-cut-short", Bytes(small.begin(), small.begin() + long(small.size() / 2)));
  write(folder, "damaged-class-name", replaced(small, "NSIndexPath", "NSIndexPatH"));
  write(folder, "damaged-key", replaced(small, "busy", "bust"));
  write(folder, "damaged-array-class", replaced(small, "NSMutableArray", "NSMutableArrax"));
  for (std::size_t k = 0; k < 12; ++k) {
    Bytes flipped = small;
    std::size_t at = 8 + (k * 7919) % (small.size() - 40);
    flipped[at] ^= static_cast<uint8_t>(1u << (k % 8));
    write(folder, "damaged-bit-" + std::to_string(k), flipped);
  }
  return 0;
}
