#include "platform/foundation/Uuid.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <cstring>

#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/ObjectArena.h"

namespace qx {

QX_DEFINE_CLASS(Uuid, "NSUUID", Object)

std::shared_ptr<Uuid> Uuid::make() {
  Bytes bytes;
  uuid_generate(bytes.data());
  return ObjectArena::make<Uuid>(bytes);
}

std::shared_ptr<Uuid> Uuid::withBytes(const uint8_t bytes[16]) {
  Bytes copy;
  std::copy_n(bytes, 16, copy.begin());
  return ObjectArena::make<Uuid>(copy);
}

std::shared_ptr<Uuid> Uuid::withString(std::string_view text) {
  if (text.size() != 36) return nullptr;
  char buffer[37];
  std::memcpy(buffer, text.data(), 36);
  buffer[36] = '\0';
  Bytes bytes;
  if (uuid_parse(buffer, bytes.data()) != 0) return nullptr;
  return ObjectArena::make<Uuid>(bytes);
}

ObjectPtr Uuid::initWithCoder(KeyedUnarchiver& coder) {
  auto bytes = coder.decodeBytesForKey("NS.uuidbytes");
  if (!bytes) bytes = coder.decodeBytesForKey("uuid");
  if (!bytes || bytes->size() != 16) {
    coder.failWithError("NSUUID without 16 bytes under NS.uuidbytes");
    return nullptr;
  }
  return withBytes(bytes->data());
}

void Uuid::getUUIDBytes(uint8_t out[16]) const {
  std::copy(bytes_.begin(), bytes_.end(), out);
}

std::string Uuid::UUIDString() const {
  char text[37];
  uuid_unparse_upper(bytes_.data(), text);
  return text;
}

bool Uuid::isEqual(const Object& other) const {
  auto* that = dynamic_cast<const Uuid*>(&other);
  return that != nullptr && that->bytes_ == bytes_;
}

std::size_t Uuid::hash() const {
  uint64_t a;
  uint64_t b;
  std::memcpy(&a, bytes_.data(), 8);
  std::memcpy(&b, bytes_.data() + 8, 8);
  return static_cast<std::size_t>(a ^ (b * 0x9e3779b97f4a7c15ULL));
}

void Uuid::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeBytes(bytes_, "NS.uuidbytes");
}

}  // namespace qx
