// The real qxfile-service, reached over its socket with a plain connection:
// the classes allowed in incoming arguments are enforced by the connection,
// before any request reaches the service.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "model/ModelClasses.h"
#include "model/QXAclEntry.h"
#include "model/QXFileSizeItem.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "service/QXFileRequest.h"
#include "service/QXFileResponse.h"

namespace {

using namespace std::chrono_literals;

std::string makeTempFolder(const char* prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / prefix).string() + "-XXXXXX";
  return ::mkdtemp(pattern.data()) ? pattern : std::string();
}

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : static_cast<mode_t>(-1);
}

// What became of one invocation.
struct Outcome {
  bool replied = false;
  std::string refusal;  // the reason, when refused
};

class ServiceProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    registerModelClasses();
    sockets = makeTempFolder("qx-service-sockets");
    files = makeTempFolder("qx-service-files");
    ASSERT_FALSE(sockets.empty() || files.empty());
    ::setenv("QXFILE_SOCKET_DIR", sockets.c_str(), 1);
    ::setenv("QXFILE_IDLE_EXIT_MS", "300", 1);
    qx::ErrorPtr error;
    connection = qx::XpcConnection::connectToService(QX_SERVICE_EXECUTABLE, &error);
    ASSERT_TRUE(connection) << error->description();
    // Replies may hold URLs and size records, as the client library allows.
    auto requests = qx::XpcInterface::interfaceWithProtocol(QXFileRequest::protocol());
    const qx::ClassSet answers{&qx::Array::classInfo(),     &qx::Dictionary::classInfo(),
                               &qx::String::classInfo(),    &qx::Url::classInfo(),
                               &qx::IndexPath::classInfo(), &QXFileSizeItem::classInfo()};
    requests->setClasses(answers, "getSizesWithUrls:reply:", 0, true);
    requests->setClasses(answers, "renameUrls:names:reply:", 0, true);
    requests->setClasses(answers, "renameUrls:names:reply:", 1, true);
    connection->setRemoteObjectInterface(requests);
    connection->setExportedInterface(
        qx::XpcInterface::interfaceWithProtocol(QXFileResponse::protocol()));
    connection->resume();
  }
  void TearDown() override {
    if (connection) connection->invalidate();
    std::filesystem::remove_all(files);
    std::filesystem::remove_all(sockets);
  }

  Outcome send(const std::string& selector, std::vector<qx::ObjectPtr> arguments) {
    auto outcome = std::make_shared<Outcome>();
    auto done = std::make_shared<qx::Semaphore>();
    connection->sendInvocation(
        selector, std::move(arguments),
        [outcome, done](std::vector<qx::ObjectPtr>) {
          outcome->replied = true;
          done->signal();
        },
        [outcome, done](qx::ErrorPtr error) {
          outcome->refusal = error ? error->localizedDescription() : "no reason";
          done->signal();
        });
    EXPECT_TRUE(done->waitFor(10s)) << selector << " got no answer";
    return *outcome;
  }

  std::string sockets;
  std::string files;
  std::shared_ptr<qx::XpcConnection> connection;
};

bool mentions(const Outcome& outcome, const std::string& name) {
  return !outcome.replied && outcome.refusal.find(name) != std::string::npos;
}

TEST_F(ServiceProcess, EntriesOfAClassOutsideTheAllowedSetAreRefused) {
  std::string item = files + "/item";
  std::ofstream(item) << "x";
  ::chmod(item.c_str(), 0640);
  auto url = qx::Url::fileURLWithPath(item);
  auto withNumber =
      qx::Array::make({qx::str("ACL"), qx::str("POSIX"), qx::Number::numberWithInteger(0777)});
  auto withUrl = qx::Array::make({qx::str("ACL"), url});
  auto withDictionary = qx::Array::make({qx::str("ACL"), qx::Dictionary::make()});

  EXPECT_TRUE(mentions(send("setAclEntries:url:reply:", {withNumber, url}), "NSNumber"));
  EXPECT_TRUE(mentions(send("setAclEntries:url:reply:", {withUrl, url}), "NSURL"));
  EXPECT_TRUE(
      mentions(send("propagateAclEntries:url:reply:", {withDictionary, url}), "NSDictionary"));
  EXPECT_EQ(modeOf(item), 0640u);

  // Strings, arrays, entries and their tree nodes pass and reach the worker.
  auto entry = QXAclEntry::make(qx::Uuid::make(), 1, qx::Array::make(), false);
  EXPECT_TRUE(send("setAclEntries:url:reply:",
                   {qx::Array::make({qx::str("ACL"), entry, qx::str("POSIX")}), url})
                  .replied);
  EXPECT_TRUE(connection->isValid());
}

TEST_F(ServiceProcess, UrlArraysOfRenamesAndSizesTakeUrlsOnly) {
  std::string item = files + "/item";
  std::ofstream(item) << "x";
  auto urls = qx::Array::make({qx::Url::fileURLWithPath(item)});
  auto names = qx::Array::make({qx::str("renamed")});

  EXPECT_TRUE(mentions(send("renameUrls:names:reply:", {qx::Array::make({qx::str(item)}), names}),
                       "NSString"));
  EXPECT_TRUE(
      mentions(send("getSizesWithUrls:reply:", {qx::Array::make({qx::Uuid::make()})}), "NSUUID"));
  // The names keep the default rule of collections: property-list objects only.
  EXPECT_TRUE(mentions(send("renameUrls:names:reply:", {urls, urls->copy()}), "NSURL"));
  // The same array object as both arguments is archived once and decoded
  // once; the names' rule still applies to it.
  EXPECT_TRUE(mentions(send("renameUrls:names:reply:", {urls, urls}), "NSURL"));
  EXPECT_TRUE(std::filesystem::exists(item));

  EXPECT_TRUE(send("getSizesWithUrls:reply:", {urls}).replied);
  EXPECT_TRUE(send("renameUrls:names:reply:", {urls, names}).replied);
  EXPECT_TRUE(std::filesystem::exists(files + "/renamed"));
}

}  // namespace
