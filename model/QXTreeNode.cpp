#include "model/QXTreeNode.h"

#include <string>

#include "model/QXAclPermission.h"
#include "platform/archive/KeyedArchiver.h"
#include "platform/archive/KeyedUnarchiver.h"
#include "platform/foundation/Array.h"
#include "platform/foundation/ClassSet.h"
#include "platform/foundation/Data.h"
#include "platform/foundation/MutableArray.h"

QX_DEFINE_CLASS(QXTreeNode, "QXTreeNode", qx::TreeNode)

namespace {

const qx::ClassSet& representedObjectClasses() {
  static const qx::ClassSet classes{&QXAclPermission::classInfo()};
  return classes;
}

const qx::ClassSet& childrenClasses() {
  static const qx::ClassSet classes{&qx::Array::classInfo(), &qx::Data::classInfo()};
  return classes;
}

// Child `index` from its standalone archive, or nil with the coder failed.
qx::TreeNodePtr decodeChild(qx::KeyedUnarchiver& coder, const qx::ObjectPtr& blob,
                            std::size_t index) {
  const std::string which = "QXTreeNode child " + std::to_string(index);
  auto data = qx::cast<qx::Data>(blob);
  if (!data) {
    coder.failWithError(which + " is not data");
    return nullptr;
  }
  qx::ErrorPtr error;
  qx::ObjectPtr object = qx::KeyedUnarchiver::unarchiveObjectWithData(*data, &error);
  auto child = qx::cast<qx::TreeNode>(object);
  if (!child) {
    coder.failWithError(which + (error ? ": " + error->description() : " is not a tree node"));
    return nullptr;
  }
  return child;
}

}  // namespace

void QXTreeNode::encodeWithCoder(qx::KeyedArchiver& coder) const {
  auto children = qx::MutableArray::make(childNodes().size());
  for (const qx::TreeNodePtr& child : childNodes()) {
    children->addObject(qx::KeyedArchiver::archivedDataWithRootObject(child));
  }
  coder.encodeObject(representedObject(), "object");
  coder.encodeObject(children, "children");
}

qx::ObjectPtr QXTreeNode::initWithCoder(qx::KeyedUnarchiver& coder) {
  qx::ObjectPtr object = coder.decodeObjectOfClassesForKey(representedObjectClasses(), "object");
  if (coder.hasFailed()) return nullptr;
  auto node = treeNodeWithRepresentedObject(std::move(object));

  qx::ObjectPtr children = coder.decodeObjectOfClassesForKey(childrenClasses(), "children");
  if (coder.hasFailed()) return nullptr;
  if (!children) return node;
  auto blobs = qx::cast<qx::Array>(children);
  if (!blobs) {
    coder.failWithError("QXTreeNode children are not an array");
    return nullptr;
  }
  for (std::size_t i = 0; i < blobs->count(); ++i) {
    qx::TreeNodePtr child = decodeChild(coder, blobs->objectAtIndex(i), i);
    if (!child) return nullptr;
    node->mutableChildNodes().addObject(child);
  }
  return node;
}
