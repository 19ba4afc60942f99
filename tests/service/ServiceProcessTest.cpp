// The real qxfile-service, reached over its socket with a plain connection:
// the classes allowed in incoming arguments are enforced by the connection,
// before any request reaches the service.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "model/ModelClasses.h"
#include "model/QXAclEntry.h"
#include "platform/dispatch/Semaphore.h"
#include "platform/xpc/XpcConnection.h"
#include "platform/xpc/XpcInterface.h"
#include "protocol/QXFileRequest.h"
#include "tests/support/ServiceSandbox.h"
#include "tests/support/TempTree.h"

namespace {

using qx::Array;
using qx::str;

// "replied", or the reason the invocation was refused.
std::string send(qx::XpcConnection& connection, const std::string& selector,
                 std::vector<qx::ObjectPtr> arguments) {
  auto outcome = std::make_shared<std::string>("no answer");
  auto done = std::make_shared<qx::Semaphore>();
  connection.sendInvocation(
      selector, std::move(arguments),
      [outcome, done](std::vector<qx::ObjectPtr>) {
        *outcome = "replied";
        done->signal();
      },
      [outcome, done](qx::ErrorPtr error) {
        *outcome = error ? error->localizedDescription() : "no reason";
        done->signal();
      });
  EXPECT_TRUE(done->waitFor(std::chrono::seconds(10))) << selector;
  return *outcome;
}

TEST(ServiceProcess, ArgumentsOutsideTheAllowedClassesAreRefusedBeforeAnyWork) {
  registerModelClasses();
  qx::test::ServiceSandbox sandbox(QX_SERVICE_EXECUTABLE);
  qx::test::TempTree files("qx-service");
  qx::ErrorPtr error;
  auto connection = qx::XpcConnection::connectToService(QX_SERVICE_EXECUTABLE, &error);
  ASSERT_TRUE(connection) << error->description();
  // Replies may hold URLs and size records, as the client library allows.
  auto requests = qx::XpcInterface::interfaceWithProtocol(QXFileRequest::protocol());
  ASSERT_TRUE(QXFileRequest::restrictReplies(*requests));
  connection->setRemoteObjectInterface(requests);
  connection->resume();
  files.file("item", "x");
  std::string item = files.path("item");
  ::chmod(item.c_str(), 0640);
  auto url = qx::Url::fileURLWithPath(item);
  auto urls = Array::make({url});
  auto names = Array::make({str("renamed")});
  struct Row {
    std::string selector;
    std::vector<qx::ObjectPtr> arguments;
    std::string refusedClass;
  };
  for (const Row& row : std::vector<Row>{
           {"setAclEntries:url:reply:",
            {Array::make({str("ACL"), str("POSIX"), qx::Number::numberWithInteger(0777)}), url},
            "NSNumber"},
           {"setAclEntries:url:reply:", {Array::make({str("ACL"), url}), url}, "NSURL"},
           {"propagateAclEntries:url:reply:",
            {Array::make({str("ACL"), qx::Dictionary::make()}), url},
            "NSDictionary"},
           {"renameUrls:names:reply:", {Array::make({str(item)}), names}, "NSString"},
           {"getSizesWithUrls:reply:", {Array::make({qx::Uuid::make()})}, "NSUUID"},
           // The names keep the default rule of collections: property-list objects only,
           // also when the same array object is both arguments, archived and decoded once.
           {"renameUrls:names:reply:", {urls, urls->copy()}, "NSURL"},
           {"renameUrls:names:reply:", {urls, urls}, "NSURL"},
       }) {
    EXPECT_NE(send(*connection, row.selector, row.arguments).find(row.refusedClass),
              std::string::npos)
        << row.selector << " should be refused for " << row.refusedClass;
  }
  struct stat st {};
  EXPECT_EQ(::lstat(item.c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0640u);
  // Strings, arrays, entries and their tree nodes pass and reach the worker.
  auto entry = QXAclEntry::make(qx::Uuid::make(), 1, Array::make(), false);
  EXPECT_EQ(send(*connection,
                 "setAclEntries:url:reply:", {Array::make({str("ACL"), entry, str("POSIX")}), url}),
            "replied");
  EXPECT_EQ(send(*connection, "getSizesWithUrls:reply:", {urls}), "replied");
  EXPECT_EQ(send(*connection, "renameUrls:names:reply:", {urls, names}), "replied");
  EXPECT_TRUE(std::filesystem::exists(files.path("renamed")));
  EXPECT_TRUE(connection->isValid());
  connection->invalidate();
}

}  // namespace
