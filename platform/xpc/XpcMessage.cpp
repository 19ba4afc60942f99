#include "platform/xpc/XpcMessage.h"

#include <algorithm>
#include <map>

#include "platform/archive/DirectArchiveReader.h"
#include "platform/archive/KeyedArchiveWriter.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/ClassRegistry.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/Number.h"
#include "platform/foundation/String.h"

namespace qx {
namespace {

constexpr std::string_view kSelector = "selector";
constexpr std::string_view kArguments = "arguments";
constexpr std::string_view kSequence = "sequence";
constexpr std::string_view kReplyTo = "replyTo";
constexpr std::string_view kRefused = "refused";
constexpr std::string_view kReason = "reason";

// Reads the root dictionary of a message entry by entry, so that every value
// is decoded with the set that fits it: the envelope's own values as strings
// and numbers, each argument with the set of its position.
class EnvelopeReader {
 public:
  EnvelopeReader(KeyedUnarchiver& coder, XpcArgumentSets& sets, XpcIncoming& result)
      : coder_(coder), sets_(sets), result_(result) {}

  void read() {
    if (!readKeys()) return protocolError("the message is not a dictionary with string keys");
    if (has(kSelector)) return readInvocation();
    if (has(kReplyTo)) return readReply();
    if (has(kRefused)) return readRefusal();
    protocolError("the message is neither an invocation, a reply nor a refusal");
  }

 private:
  bool readKeys() {
    auto keyCount = coder_.countOfArrayForKey("NS.keys");
    auto valueCount = coder_.countOfArrayForKey("NS.objects");
    if (!keyCount || !valueCount || *keyCount != *valueCount) return false;
    static const ClassSet strings{&String::classInfo()};
    for (std::size_t i = 0; i < *keyCount; ++i) {
      auto key = cast<String>(coder_.decodeObjectOfClassesAtIndexForKey(strings, "NS.keys", i));
      if (!key || coder_.hasFailed()) return false;
      positions_.emplace(key->str(), i);
    }
    return true;
  }

  bool has(std::string_view key) const { return positions_.count(std::string(key)) != 0; }

  template <class T>
  std::shared_ptr<T> value(std::string_view key) {
    auto found = positions_.find(std::string(key));
    if (found == positions_.end() || coder_.hasFailed()) return nullptr;
    static const ClassSet set{&T::classInfo()};
    auto object = coder_.decodeObjectOfClassesAtIndexForKey(set, "NS.objects", found->second);
    return coder_.hasFailed() ? nullptr : cast<T>(object);
  }

  // A sequence number: a non-negative integer.
  std::optional<uint64_t> sequenceValue(std::string_view key) {
    auto number = value<Number>(key);
    if (!number || number->kind() != Number::Kind::Integer || number->integerValue() < 0)
      return std::nullopt;
    return static_cast<uint64_t>(number->integerValue());
  }

  // Decodes the arguments array, element i with sets[i]. nullopt, with `why`
  // set, when the array is missing, has the wrong length or holds a refused
  // element.
  std::optional<std::vector<ObjectPtr>> arguments(const std::vector<ClassSet>& sets,
                                                  std::string& why) {
    auto found = positions_.find(std::string(kArguments));
    if (found == positions_.end()) {
      why = "the message has no arguments";
      return std::nullopt;
    }
    std::optional<std::vector<ObjectPtr>> decoded;
    static const ClassSet arrays{&Array::classInfo()};
    coder_.decodeObjectAtIndexForKeyWith(
        arrays, "NS.objects", found->second, [&](KeyedUnarchiver& array) -> ObjectPtr {
          auto count = array.countOfArrayForKey("NS.objects");
          if (!count) {
            why = "the arguments are not an array";
            return nullptr;
          }
          if (*count != sets.size()) {
            why = "wrong number of arguments: " + std::to_string(sets.size()) + " expected, " +
                  std::to_string(*count) + " received";
            return nullptr;
          }
          std::vector<ObjectPtr> objects(*count);
          for (std::size_t i = 0; i < *count && !array.hasFailed(); ++i) {
            objects[i] = array.decodeObjectOfClassesAtIndexForKey(sets[i], "NS.objects", i);
          }
          if (!array.hasFailed()) decoded = std::move(objects);
          return nullptr;
        });
    if (decoded && !coder_.hasFailed()) return decoded;
    if (why.empty()) {
      ErrorPtr error = coder_.error();
      why = error ? error->localizedDescription() : "the arguments cannot be decoded";
    }
    return std::nullopt;
  }

