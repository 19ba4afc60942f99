#include "model/ModelClasses.h"

#include <mutex>

#include "model/QXAclEntry.h"
#include "model/QXAclPermission.h"
#include "model/QXFileSizeItem.h"
#include "model/QXTreeNode.h"
#include "platform/foundation/ClassRegistry.h"

void registerModelClasses() {
  static std::once_flag once;
  std::call_once(once, [] {
    qx::registerFoundationClasses();
    qx::ClassRegistry::registerClass(QXAclEntry::classInfo(), &QXAclEntry::initWithCoder);
    qx::ClassRegistry::registerClass(QXAclPermission::classInfo(), &QXAclPermission::initWithCoder);
    qx::ClassRegistry::registerClass(QXTreeNode::classInfo(), &QXTreeNode::initWithCoder);
    qx::ClassRegistry::registerClass(QXFileSizeItem::classInfo(), &QXFileSizeItem::initWithCoder);
  });
}
