#include "platform/archive/KeyedArchiveWriter.h"

#include <string>

#include "platform/archive/ScratchPool.h"

namespace qx {
namespace {

// Element by element: the arrays compared are a record's few references,
// fewer than a call of memcmp costs.
bool sameRefs(std::span<const KeyedArchiveWriter::Value> a,
              std::span<const KeyedArchiveWriter::Value> b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

// A state that held more than this is not kept for the next archive.
constexpr std::size_t kKeepBytes = 4 << 20;

}  // namespace

void KeyedArchiveWriter::State::reset() {
  objects.clear();
  classUids.clear();
  classKey = 0;
  lastArrayCount = 0;
}

bool KeyedArchiveWriter::State::recycle() {
  reset();
  return plist.memoryUse() + objects.capacity() * sizeof(Slot) <= kKeepBytes;
}

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
  coder.newObject(state.plist.addString("$null"));
  state.classKey = state.plist.addString("$class");
  uint32_t root = writeRoot(coder);
  std::vector<uint8_t> bytes = coder.finish(root);
  if (state.refWidth != refWidth) return {};
  state.lastBytes = bytes.size();
  return bytes;
}

std::vector<uint8_t> KeyedArchiveWriter::finish(uint32_t rootUid) {
  BinaryPlistStream& plist = state_.plist;
  Value rootKey = plist.addString("root");
  Value rootValue = uidValue(rootUid);
  const std::vector<State::Slot>& objects = state_.objects;
  Value keys[] = {plist.addString("$archiver"), plist.addString("$objects"),
                  plist.addString("$top"), plist.addString("$version")};
  Value values[] = {plist.addString("NSKeyedArchiver"),
                    plist.addArray(objects.size(), [&](std::size_t i) { return objects[i].value; }),
                    plist.addDictionary({&rootKey, 1}, {&rootValue, 1}), plist.addInteger(100000)};
  Value top = plist.addDictionary(keys, values);
  state_.refWidth = BinaryPlistStream::refWidthFor(plist.count());
  return plist.finish(top);
}

uint32_t KeyedArchiveWriter::classUid(const ClassInfo& cls) {
  for (const auto& [known, uid] : state_.classUids) {
    if (known == &cls) return uid;
  }
  BinaryPlistStream& plist = state_.plist;
  const std::vector<std::string_view>& chain = chainOf(cls);
  // The names on the stack for the usual short chain.
  constexpr std::size_t kInlineNames = 8;
  Value inlineNames[kInlineNames];
  std::vector<Value> heapNames(chain.size() > kInlineNames ? chain.size() : 0);
  Value* names = chain.size() > kInlineNames ? heapNames.data() : inlineNames;
  for (std::size_t i = 0; i < chain.size(); ++i) names[i] = plist.addString(chain[i]);
  Value keys[] = {plist.addString("$classname"), plist.addString("$classes")};
  Value values[] = {plist.addString(cls.name()), plist.addArray({names, chain.size()})};
  uint32_t uid = newObject(plist.addDictionary(keys, values));
  state_.classUids.emplace_back(&cls, uid);
  return uid;
}

const std::vector<std::string_view>& KeyedArchiveWriter::chainOf(const ClassInfo& cls) {
  for (const auto& [known, chain] : state_.chains) {
    if (known == &cls) return chain;
  }
  state_.chains.emplace_back(&cls, cls.chain());
  return state_.chains.back().second;
}

KeyedArchiveWriter::Value KeyedArchiveWriter::keyValue(std::string_view key) {
  // A key that begins with '$' gets one more '$', so that it cannot collide
  // with the archive's own keys ($class, ...).
  if (key.starts_with('$')) return state_.plist.addString("$" + std::string(key));
  return state_.plist.addString(key);
}

KeyedArchiveWriter::Value KeyedArchiveWriter::arrayOfUids(Value key, std::span<const Value> uids) {
  State::LastArray* last = nullptr;
  for (std::size_t i = 0; i < state_.lastArrayCount; ++i) {
    if (state_.lastArrays[i].key == key) {
      last = &state_.lastArrays[i];
      break;
    }
  }
  if (last && sameRefs(last->elements, uids)) return last->array;
  Value array = state_.plist.addArray(uids);
  if (!last) {
    if (state_.lastArrayCount == State::kSharedArrayKeys) return array;
    last = &state_.lastArrays[state_.lastArrayCount++];
    last->key = key;
  }
  last->array = array;
  // Element by element, as sameRefs compares them.
  last->elements.resize(uids.size());
  for (std::size_t i = 0; i < uids.size(); ++i) last->elements[i] = uids[i];
  return array;
}

}  // namespace qx