  void readInvocation() {
    auto sequence = sequenceValue(kSequence);
    if (!sequence) return protocolError("the invocation has no valid sequence number");
    result_.message.kind = XpcMessage::Kind::Invocation;
    result_.message.sequence = *sequence;
    auto selector = value<String>(kSelector);
    if (!selector) return refuse("the selector is not a string");
    result_.message.selector = selector->str();
    auto sets = sets_.forInvocation(selector->str());
    if (!sets) return refuse("unknown selector \"" + selector->str() + "\"");
    std::string why;
    auto decoded = arguments(*sets, why);
    if (!decoded) return refuse("\"" + selector->str() + "\": " + why);
    result_.message.arguments = std::move(*decoded);
    result_.status = XpcIncoming::Status::Message;
  }

  void readReply() {
    auto replyTo = sequenceValue(kReplyTo);
    if (!replyTo || *replyTo == 0) return protocolError("the reply has no valid sequence number");
    result_.message.kind = XpcMessage::Kind::Reply;
    result_.message.sequence = *replyTo;
    auto sets = sets_.forReply(*replyTo);
    if (!sets) {
      result_.status = XpcIncoming::Status::Ignore;
      return;
    }
    std::string why;
    auto decoded = arguments(*sets, why);
    if (!decoded) {
      result_.status = XpcIncoming::Status::BadReply;
      result_.reason = "the reply cannot be decoded: " + why;
      return;
    }
    result_.message.arguments = std::move(*decoded);
    result_.status = XpcIncoming::Status::Message;
  }

  void readRefusal() {
    auto refused = sequenceValue(kRefused);
    auto reason = value<String>(kReason);
    if (!refused || !reason) return protocolError("the refusal is malformed");
    result_.message.kind = XpcMessage::Kind::Refusal;
    result_.message.sequence = *refused;
    result_.message.reason = reason->str();
    result_.status = XpcIncoming::Status::Message;
  }

  void refuse(std::string reason) {
    result_.status = XpcIncoming::Status::Refuse;
    result_.reason = std::move(reason);
  }

  void protocolError(std::string reason) {
    result_.status = XpcIncoming::Status::ProtocolError;
    result_.reason = std::move(reason);
  }

