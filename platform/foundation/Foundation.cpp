#include "platform/foundation/Foundation.h"

#include <mutex>

namespace qx {

void registerFoundationClasses() {
  static std::once_flag once;
  std::call_once(once, [] {
    // String, Number and Data travel as plain property-list values and are
    // made by the unarchiver itself.
    ClassRegistry::registerClass(Array::classInfo(), &Array::initWithCoder);
    ClassRegistry::registerClass(MutableArray::classInfo(), &MutableArray::initWithCoder);
    ClassRegistry::registerClass(Dictionary::classInfo(), &Dictionary::initWithCoder);
    ClassRegistry::registerClass(MutableDictionary::classInfo(),
                                 &MutableDictionary::initWithCoder);
    ClassRegistry::registerClass(Uuid::classInfo(), &Uuid::initWithCoder);
    ClassRegistry::registerClass(Url::classInfo(), &Url::initWithCoder);
    ClassRegistry::registerClass(IndexPath::classInfo(), &IndexPath::initWithCoder);
    ClassRegistry::registerClass(Error::classInfo(), &Error::initWithCoder);
  });
}

}  // namespace qx
