// The keyed-archive codec against libplist on the message the service sends
// most: a report of 100 size records, each a dictionary holding an index path
// of length 3 under "QXIndexPath" and a QXFileSizeItem under "QXFileSizeItem".
//
// project: archive the report with KeyedArchiver and decode it back the way a
//          client does (restricted to the classes of the size callback).
// libplist: build the same keyed-archive plist tree with libplist's C API,
//          convert it to a binary plist and read that back into a tree.
//
// Prints each round and, last, `codec: ratio=R project_us=A libplist_us=B`
// with the medians of the rounds.
#include <plist/plist.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "model/ModelClasses.h"
#include "model/QXFileSizeItem.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/Foundation.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRecords = 100;

qx::ArrayPtr sizeReport() {
  auto pathKey = qx::str("QXIndexPath");
  auto itemKey = qx::str("QXFileSizeItem");
  auto report = qx::MutableArray::make(kRecords);
  for (uint64_t i = 0; i < kRecords; ++i) {
    auto item = std::make_shared<QXFileSizeItem>(static_cast<int64_t>(i * 4096 + 17));
    item->setBusy(i % 3 == 0);
    report->addObject(
        qx::Dictionary::make({{pathKey, qx::IndexPath::make({0, 3, i})}, {itemKey, item}}));
  }
  return report;
}

const qx::ClassSet& reportClasses() {
  static const qx::ClassSet classes{&qx::Array::classInfo(), &qx::Dictionary::classInfo(),
                                    &qx::String::classInfo(), &qx::IndexPath::classInfo(),
                                    &QXFileSizeItem::classInfo()};
  return classes;
}

bool projectRoundTrip(const qx::ArrayPtr& report) {
  qx::DataPtr data = qx::KeyedArchiver::archivedDataWithRootObject(report);
  auto decoded =
      qx::cast<qx::Array>(qx::KeyedUnarchiver::unarchivedObjectOfClasses(reportClasses(), *data));
  return decoded && decoded->count() == kRecords;
}

plist_t classDictionary(const char* name, std::initializer_list<const char*> chain) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "$classname", plist_new_string(name));
  plist_t classes = plist_new_array();
  for (const char* c : chain) plist_array_append_item(classes, plist_new_string(c));
  plist_dict_set_item(dict, "$classes", classes);
  return dict;
}

// The layout KeyedArchiver writes for the report, built value by value.
plist_t buildReportTree() {
  plist_t objects = plist_new_array();
  auto append = [&](plist_t value) {
    plist_array_append_item(objects, value);
    return static_cast<uint64_t>(plist_array_get_size(objects) - 1);
  };
  append(plist_new_string("$null"));
  plist_t root = plist_new_dict();
  append(root);
  plist_t rootElements = plist_new_array();
  const uint64_t pathKey = append(plist_new_string("QXIndexPath"));
  const uint64_t itemKey = append(plist_new_string("QXFileSizeItem"));
  uint64_t dictionaryClass = 0;
  uint64_t indexPathClass = 0;
  uint64_t itemClass = 0;
  for (uint64_t i = 0; i < kRecords; ++i) {
    plist_t update = plist_new_dict();
    plist_array_append_item(rootElements, plist_new_uid(append(update)));

    plist_t path = plist_new_dict();
    const uint64_t pathUid = append(path);
    plist_dict_set_item(path, "NSIndexPathLength", plist_new_uint(3));
    const char leb[3] = {0, 3, static_cast<char>(i)};
    plist_dict_set_item(path, "NSIndexPathData", plist_new_uid(append(plist_new_data(leb, 3))));
    if (!indexPathClass)
      indexPathClass = append(classDictionary("NSIndexPath", {"NSIndexPath", "NSObject"}));
    plist_dict_set_item(path, "$class", plist_new_uid(indexPathClass));

    plist_t item = plist_new_dict();
    const uint64_t itemUid = append(item);
    plist_dict_set_item(item, "size", plist_new_uint(i * 4096 + 17));
    plist_dict_set_item(item, "busy", plist_new_bool(i % 3 == 0));
    if (!itemClass)
      itemClass = append(classDictionary("QXFileSizeItem", {"QXFileSizeItem", "NSObject"}));
    plist_dict_set_item(item, "$class", plist_new_uid(itemClass));

    plist_t keys = plist_new_array();
    plist_array_append_item(keys, plist_new_uid(pathKey));
    plist_array_append_item(keys, plist_new_uid(itemKey));
    plist_t values = plist_new_array();
    plist_array_append_item(values, plist_new_uid(pathUid));
    plist_array_append_item(values, plist_new_uid(itemUid));
    plist_dict_set_item(update, "NS.keys", keys);
    plist_dict_set_item(update, "NS.objects", values);
    if (!dictionaryClass)
      dictionaryClass = append(classDictionary("NSDictionary", {"NSDictionary", "NSObject"}));
    plist_dict_set_item(update, "$class", plist_new_uid(dictionaryClass));
  }
  plist_dict_set_item(root, "NS.objects", rootElements);
  plist_dict_set_item(root, "$class",
                      plist_new_uid(append(classDictionary(
                          "NSMutableArray", {"NSMutableArray", "NSArray", "NSObject"}))));

  plist_t top = plist_new_dict();
  plist_dict_set_item(top, "root", plist_new_uid(1));
  plist_t archive = plist_new_dict();
  plist_dict_set_item(archive, "$archiver", plist_new_string("NSKeyedArchiver"));
  plist_dict_set_item(archive, "$version", plist_new_uint(100000));
  plist_dict_set_item(archive, "$top", top);
  plist_dict_set_item(archive, "$objects", objects);
  return archive;
}

bool libplistRoundTrip() {
  plist_t tree = buildReportTree();
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(tree, &bytes, &length);
  plist_free(tree);
  plist_t back = nullptr;
  plist_from_bin(bytes, length, &back);
  free(bytes);
  bool ok = back != nullptr && plist_dict_get_size(back) == 4;
  plist_free(back);
  return ok;
}

template <class F>
double microsecondsPerCall(F&& call, int count) {
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    if (!call()) {
      std::fprintf(stderr, "compare-codec: a round trip failed\n");
      std::exit(1);
    }
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / count;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2000;
  const int rounds = 7;
  registerModelClasses();
  qx::ArrayPtr report = sizeReport();
  std::printf("report of %d size records, %zu archive bytes; %d calls x %d rounds\n", kRecords,
              qx::KeyedArchiver::archivedDataWithRootObject(report)->length(), count, rounds);

  std::vector<double> project;
  std::vector<double> libplist;
  for (int round = 0; round < rounds; ++round) {
    // Alternate which side goes first so neither always runs on a warm cache.
    if (round % 2 == 0) {
      project.push_back(microsecondsPerCall([&] { return projectRoundTrip(report); }, count));
      libplist.push_back(microsecondsPerCall(libplistRoundTrip, count / 4 + 1));
    } else {
      libplist.push_back(microsecondsPerCall(libplistRoundTrip, count / 4 + 1));
      project.push_back(microsecondsPerCall([&] { return projectRoundTrip(report); }, count));
    }
    std::printf("round %d: project_us=%.2f libplist_us=%.2f\n", round + 1, project.back(),
                libplist.back());
  }
  const double a = median(project);
  const double b = median(libplist);
  std::printf("codec: ratio=%.3f project_us=%.2f libplist_us=%.2f\n", a / b, a, b);
  return 0;
}