  KeyedUnarchiver& coder_;
  XpcArgumentSets& sets_;
  XpcIncoming& result_;
  std::map<std::string, std::size_t> positions_;
};

// The first position of the key `text` among `keys`, or npos.
std::size_t positionOf(std::span<const std::string_view> keys, std::string_view text) {
  auto found = std::find(keys.begin(), keys.end(), text);
  return found == keys.end() ? std::string_view::npos
                             : static_cast<std::size_t>(found - keys.begin());
}

// The arguments array `uid` of a message, each argument decoded with its set.
bool argumentsDirectly(DirectArchiveReader& reader, uint32_t uid,
                       const std::vector<ClassSet>& classes, std::vector<ObjectPtr>& objects) {
  static const ClassSet arrays{&Array::classInfo()};
  const ClassRegistry::Entry* entry = nullptr;
  std::vector<uint32_t> uids;
  if (!reader.beginObject(uid, entry) || !arrays.allows(*entry->cls) ||
      !reader.uidsForKey(uid, "NS.objects", uids) || uids.size() != classes.size()) {
    return false;
  }
  objects.resize(uids.size());
  for (std::size_t i = 0; i < objects.size(); ++i) {
    if (!reader.decode(uids[i], &classes[i], objects[i])) return false;
  }
  return true;
}

// An invocation or a reply read as EnvelopeReader reads it, on
// DirectArchiveReader: the messages a connection receives most (size reports
// and their answers) are decoded without the general machinery. False
// whenever the reader or this function meets anything else, or the message
// is not one that decodes (a refusal, an unknown selector, a reply to nothing
// pending): the general path then gives its usual result.
bool decodeDirectly(DirectArchiveReader& reader, XpcArgumentSets& sets, XpcIncoming& result) {
  static const ClassSet dictionaries{&Dictionary::classInfo()};
  const ClassRegistry::Entry* entry = nullptr;
  uint32_t root = reader.rootUid();
  if (!reader.beginObject(root, entry) || !dictionaries.allows(*entry->cls)) return false;
  std::vector<uint32_t> keyUids;
  std::vector<uint32_t> valueUids;
  if (!reader.uidsForKey(root, "NS.keys", keyUids) ||
      !reader.uidsForKey(root, "NS.objects", valueUids) || keyUids.size() != valueUids.size()) {
    return false;
  }
  std::vector<std::string_view> keys(keyUids.size());
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (!reader.plainString(keyUids[i], keys[i])) return false;
  }
  std::size_t selectorAt = positionOf(keys, kSelector);
  bool invocation = selectorAt != std::string_view::npos;
  std::size_t sequenceAt = positionOf(keys, invocation ? kSequence : kReplyTo);
  std::size_t argumentsAt = positionOf(keys, kArguments);
  if (sequenceAt == std::string_view::npos || argumentsAt == std::string_view::npos) return false;
  int64_t sequence = 0;
  if (!reader.plainInteger(valueUids[sequenceAt], sequence) || sequence < 0 ||
      (!invocation && sequence == 0)) {
    return false;
  }
  std::string_view selector;
  if (invocation && !reader.plainString(valueUids[selectorAt], selector)) return false;
  auto classes =
      invocation ? sets.forInvocation(selector) : sets.forReply(static_cast<uint64_t>(sequence));
  std::vector<ObjectPtr> objects;
  if (!classes || !argumentsDirectly(reader, valueUids[argumentsAt], *classes, objects)) {
    return false;
  }
  result.status = XpcIncoming::Status::Message;
  result.message.kind = invocation ? XpcMessage::Kind::Invocation : XpcMessage::Kind::Reply;
  result.message.sequence = static_cast<uint64_t>(sequence);
  result.message.selector = std::string(selector);
  result.message.arguments = std::move(objects);
  return true;
}

// An argument that archives as a plain value: nil, a number or a string
// (exactly these classes, as KeyedArchiver tells them apart).
bool isPlain(const ObjectPtr& object) {
  if (!object) return true;
  const ClassInfo& cls = object->objectClass();
  return &cls == &Number::classInfo() || &cls == &String::classInfo();
}

// The UID of a number or string object written as KeyedArchiver writes it.
uint32_t plainObject(KeyedArchiveWriter& coder, const Object& object) {
  if (&object.objectClass() == &String::classInfo())
    return coder.stringObject(static_cast<const String&>(object).str());
  const auto& number = static_cast<const Number&>(object);
  switch (number.kind()) {
    case Number::Kind::Bool:
      return coder.boolObject(number.boolValue());
    case Number::Kind::Real:
      return coder.realObject(number.doubleValue());
    case Number::Kind::Integer:
      break;
  }
  return coder.integerObject(number.integerValue());
}

// The arguments array, as Array::encodeWithCoder archives it: each element
// before its UID, then the array's own keys. `writeArgument(coder, i, uids)`
// writes element i and answers its UID; `uids` holds those of the elements
// before it.
template <class WriteArgument>
uint32_t writeArguments(KeyedArchiveWriter& coder, std::size_t count,
                        WriteArgument&& writeArgument) {
  using Value = KeyedArchiveWriter::Value;
  constexpr std::size_t kInline = 8;
  uint32_t inlineUids[kInline];
  Value inlineValues[kInline];
  std::vector<uint32_t> heapUids;
  std::vector<Value> heapValues;
  if (count > kInline) {
    heapUids.resize(count);
    heapValues.resize(count);
  }
  std::span<uint32_t> uids = count > kInline ? std::span(heapUids) : std::span(inlineUids, count);
  std::span<Value> elements =
      count > kInline ? std::span(heapValues) : std::span(inlineValues, count);
  uint32_t uid = coder.reserveObject();
  for (std::size_t i = 0; i < count; ++i) {
    uids[i] = writeArgument(coder, i, std::span<const uint32_t>(uids.data(), i));
    elements[i] = coder.uidValue(uids[i]);
  }
  Value key = coder.keyValue("NS.objects");
  Value array = coder.arrayOfUids(key, elements);
  coder.fillObject(uid, coder.classValue(Array::classInfo()), {&key, 1}, {&array, 1});
  return uid;
}

// The root dictionary of a message, as Dictionary::encodeWithCoder archives
// it: its keys (a string object each), then its values, `writeValue(i)`
// writing the object of keys[i] and answering its UID.
template <class WriteValue>
uint32_t writeEnvelope(KeyedArchiveWriter& coder, std::initializer_list<std::string_view> keys,
                       WriteValue&& writeValue) {
  using Value = KeyedArchiveWriter::Value;
  constexpr std::size_t kMostKeys = 3;
  std::size_t count = std::min(keys.size(), kMostKeys);
  uint32_t root = coder.reserveObject();
  Value keyValues[kMostKeys];
  for (std::size_t i = 0; i < count; ++i)
    keyValues[i] = coder.uidValue(coder.stringObject(keys.begin()[i]));
  Value nsKeys = coder.keyValue("NS.keys");
  Value keyArray = coder.arrayOfUids(nsKeys, {keyValues, count});
  Value values[kMostKeys];
  for (std::size_t i = 0; i < count; ++i) values[i] = coder.uidValue(writeValue(i));
  Value nsObjects = coder.keyValue("NS.objects");
  Value rootKeys[] = {nsKeys, nsObjects};
  Value rootValues[] = {keyArray, coder.arrayOfUids(nsObjects, {values, count})};
  coder.fillObject(root, coder.classValue(Dictionary::classInfo()), rootKeys, rootValues);
  return root;
}

}  // namespace

