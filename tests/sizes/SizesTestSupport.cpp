#include "SizesTestSupport.h"

#include <sys/fsuid.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "model/ModelClasses.h"
#include "model/QXFileSizeItem.h"
#include "platform/xpc/UniqueFd.h"
#include "platform/xpc/XpcInterface.h"
#include "platform/xpc/XpcMethod.h"

namespace qx::sizestest {

namespace {

void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

AsNobody::AsNobody() {
  setfsgid(65534);
  setfsuid(65534);
}

AsNobody::~AsNobody() {
  setfsuid(0);
  setfsgid(0);
}

std::vector<Record> recordsOf(const ArrayPtr& batch) {
  std::vector<Record> records;
  if (!batch) return records;
  for (const ObjectPtr& object : *batch) {
    auto record = cast<Dictionary>(object);
    auto indexPath = record ? record->objectForKeyAs<IndexPath>("QXIndexPath") : nullptr;
    auto item = record ? record->objectForKeyAs<QXFileSizeItem>("QXFileSizeItem") : nullptr;
    if (!indexPath || !item || record->count() != 2) {
      records.push_back({{999999}, -999, true});
      continue;
    }
    records.push_back({indexPath->indexes(), item->size(), item->busy()});
  }
  return records;
}

std::string describe(const std::vector<Record>& records) {
  std::ostringstream out;
  for (const Record& record : records) {
    out << "[";
    for (std::size_t i = 0; i < record.indexPath.size(); ++i) {
      out << (i ? "," : "") << record.indexPath[i];
    }
    out << "] " << record.size << (record.busy ? " busy" : "") << "\n";
  }
  return out.str();
}

void SizesClient::updateFileSizes(ArrayPtr sizes, OnceCallback<void(bool)> reply) {
  std::unique_lock lock(mutex_);
  reports_.push_back(recordsOf(sizes));
  std::size_t report = reports_.size();
  arrived_.notify_all();
  if (!answer_) {
    held_.push_back(std::move(reply));
    return;
  }
  bool answer = answer_(report);
  lock.unlock();
  reply(answer);
}

std::vector<std::vector<Record>> SizesClient::reports() {
  std::lock_guard lock(mutex_);
  return reports_;
}

bool SizesClient::waitForReports(std::size_t count) {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, std::chrono::seconds(20),
                           [&] { return reports_.size() >= count; });
}

void SizesClient::answerHeld(bool answer) {
  std::vector<OnceCallback<void(bool)>> held;
  {
    std::lock_guard lock(mutex_);
    held.swap(held_);
  }
  for (auto& reply : held) reply(answer);
}

Link::Link(std::shared_ptr<SizesClient> theClient) : client(std::move(theClient)) {
  registerFoundationClasses();
  registerModelClasses();
  int fds[2];
  check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "socketpair");
  worker = XpcConnection::withSocket(UniqueFd(fds[0]));
  worker->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
  worker->resume();
  clientEnd = XpcConnection::withSocket(UniqueFd(fds[1]));
  auto exported = XpcInterface::interfaceWithProtocol(QXFileResponse::protocol());
  exported->setClasses({&Array::classInfo(), &Dictionary::classInfo(), &String::classInfo(),
                        &IndexPath::classInfo(), &QXFileSizeItem::classInfo()},
                       "updateFileSizes:reply:", 0, false);
  clientEnd->setExportedInterface(exported);
  clientEnd->setExportedObject<QXFileResponse>(client);
  clientEnd->resume();
}

Link::~Link() {
  clientEnd->invalidate();
  worker->invalidate();
}

ArrayPtr urls(const std::vector<UrlPtr>& list) {
  std::vector<ObjectPtr> objects(list.begin(), list.end());
  return Array::make(std::move(objects));
}

}  // namespace qx::sizestest
