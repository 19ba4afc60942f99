#include "platform/xpc/XpcInterface.h"

#include "platform/foundation/Array.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/Dictionary.h"
#include "platform/foundation/Number.h"
#include "platform/foundation/String.h"

namespace qx {
namespace {

const XpcArgumentKind* argumentKind(const XpcMethod& method, std::size_t index, bool ofReply) {
  const auto& kinds = ofReply ? method.replyArguments : method.arguments;
  return index < kinds.size() ? &kinds[index] : nullptr;
}

}  // namespace

ClassSet XpcInterface::defaultClasses(const XpcArgumentKind& kind) {
  ClassSet set;
  if (!kind.declaredClass) return set;
  set.add(*kind.declaredClass);
  if (kind.declaredClass->isSubclassOf(Array::classInfo()) ||
      kind.declaredClass->isSubclassOf(Dictionary::classInfo())) {
    for (const ClassInfo* plist : {&String::classInfo(), &Number::classInfo(), &Data::classInfo(),
                                   &Array::classInfo(), &Dictionary::classInfo()}) {
      if (!set.contains(*plist)) set.add(*plist);
    }
  }
  return set;
}

bool XpcInterface::setClasses(const ClassSet& classes, std::string_view selector,
                              std::size_t argumentIndex, bool ofReply) {
  const XpcMethod* method = protocol_.method(selector);
  if (!method || !argumentKind(*method, argumentIndex, ofReply)) return false;
  std::lock_guard lock(mutex_);
  sets_[Key(std::string(selector), argumentIndex, ofReply)] = classes;
  return true;
}

ClassSet XpcInterface::classes(std::string_view selector, std::size_t argumentIndex,
                               bool ofReply) const {
  const XpcMethod* method = protocol_.method(selector);
  const XpcArgumentKind* kind = method ? argumentKind(*method, argumentIndex, ofReply) : nullptr;
  if (!kind) return ClassSet();
  {
    std::lock_guard lock(mutex_);
    auto found = sets_.find(Key(std::string(selector), argumentIndex, ofReply));
    if (found != sets_.end()) return found->second;
  }
  return defaultClasses(*kind);
}

std::optional<std::vector<ClassSet>> XpcInterface::argumentClasses(std::string_view selector,
                                                                   bool ofReply) const {
  const XpcMethod* method = protocol_.method(selector);
  if (!method) return std::nullopt;
  std::size_t count = ofReply ? method->replyArguments.size() : method->arguments.size();
  std::vector<ClassSet> sets;
  sets.reserve(count);
  for (std::size_t i = 0; i < count; ++i) sets.push_back(classes(selector, i, ofReply));
  return sets;
}

}  // namespace qx
