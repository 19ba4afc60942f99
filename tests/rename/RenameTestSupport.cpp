#include "tests/rename/RenameTestSupport.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/xpc/XpcInterface.h"
#include "rename/QXFileRename.h"

std::atomic<int> qx::renametest::renameat2FailsWith{0};

extern "C" int __real_renameat2(int, const char*, int, const char*, unsigned int);
extern "C" int __wrap_renameat2(int oldDir, const char* oldPath, int newDir, const char* newPath,
                                unsigned int flags) {
  if (int failure = qx::renametest::renameat2FailsWith.load()) {
    errno = failure;
    return -1;
  }
  return __real_renameat2(oldDir, oldPath, newDir, newPath, flags);
}

namespace qx::renametest {

Behaviour answering(std::vector<bool> answers) {
  return [answers = std::move(answers)](int number, OnceCallback<void(bool)> reply) {
    std::size_t index = static_cast<std::size_t>(number - 1);
    reply(index < answers.size() ? answers[index] : false);
  };
}

void RenameTest::SetUp() {
  registerFoundationClasses();
  renameat2FailsWith = 0;
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qx-rename-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  dir = pattern;
  connect();
}

void RenameTest::TearDown() {
  if (responder) {
    EXPECT_EQ(responder->unexpectedCalls(), 0);
  }
  renameat2FailsWith = 0;
  if (client) client->invalidate();
  if (worker) worker->invalidate();
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

void RenameTest::connect(Behaviour behaviour) {
  if (client) client->invalidate();
  if (worker) worker->invalidate();
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  worker = XpcConnection::withSocket(UniqueFd(fds[0]));
  worker->setRemoteObjectInterface(XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
  worker->resume();
  client = XpcConnection::withSocket(UniqueFd(fds[1]));
  client->setExportedInterface(XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
  responder = std::make_shared<ProgressClient>(std::move(behaviour));
  client->setExportedObject<QXFileResponse>(responder);
  client->resume();
}

DictionaryPtr RenameTest::renameUrls(const ArrayPtr& urls, const ArrayPtr& names, ErrorPtr* error) {
  return QXFileRename::renameUrls(urls, names, worker, error);
}

void RenameTest::makeFile(const std::string& name) const {
  std::ofstream(pathOf(name)) << name;
}

std::string RenameTest::contentOf(const std::string& name) const {
  std::ifstream in(pathOf(name));
  if (!in) return "<missing>";
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

bool RenameTest::exists(const std::string& name) const {
  struct stat st;
  return ::lstat(pathOf(name).c_str(), &st) == 0;
}

std::vector<std::string> RenameTest::numbered(int count, const std::string& prefix) {
  std::vector<std::string> names;
  char number[16];
  for (int i = 0; i < count; ++i) {
    std::snprintf(number, sizeof number, "%03d", i);
    names.push_back(prefix + number);
  }
  return names;
}

ArrayPtr RenameTest::makeItems(int count, const std::string& prefix) const {
  std::vector<ObjectPtr> urls;
  for (const std::string& name : numbered(count, prefix)) {
    makeFile(name);
    urls.push_back(urlOf(name));
  }
  return Array::make(std::move(urls));
}

ArrayPtr RenameTest::strings(const std::vector<std::string>& values) {
  std::vector<ObjectPtr> objects;
  for (const std::string& value : values) objects.push_back(str(value));
  return Array::make(std::move(objects));
}

int RenameTest::countExisting(int count, const std::string& prefix) const {
  int found = 0;
  for (const std::string& name : numbered(count, prefix)) found += exists(name) ? 1 : 0;
  return found;
}

std::vector<std::string> stringsOf(const ObjectPtr& array) {
  std::vector<std::string> values;
  if (auto list = std::dynamic_pointer_cast<Array>(array)) {
    for (const ObjectPtr& object : *list) {
      auto string = std::dynamic_pointer_cast<String>(object);
      values.push_back(string ? string->str() : "<?>");
    }
  }
  return values;
}

std::vector<std::string> pathsOf(const ObjectPtr& array) {
  std::vector<std::string> paths;
  if (auto list = std::dynamic_pointer_cast<Array>(array)) {
    for (const ObjectPtr& object : *list) {
      auto url = std::dynamic_pointer_cast<Url>(object);
      paths.push_back(url ? url->path() : "<?>");
    }
  }
  return paths;
}

}  // namespace qx::renametest