XpcMessage XpcMessage::invocation(std::string selector, std::vector<ObjectPtr> arguments,
                                  uint64_t sequence) {
  XpcMessage message;
  message.kind = Kind::Invocation;
  message.selector = std::move(selector);
  message.arguments = std::move(arguments);
  message.sequence = sequence;
  return message;
}

XpcMessage XpcMessage::reply(uint64_t replyTo, std::vector<ObjectPtr> arguments) {
  XpcMessage message;
  message.kind = Kind::Reply;
  message.sequence = replyTo;
  message.arguments = std::move(arguments);
  return message;
}

XpcMessage XpcMessage::refusal(uint64_t refused, std::string reason) {
  XpcMessage message;
  message.kind = Kind::Refusal;
  message.sequence = refused;
  message.reason = std::move(reason);
  return message;
}

std::vector<uint8_t> XpcMessage::encode() const {
  if (!std::all_of(arguments.begin(), arguments.end(), isPlain)) return encodeObjectGraph();
  auto writeArgument = [&](KeyedArchiveWriter& coder, std::size_t i,
                           std::span<const uint32_t> uids) {
    // An object met twice is archived once, as KeyedArchiver does by identity.
    const ObjectPtr& object = arguments[i];
    if (!object) return uint32_t{0};
    for (std::size_t j = 0; j < i; ++j) {
      if (arguments[j] == object) return uids[j];
    }
    return plainObject(coder, *object);
  };
  return KeyedArchiveWriter::archiveOfRoot([&](KeyedArchiveWriter& coder) {
    switch (kind) {
      case Kind::Invocation:
        return writeEnvelope(coder, {kSelector, kArguments, kSequence}, [&](std::size_t i) {
          if (i == 0) return coder.stringObject(selector);
          if (i == 1) return writeArguments(coder, arguments.size(), writeArgument);
          return coder.integerObject(static_cast<int64_t>(sequence));
        });
      case Kind::Reply:
        return writeEnvelope(coder, {kReplyTo, kArguments}, [&](std::size_t i) {
          if (i == 0) return coder.integerObject(static_cast<int64_t>(sequence));
          return writeArguments(coder, arguments.size(), writeArgument);
        });
      case Kind::Refusal:
        break;
    }
    return writeEnvelope(coder, {kRefused, kReason}, [&](std::size_t i) {
      return i == 0 ? coder.integerObject(static_cast<int64_t>(sequence))
                    : coder.stringObject(reason);
    });
  });
}

