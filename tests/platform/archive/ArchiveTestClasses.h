#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/foundation/Foundation.h"

// Record classes that exist only for the archive tests, the fuzzer and the
// benchmark. They use every coder call the service's records use.
namespace qx::testing {

// A size record: "size" (64-bit integer) and "busy" (boolean), under the wire
// name of the service's size item.
class SizeRecord : public Object {
  QX_DECLARE_CLASS()

 public:
  SizeRecord(int64_t size, bool busy) : size(size), busy(busy) {}
  static std::shared_ptr<SizeRecord> make(int64_t size, bool busy) {
    return std::make_shared<SizeRecord>(size, busy);
  }
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);
  void encodeWithCoder(KeyedArchiver& coder) const override;
  bool isEqual(const Object& other) const override;

  int64_t size;
  bool busy;
};

// A subclass, for class-chain checks.
class SubRecord final : public SizeRecord {
  QX_DECLARE_CLASS()

 public:
  using SizeRecord::SizeRecord;
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);
};

// A tree node that stores each child as a standalone archive and decodes the
// children with the unrestricted call from inside its initWithCoder, so that
// archives nest inside archives: "object" (allowed: the size record) and
// "children" (allowed: NSArray, NSData).
class NestingNode final : public Object {
  QX_DECLARE_CLASS()

 public:
  explicit NestingNode(ObjectPtr object = nullptr) : object(std::move(object)) {}
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);
  void encodeWithCoder(KeyedArchiver& coder) const override;

  ObjectPtr object;
  std::vector<std::shared_ptr<NestingNode>> children;
};

// Every coder call at once, including a key that begins with '$'.
class Everything final : public Object {
  QX_DECLARE_CLASS()

 public:
  static ObjectPtr initWithCoder(KeyedUnarchiver& coder);
  void encodeWithCoder(KeyedArchiver& coder) const override;
  bool isEqual(const Object& other) const override;

  int32_t small = 0;
  int64_t large = 0;
  bool flag = false;
  double real = 0;
  std::vector<uint8_t> bytes;
  ObjectPtr object;
  std::vector<ObjectPtr> list;
  int64_t dollar = 0;
};

// Registers the Foundation classes and the classes above.
void registerTestClasses();

}  // namespace qx::testing
