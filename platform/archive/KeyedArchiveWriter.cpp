#include "platform/archive/KeyedArchiveWriter.h"

#include <string>

#include "platform/archive/BinaryPlistStream.h"
#include "platform/archive/ScratchPool.h"

namespace qx {

using Ref = BinaryPlistStream::Ref;

struct KeyedArchiveWriter::State {
  BinaryPlistStream plist;
  // $objects: the plist value of each UID; a reserved slot holds kNoValue
  // until its object is filled.
  std::vector<Ref> objects;
  // One plist UID value per UID number, made on first use.
  std::vector<Ref> uidValues;
  std::vector<std::pair<const ClassInfo*, uint32_t>> classUids;
  Ref classKey = 0;
  // The last inline array of UIDs written under each key, with its elements:
  // an array equal to the one before it under the same key is shared, as
  // KeyedArchiver shares it (the NS.keys of every record of a report).
  struct LastArray {
    Ref key = 0;
    Ref array = 0;
    std::vector<Ref> elements;
  };
  static constexpr std::size_t kSharedArrayKeys = 8;
  LastArray lastArrays[kSharedArrayKeys];
  std::size_t lastArrayCount = 0;
  // Guesses for the next archive of this thread: the reference width and
  // the size of the last one.
  unsigned refWidth = 2;
  std::size_t lastBytes = 4096;

  static constexpr Ref kNoValue = 0xffffffffU;
  // A state that held more than this is not kept for the next archive.
  static constexpr std::size_t kKeepBytes = 4 << 20;

  void reset() {
    objects.clear();
    uidValues.clear();
    classUids.clear();
    classKey = 0;
    lastArrayCount = 0;
  }

  // Empties the state for the next archive of this thread (ScratchPool).
  bool recycle() {
    reset();
    return plist.memoryUse() + (objects.capacity() + uidValues.capacity()) * sizeof(Ref) <=
           kKeepBytes;
  }
};

KeyedArchiveWriter::~KeyedArchiveWriter() = default;

std::vector<uint8_t> KeyedArchiveWriter::archiveOfRoot(
    const std::function<uint32_t(KeyedArchiveWriter&)>& writeRoot) {
  try {
    ScratchPool<State>::Lease lease;
    State& state = *lease;
    // The width guessed from the last archive is nearly always right; when
    // it is not, the second attempt knows the count and is.
    for (int tries = 0; tries < 2; ++tries) {
      std::vector<uint8_t> bytes = attempt(state, state.refWidth, writeRoot);
      if (!bytes.empty()) return bytes;
    }
    return {};
  } catch (...) {
    // Out of memory, or a writer that threw: no archive.
    return {};
  }
}

std::vector<uint8_t> KeyedArchiveWriter::attempt(
    State& state, unsigned refWidth,
    const std::function<uint32_t(KeyedArchiveWriter&)>& writeRoot) {
  state.reset();
  state.plist.start(refWidth, state.lastBytes + state.lastBytes / 8);
  KeyedArchiveWriter coder(state);
  state.objects.push_back(state.plist.addString("$null"));
  state.uidValues.push_back(State::kNoValue);
  state.classKey = state.plist.addString("$class");
  uint32_t root = writeRoot(coder);
  std::vector<uint8_t> bytes = coder.finish(root);
  if (state.refWidth != refWidth) return {};
  state.lastBytes = bytes.size();
  return bytes;
}

std::vector<uint8_t> KeyedArchiveWriter::finish(uint32_t rootUid) {
  BinaryPlistStream& plist = state_.plist;
  Ref rootKey = plist.addString("root");
  Ref rootValue = uidValue(rootUid);
  Ref keys[] = {plist.addString("$archiver"), plist.addString("$objects"), plist.addString("$top"),
                plist.addString("$version")};
  Ref values[] = {plist.addString("NSKeyedArchiver"), plist.addArray(state_.objects),
                  plist.addDictionary({&rootKey, 1}, {&rootValue, 1}), plist.addInteger(100000)};
  Ref top = plist.addDictionary(keys, values);
  state_.refWidth = BinaryPlistStream::refWidthFor(plist.count());
  return plist.finish(top);
}

uint32_t KeyedArchiveWriter::classUid(const ClassInfo& cls) {
  for (const auto& [known, uid] : state_.classUids) {
    if (known == &cls) return uid;
  }
  BinaryPlistStream& plist = state_.plist;
  std::vector<Ref> names;
  for (std::string_view name : cls.chain()) names.push_back(plist.addString(name));
  Ref keys[] = {plist.addString("$classname"), plist.addString("$classes")};
  Ref values[] = {plist.addString(cls.name()), plist.addArray(names)};
  uint32_t uid = newObject(plist.addDictionary(keys, values));
  state_.classUids.emplace_back(&cls, uid);
  return uid;
}

KeyedArchiveWriter::Value KeyedArchiveWriter::keyValue(std::string_view key) {
  // A key that begins with '$' gets one more '$', so that it cannot collide
  // with the archive's own keys ($class, ...).
  if (key.starts_with('$')) return state_.plist.addString("$" + std::string(key));
  return state_.plist.addString(key);
}

KeyedArchiveWriter::Value KeyedArchiveWriter::integerValue(int64_t value) {
  return state_.plist.addInteger(value);
}

KeyedArchiveWriter::Value KeyedArchiveWriter::boolValue(bool value) {
  return state_.plist.addBool(value);
}

KeyedArchiveWriter::Value KeyedArchiveWriter::uidValue(uint32_t uid) {
  Ref& value = state_.uidValues[uid];
  if (value == State::kNoValue) value = state_.plist.addUid(uid);
  return value;
}

uint32_t KeyedArchiveWriter::newObject(Value value) {
  auto uid = static_cast<uint32_t>(state_.objects.size());
  state_.objects.push_back(value);
  state_.uidValues.push_back(State::kNoValue);
  return uid;
}

uint32_t KeyedArchiveWriter::stringObject(std::string_view text) {
  return newObject(state_.plist.addString(text));
}

uint32_t KeyedArchiveWriter::integerObject(int64_t value) {
  return newObject(state_.plist.addInteger(value));
}

uint32_t KeyedArchiveWriter::dataObject(std::span<const uint8_t> bytes) {
  return newObject(state_.plist.addData(bytes));
}

uint32_t KeyedArchiveWriter::reserveObject() {
  return newObject(State::kNoValue);
}

void KeyedArchiveWriter::fillObject(uint32_t uid, const ClassInfo& cls,
                                    std::span<const Value> keys, std::span<const Value> values) {
  Value classValue = uidValue(classUid(cls));
  state_.objects[uid] = state_.plist.addDictionary(keys, values, state_.classKey, classValue);
}

KeyedArchiveWriter::Value KeyedArchiveWriter::arrayOfUids(Value key, std::span<const Value> uids) {
  BinaryPlistStream& plist = state_.plist;
  for (std::size_t i = 0; i < state_.lastArrayCount; ++i) {
    State::LastArray& last = state_.lastArrays[i];
    if (last.key != key) continue;
    if (last.elements.size() == uids.size() &&
        std::equal(uids.begin(), uids.end(), last.elements.begin())) {
      return last.array;
    }
    last.array = plist.addArray(uids);
    last.elements.assign(uids.begin(), uids.end());
    return last.array;
  }
  Ref array = plist.addArray(uids);
  if (state_.lastArrayCount < State::kSharedArrayKeys) {
    State::LastArray& last = state_.lastArrays[state_.lastArrayCount++];
    last.key = key;
    last.array = array;
    last.elements.assign(uids.begin(), uids.end());
  }
  return array;
}

}  // namespace qx
