#include "tests/platform/archive/ArchiveTestClasses.h"

#include <mutex>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"

namespace qx::testing {

QX_DEFINE_CLASS(SizeRecord, "QXFileSizeItem", Object)
QX_DEFINE_CLASS(SubRecord, "QXTestSubRecord", SizeRecord)
QX_DEFINE_CLASS(NestingNode, "QXTestNestingNode", Object)
QX_DEFINE_CLASS(Everything, "QXTestEverything", Object)

template <class Record>
ObjectPtr decodeRecord(KeyedUnarchiver& coder) {
  int64_t size = coder.decodeIntegerForKey("size");
  bool busy = coder.decodeBoolForKey("busy");
  if (coder.hasFailed()) return nullptr;
  return std::make_shared<Record>(size, busy);
}

ObjectPtr SizeRecord::initWithCoder(KeyedUnarchiver& coder) {
  return decodeRecord<SizeRecord>(coder);
}
ObjectPtr SubRecord::initWithCoder(KeyedUnarchiver& coder) {
  return decodeRecord<SubRecord>(coder);
}

void SizeRecord::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeInteger(size, "size");
  coder.encodeBool(busy, "busy");
}

bool SizeRecord::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const SizeRecord*>(&other);
  return that != nullptr && &that->objectClass() == &objectClass() && that->size == size &&
         that->busy == busy;
}

ObjectPtr NestingNode::initWithCoder(KeyedUnarchiver& coder) {
  static const ClassSet objectClasses{&SizeRecord::classInfo()};
  static const ClassSet childClasses{&Array::classInfo(), &Data::classInfo()};
  auto node =
      std::make_shared<NestingNode>(coder.decodeObjectOfClassesForKey(objectClasses, "object"));
  auto blobs = cast<Array>(coder.decodeObjectOfClassesForKey(childClasses, "children"));
  if (coder.hasFailed()) return nullptr;
  if (!blobs) return node;
  for (const ObjectPtr& blob : *blobs) {
    auto data = cast<Data>(blob);
    if (!data) {
      coder.failWithError("a child of a nesting node is not data");
      return nullptr;
    }
    ErrorPtr error;
    auto child = cast<NestingNode>(KeyedUnarchiver::unarchiveObjectWithData(*data, &error));
    if (!child) {
      coder.failWithError("a child archive does not decode: " +
                          (error ? error->localizedDescription() : std::string("not a node")));
      return nullptr;
    }
    node->children.push_back(child);
  }
  return node;
}

void NestingNode::encodeWithCoder(KeyedArchiver& coder) const {
  auto blobs = MutableArray::make(children.size());
  for (const auto& child : children) {
    blobs->addObject(KeyedArchiver::archivedDataWithRootObject(child));
  }
  coder.encodeObject(object, "object");
  coder.encodeObject(blobs, "children");
}

ObjectPtr Everything::initWithCoder(KeyedUnarchiver& coder) {
  auto result = std::make_shared<Everything>();
  result->small = coder.decodeIntForKey("small");
  result->large = coder.decodeIntegerForKey("large");
  result->flag = coder.decodeBoolForKey("flag");
  result->real = coder.decodeDoubleForKey("real");
  result->bytes = coder.decodeBytesForKey("bytes").value_or(std::vector<uint8_t>());
  result->object = coder.decodeObjectForKey("object");
  auto list = coder.decodeArrayOfObjectsForKey("list");
  result->dollar = coder.decodeIntegerForKey("$dollar");
  if (coder.hasFailed() || !list) return nullptr;
  result->list = std::move(*list);
  return result;
}

void Everything::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeInt(small, "small");
  coder.encodeInteger(large, "large");
  coder.encodeBool(flag, "flag");
  coder.encodeDouble(real, "real");
  coder.encodeBytes(bytes, "bytes");
  coder.encodeObject(object, "object");
  coder.encodeArrayOfObjects(list, "list");
  coder.encodeInteger(dollar, "$dollar");
}

bool Everything::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const Everything*>(&other);
  if (that == nullptr || that->list.size() != list.size()) return false;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (!qx::isEqual(list[i], that->list[i])) return false;
  }
  return that->small == small && that->large == large && that->flag == flag && that->real == real &&
         that->bytes == bytes && qx::isEqual(that->object, object) && that->dollar == dollar;
}

void registerTestClasses() {
  static std::once_flag once;
  std::call_once(once, [] {
    registerFoundationClasses();
    ClassRegistry::registerClass(SizeRecord::classInfo(), &SizeRecord::initWithCoder);
    ClassRegistry::registerClass(SubRecord::classInfo(), &SubRecord::initWithCoder);
    ClassRegistry::registerClass(NestingNode::classInfo(), &NestingNode::initWithCoder);
    ClassRegistry::registerClass(Everything::classInfo(), &Everything::initWithCoder);
  });
}

}  // namespace qx::testing
