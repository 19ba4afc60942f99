// Hostile input for the keyed unarchiver and the binary property-list reader.
// Besides "no crash, no leak, no undefined behaviour", it checks that a
// decode answers either an object or an error (or nil for a nil root), and
// that whatever decodes archives again and decodes from that archive.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/archive/BinaryPlist.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "tests/platform/archive/ArchiveTestClasses.h"

using namespace qx;

namespace {

const ClassSet& restrictedSet() {
  static const ClassSet classes{&Array::classInfo(),
                                &Dictionary::classInfo(),
                                &String::classInfo(),
                                &Number::classInfo(),
                                &IndexPath::classInfo(),
                                &testing::SizeRecord::classInfo(),
                                &testing::NestingNode::classInfo()};
  return classes;
}

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  testing::registerTestClasses();
  std::span<const uint8_t> bytes(data, size);

  (void)BinaryPlist::parse(bytes);

  ErrorPtr error;
  ObjectPtr object = KeyedUnarchiver::unarchiveObjectWithData(bytes, &error);
  check(!(object && error));
  if (error) {
    check(error->domain() == kCocoaErrorDomain && error->code() == kCoderReadCorruptError);
  }

  ErrorPtr restrictedError;
  ObjectPtr restricted =
      KeyedUnarchiver::unarchivedObjectOfClasses(restrictedSet(), bytes, &restrictedError);
  check(!(restricted && restrictedError));

  if (object) {
    DataPtr again = KeyedArchiver::archivedDataWithRootObject(object);
    check(again != nullptr);
    ErrorPtr againError;
    ObjectPtr back = KeyedUnarchiver::unarchiveObjectWithData(*again, &againError);
    check(back != nullptr && againError == nullptr);
  }
  return 0;
}
