#include "SizesTestSupport.h"

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
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

TempTree::TempTree() {
  char pattern[] = "/tmp/qx-sizes-XXXXXX";
  check(mkdtemp(pattern) != nullptr, "mkdtemp");
  root_ = pattern;
  check(chmod(root_.c_str(), 0755) == 0, "chmod");
}

TempTree::~TempTree() {
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(
           root_, std::filesystem::directory_options::skip_permission_denied, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    if (it->is_directory(error) && !it->is_symlink(error)) chmod(it->path().c_str(), 0755);
  }
  std::filesystem::remove_all(root_, error);
}

void TempTree::folder(const std::string& relative, mode_t mode) const {
  std::string p = path(relative);
  check(mkdir(p.c_str(), 0755) == 0, "mkdir " + p);
  check(chmod(p.c_str(), mode) == 0, "chmod " + p);
}

void TempTree::file(const std::string& relative, std::size_t bytes) const {
  std::string p = path(relative);
  int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  check(fd >= 0, "create " + p);
  std::string contents(bytes, 'x');
  check(write(fd, contents.data(), bytes) == static_cast<ssize_t>(bytes), "write " + p);
  ::close(fd);
}

void TempTree::link(const std::string& relative, const std::string& target) const {
  std::string p = path(relative);
  check(symlink(target.c_str(), p.c_str()) == 0, "symlink " + p);
}

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
