#include "platform/foundation/ClassRegistry.h"

#include <map>
#include <mutex>
#include <memory>
#include <shared_mutex>
#include <string>

namespace qx {
namespace {

struct Table {
  std::shared_mutex mutex;
  // std::map keeps entries at stable addresses, so lookups can hand out pointers.
  std::map<std::string, ClassRegistry::Entry, std::less<>> entries;
};

Table& table() {
  static Table* instance = new Table;  // never destroyed: used until exit
  return *instance;
}

}  // namespace

void ClassRegistry::registerClass(const ClassInfo& cls, DecodeFactory factory) {
  Table& t = table();
  std::unique_lock lock(t.mutex);
  t.entries.insert_or_assign(std::string(cls.name()), Entry{&cls, factory});
}

const ClassRegistry::Entry* ClassRegistry::lookup(std::string_view name) {
  Table& t = table();
  std::shared_lock lock(t.mutex);
  auto it = t.entries.find(name);
  return it == t.entries.end() ? nullptr : &it->second;
}

}  // namespace qx
