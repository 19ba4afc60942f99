// Differential check of DirectArchiveReader against the general decoder: each
// input is decoded as an incoming message (with the sets both ends of a
// service connection use) and as a plain archive (unrestricted, and
// restricted to a size report's classes), once as usual, where the direct
// reader is tried first, and once with the general path only. The outcomes
// must be the same: the same status and reason of a message, the same error
// or none, and object graphs equal value for value and shared the same way.
// Anything else aborts.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <span>

#include "fuzz/FuzzArgumentSets.h"
#include "model/ModelClasses.h"
#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXFileSizeItem.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcMessage.h"
#include "tests/platform/archive/ArchiveTestClasses.h"

using namespace qx;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

// Equality of two decoded graphs, with objects paired one to one: an object
// met twice on one side meets the same object twice on the other.
class SameGraph {
 public:
  bool operator()(const ObjectPtr& a, const ObjectPtr& b) {
    if (!a || !b) return !a && !b;
    auto [pairA, newA] = pairs_.emplace(a.get(), b.get());
    auto [pairB, newB] = reverse_.emplace(b.get(), a.get());
    if (!newA || !newB) return pairA->second == b.get() && pairB->second == a.get();
    if (&a->objectClass() != &b->objectClass()) return false;
    if (auto x = cast<Array>(a)) {
      auto y = cast<Array>(b);
      if (x->count() != y->count()) return false;
      for (std::size_t i = 0; i < x->count(); ++i) {
        if (!(*this)(x->objects()[i], y->objects()[i])) return false;
      }
      return true;
    }
    if (auto x = cast<Dictionary>(a)) {
      auto y = cast<Dictionary>(b);
      if (x->count() != y->count()) return false;
      for (std::size_t i = 0; i < x->count(); ++i) {
        if (!(*this)(x->entries()[i].first, y->entries()[i].first) ||
            !(*this)(x->entries()[i].second, y->entries()[i].second)) {
          return false;
        }
      }
      return true;
    }
    if (auto x = cast<Number>(a)) {
      auto y = cast<Number>(b);
      double p = x->doubleValue();
      double q = y->doubleValue();
      return x->kind() == y->kind() && x->integerValue() == y->integerValue() &&
             std::memcmp(&p, &q, sizeof p) == 0;
    }
    if (auto x = cast<QXFileSizeItem>(a)) {
      auto y = cast<QXFileSizeItem>(b);
      return x->size() == y->size() && x->busy() == y->busy();
    }
    if (auto x = cast<Error>(a)) {
      auto y = cast<Error>(b);
      return x->domain() == y->domain() && x->code() == y->code() &&
             (*this)(x->userInfo(), y->userInfo());
    }
    if (auto x = cast<FileReferenceUrl>(a)) {
      return x->isEqual(*b) && x->keptPath() == cast<FileReferenceUrl>(b)->keptPath();
    }
    if (auto x = cast<TreeNode>(a)) {
      auto y = cast<TreeNode>(b);
      if (!(*this)(x->representedObject(), y->representedObject())) return false;
      if (x->childNodes().size() != y->childNodes().size()) return false;
      for (std::size_t i = 0; i < x->childNodes().size(); ++i) {
        if (!(*this)(x->childNodes()[i], y->childNodes()[i])) return false;
      }
      return true;
    }
    if (auto x = cast<QXAclEntry>(a)) {
      auto y = cast<QXAclEntry>(b);
      return x->tag() == y->tag() && x->inherited() == y->inherited() &&
             (*this)(x->uuid(), y->uuid()) && (*this)(x->permissions(), y->permissions());
    }
    if (auto x = cast<QXAclPermission>(a)) {
      auto y = cast<QXAclPermission>(b);
      return x->permission() == y->permission() && x->state() == y->state() &&
             (*this)(x->name(), y->name());
    }
    if (auto x = cast<testing::NestingNode>(a)) {
      auto y = cast<testing::NestingNode>(b);
      if (!(*this)(x->object, y->object) || x->children.size() != y->children.size()) return false;
      for (std::size_t i = 0; i < x->children.size(); ++i) {
        if (!(*this)(x->children[i], y->children[i])) return false;
      }
      return true;
    }
    return a->isEqual(*b);  // String, Data, Url, Uuid, IndexPath, the test records
  }

 private:
  std::map<const Object*, const Object*> pairs_;
  std::map<const Object*, const Object*> reverse_;
};

void sameMessages(const XpcIncoming& a, const XpcIncoming& b) {
  check(a.status == b.status && a.reason == b.reason);
  check(a.message.kind == b.message.kind && a.message.selector == b.message.selector &&
        a.message.sequence == b.message.sequence && a.message.reason == b.message.reason);
  check(a.message.arguments.size() == b.message.arguments.size());
  SameGraph same;
  for (std::size_t i = 0; i < a.message.arguments.size(); ++i) {
    check(same(a.message.arguments[i], b.message.arguments[i]));
  }
}

template <class Decode>
void sameArchives(Decode&& decode) {
  ErrorPtr firstError;
  ObjectPtr first = decode(firstError);
  ErrorPtr secondError;
  ObjectPtr second;
  {
    KeyedUnarchiver::GeneralPathOnly general;
    second = decode(secondError);
  }
  check((firstError == nullptr) == (secondError == nullptr));
  if (firstError) check(firstError->localizedDescription() == secondError->localizedDescription());
  check(SameGraph()(first, second));
}

const ClassSet& reportClasses() {
  static const ClassSet classes{&Array::classInfo(), &Dictionary::classInfo(), &String::classInfo(),
                                &IndexPath::classInfo(), &QXFileSizeItem::classInfo()};
  return classes;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  registerModelClasses();
  // The archive tests' records too: a flat record, a subclass, and a node
  // that unarchives its children from inside its initWithCoder.
  testing::registerTestClasses();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzArgumentSets sets;
  std::span<const uint8_t> bytes(data, size);
  XpcIncoming direct = XpcIncoming::decode(bytes, sets);
  XpcIncoming general;
  {
    KeyedUnarchiver::GeneralPathOnly only;
    general = XpcIncoming::decode(bytes, sets);
  }
  sameMessages(direct, general);
  sameArchives(
      [&](ErrorPtr& error) { return KeyedUnarchiver::unarchiveObjectWithData(bytes, &error); });
  sameArchives([&](ErrorPtr& error) {
    return KeyedUnarchiver::unarchivedObjectOfClasses(reportClasses(), bytes, &error);
  });
  return 0;
}