std::vector<uint8_t> XpcMessage::encodeObjectGraph() const {
  DictionaryPtr root;
  auto number = [](uint64_t value) {
    return Number::numberWithInteger(static_cast<int64_t>(value));
  };
  switch (kind) {
    case Kind::Invocation:
      root = Dictionary::withStringKeys({{kSelector, str(selector)},
                                         {kArguments, Array::make(arguments)},
                                         {kSequence, number(sequence)}});
      break;
    case Kind::Reply:
      root = Dictionary::withStringKeys(
          {{kReplyTo, number(sequence)}, {kArguments, Array::make(arguments)}});
      break;
    case Kind::Refusal:
      root = Dictionary::withStringKeys({{kRefused, number(sequence)}, {kReason, str(reason)}});
      break;
  }
  DataPtr data = KeyedArchiver::archivedDataWithRootObject(root);
  return data ? data->bytes() : std::vector<uint8_t>();
}

std::vector<uint8_t> XpcMessage::encodeInvocation(std::string_view selector,
                                                  std::span<const ArgumentWriter> arguments,
                                                  uint64_t sequence) {
  auto writeArgument = [&](KeyedArchiveWriter& coder, std::size_t i, std::span<const uint32_t>) {
    return arguments[i](coder);
  };
  return KeyedArchiveWriter::archiveOfRoot([&](KeyedArchiveWriter& coder) {
    return writeEnvelope(coder, {kSelector, kArguments, kSequence}, [&](std::size_t i) {
      if (i == 0) return coder.stringObject(selector);
      if (i == 1) return writeArguments(coder, arguments.size(), writeArgument);
      return coder.integerObject(static_cast<int64_t>(sequence));
    });
  });
}

XpcIncoming XpcIncoming::decode(std::span<const uint8_t> payload, XpcArgumentSets& sets) {
  XpcIncoming result;
  if (KeyedUnarchiver::readDirectly(payload, [&](DirectArchiveReader& reader) {
        return decodeDirectly(reader, sets, result);
      })) {
    return result;
  }
  result = XpcIncoming{};
  bool visited = false;
  static const ClassSet dictionaries{&Dictionary::classInfo()};
  ErrorPtr error;
  KeyedUnarchiver::unarchiveRootWith(
      payload, dictionaries,
      [&](KeyedUnarchiver& coder) -> ObjectPtr {
        visited = true;
        EnvelopeReader(coder, sets, result).read();
        return nullptr;
      },
      &error);
  if (!visited) {
    result.status = Status::ProtocolError;
    result.reason = error ? error->localizedDescription() : "the frame is not a keyed archive";
  }
  return result;
}

}  // namespace qx
