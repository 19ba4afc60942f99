#pragma once

// Registers QXAclEntry, QXAclPermission, QXTreeNode and QXFileSizeItem with
// the class registry, after the Foundation classes they are made of.
// Idempotent and thread-safe.
void registerModelClasses();
