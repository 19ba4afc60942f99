// Hostile input for the incoming side of a connection: one frame payload,
// decoded as a message envelope whose arguments are decoded with the class
// sets the service and the client really use (FuzzArgumentSets), so that they
// reach the model classes. Besides "no crash, no leak, no undefined
// behaviour", it checks that every outcome that is not a message gives a
// reason, that a reply is ignored exactly when nothing waits for it, that a
// decoded message has one argument per set, and that a decoded message
// encodes again into a payload that decodes to the same kind, selector,
// sequence, reason and arguments (compared value by value).
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "fuzz/FuzzArgumentSets.h"
#include "model/ModelClasses.h"
#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXFileSizeItem.h"
#include "platform/foundation/FileReferenceUrl.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcMessage.h"

using namespace qx;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

// Deep equality of two decoded values. The Foundation values compare with
// isEqual; containers, errors, tree nodes and the model records (whose
// isEqual is identity) field by field. A pair met before counts as equal, so
// that shared subgraphs are compared once.
class SameValue {
 public:
  bool operator()(const ObjectPtr& a, const ObjectPtr& b) {
    if (!a || !b) return !a && !b;
    if (&a->objectClass() != &b->objectClass()) return false;
    if (!seen_.emplace(a.get(), b.get()).second) return true;
    if (auto x = cast<Array>(a)) return sameArrays(x->objects(), cast<Array>(b)->objects());
    if (auto x = cast<Dictionary>(a)) return sameEntries(*x, *cast<Dictionary>(b));
    if (auto x = cast<Error>(a)) {
      auto y = cast<Error>(b);
      return x->domain() == y->domain() && x->code() == y->code() &&
             (*this)(x->userInfo(), y->userInfo());
    }
    if (auto x = cast<FileReferenceUrl>(a)) {
      return x->isEqual(*b) && x->keptPath() == cast<FileReferenceUrl>(b)->keptPath();
    }
    if (auto x = cast<Number>(a)) {
      auto y = cast<Number>(b);
      bool bothNan = std::isnan(x->doubleValue()) && std::isnan(y->doubleValue());
      return x->isEqual(*y) || bothNan;
    }
    if (auto x = cast<TreeNode>(a)) {
      auto y = cast<TreeNode>(b);
      return (*this)(x->representedObject(), y->representedObject()) &&
             sameArrays(x->childNodes(), y->childNodes());
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
    if (auto x = cast<QXFileSizeItem>(a)) {
      auto y = cast<QXFileSizeItem>(b);
      return x->size() == y->size() && x->busy() == y->busy();
    }
    return a->isEqual(*b);  // String, Data, Url, Uuid, IndexPath
  }

 private:
  template <class T>
  bool sameArrays(const std::vector<T>& a, const std::vector<T>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (!(*this)(a[i], b[i])) return false;
    }
    return true;
  }

  bool sameEntries(const Dictionary& a, const Dictionary& b) {
    if (a.count() != b.count()) return false;
    for (std::size_t i = 0; i < a.count(); ++i) {
      if (!(*this)(a.entries()[i].first, b.entries()[i].first) ||
          !(*this)(a.entries()[i].second, b.entries()[i].second)) {
        return false;
      }
    }
    return true;
  }

  std::set<std::pair<const Object*, const Object*>> seen_;
};

std::size_t expectedArguments(FuzzArgumentSets& sets, const XpcMessage& message) {
  auto expected = message.kind == XpcMessage::Kind::Invocation
                      ? sets.forInvocation(message.selector)
                      : sets.forReply(message.sequence);
  check(expected.has_value());
  return expected->size();
}

void checkRoundTrip(FuzzArgumentSets& sets, const XpcMessage& message) {
  std::vector<uint8_t> payload = message.encode();
  check(!payload.empty());
  XpcIncoming again = XpcIncoming::decode(payload, sets);
  check(again.status == XpcIncoming::Status::Message);
  const XpcMessage& back = again.message;
  check(back.kind == message.kind && back.selector == message.selector &&
        back.sequence == message.sequence && back.reason == message.reason);
  check(back.arguments.size() == message.arguments.size());
  SameValue same;
  for (std::size_t i = 0; i < back.arguments.size(); ++i) {
    check(same(back.arguments[i], message.arguments[i]));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  registerModelClasses();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzArgumentSets sets;
  XpcIncoming incoming = XpcIncoming::decode(std::span<const uint8_t>(data, size), sets);
  const XpcMessage& message = incoming.message;
  switch (incoming.status) {
    case XpcIncoming::Status::ProtocolError:
    case XpcIncoming::Status::Refuse:
    case XpcIncoming::Status::BadReply:
      check(!incoming.reason.empty());
      return 0;
    case XpcIncoming::Status::Ignore:
      check(message.kind == XpcMessage::Kind::Reply && !sets.forReply(message.sequence));
      return 0;
    case XpcIncoming::Status::Message:
      break;
  }
  if (message.kind != XpcMessage::Kind::Refusal) {
    check(message.arguments.size() == expectedArguments(sets, message));
  }
  if (message.kind == XpcMessage::Kind::Reply) check(message.sequence > 0);
  checkRoundTrip(sets, message);
  return 0;
}
