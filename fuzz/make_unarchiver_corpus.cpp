// Writes the seed corpus of the unarchiver fuzzer: small real archives of
// every Foundation class and of the test records, one file each.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/archive/KeyedArchiver.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "tests/platform/archive/ArchiveTestClasses.h"

using namespace qx;
using namespace qx::testing;

namespace {

std::vector<std::pair<std::string, ObjectPtr>> seeds() {
  auto shared = str("shared");
  auto mutableArray = MutableArray::make();
  mutableArray->addObject(str("a"));
  mutableArray->addObject(str("b"));
  auto mutableDict = MutableDictionary::make();
  mutableDict->setObject(Number::numberWithInteger(1), "one");
  mutableDict->setObject(shared, "$dollar key");
  auto node = std::make_shared<NestingNode>(SizeRecord::make(10, true));
  auto child = std::make_shared<NestingNode>(SizeRecord::make(20, false));
  child->children.push_back(std::make_shared<NestingNode>(std::make_shared<SubRecord>(30, true)));
  node->children.push_back(child);
  auto everything = std::make_shared<Everything>();
  everything->small = -2;
  everything->large = 1LL << 40;
  everything->flag = true;
  everything->real = 1.25;
  everything->bytes = {1, 2, 3, 4};
  everything->object = Url::fileURLWithPath("/tmp/a b");
  everything->list = {str("x"), nullptr, Number::numberWithBool(false)};
  everything->dollar = 5;
  auto info = Dictionary::withStringKeys(
      {{"NSLocalizedDescription", str("Acces denied")},
       {"NSLocalizedRecoverySuggestion", str("Ask the owner")},
       {"NSURL", Url::fileURLWithPath("/home/user/%file\xff")},
       {"NSUnderlyingError", Error::errorWithDomain(kPOSIXErrorDomain, 13)}});
  auto report = MutableArray::make();
  for (uint64_t i = 0; i < 5; ++i) {
    report->addObject(Dictionary::withStringKeys(
        {{"QXIndexPath", IndexPath::make({0, i})},
         {"QXFileSizeItem", SizeRecord::make(static_cast<int64_t>(i) * 4096, i % 2 == 0)}}));
  }
  ObjectPtr deep = Array::make();
  for (int i = 0; i < 20; ++i) deep = Array::make({deep});

  return {
      {"nil-root", nullptr},
      {"string-ascii", str("hello")},
      {"string-utf16", str("d\xc3\xa9j\xc3\xa0 \xf0\x9f\x98\x80")},
      {"string-invalid-utf8", str("bad \xff\xc3 bytes")},
      {"number-bool", Number::numberWithBool(true)},
      {"number-integer", Number::numberWithInteger(-1234567890123LL)},
      {"number-real", Number::numberWithDouble(3.5)},
      {"data", Data::make({0, 1, 2, 0xff})},
      {"array", Array::make({str("a"), Number::numberWithInteger(2), nullptr})},
      {"mutable-array", mutableArray},
      {"shared-instance", Array::make({shared, shared, shared})},
      {"dictionary",
       Dictionary::withStringKeys({{"k", str("v")}, {"n", Number::numberWithDouble(0.5)}})},
      {"mutable-dictionary", mutableDict},
      {"uuid", Uuid::withString("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000001F5")},
      {"url-file", Url::fileURLWithPath("/tmp/with space/%/x")},
      {"url-http", Url::URLWithString("https://example.invalid/path?q=1")},
      {"index-path-0", IndexPath::make({})},
      {"index-path-1", IndexPath::make({7})},
      {"index-path-3", IndexPath::make({1, 300, 2})},
      {"index-path-large", IndexPath::make({0xffffffffffffffffULL, 0, 1ULL << 40})},
      {"error-plain", Error::errorWithDomain(kPOSIXErrorDomain, 2)},
      {"error-user-info", Error::errorWithDomain(kCocoaErrorDomain, 257, info)},
      {"size-record", SizeRecord::make(-1, true)},
      {"sub-record", std::make_shared<SubRecord>(1LL << 33, false)},
      {"nesting-node", node},
      {"everything", everything},
      {"size-report", report},
      {"nested-arrays", deep},
      // A listing's level: references into one folder share its URL; the
      // root and a reference without a kept path take the other forms.
      {"file-references",
       Array::make({std::make_shared<FileReferenceUrl>(2049, 131075, "/home/user/Documents/a b"),
                    std::make_shared<FileReferenceUrl>(2049, 131076, "/home/user/Documents/c:d"),
                    std::make_shared<FileReferenceUrl>(2049, 2, "/"),
                    std::make_shared<FileReferenceUrl>(2050, 12, "")})},
  };
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  registerTestClasses();
  std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);
  for (const auto& [name, object] : seeds()) {
    DataPtr data = KeyedArchiver::archivedDataWithRootObject(object);
    if (!data) {
      std::fprintf(stderr, "cannot archive %s\n", name.c_str());
      return 1;
    }
    std::ofstream out(folder / (name + ".bplist"), std::ios::binary);
    out.write(reinterpret_cast<const char*>(data->data()),
              static_cast<std::streamsize>(data->length()));
  }
  return 0;
}
