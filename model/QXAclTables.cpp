#include "model/QXAclTables.h"

const QXAclPermRow acl_read_perms[] = {
    {"Read Data", kQXAclReadData, kQXAclKindFile},
    {"List Folder Contents", kQXAclReadData, kQXAclKindFolder},
    {"Execute File", kQXAclExecute, kQXAclKindFile},
    {"Traverse Folder", kQXAclExecute, kQXAclKindFolder},
    {"Read Attributes", kQXAclReadAttributes, kQXAclKindBoth},
    {"Read Extended Attributes", kQXAclReadExtAttributes, kQXAclKindBoth},
    {"Read Permissions", kQXAclReadSecurity, kQXAclKindBoth},
    {nullptr, kQXAclReadData, 0},
};

const QXAclPermRow acl_write_perms[] = {
    {"Write Data", kQXAclWriteData, kQXAclKindFile},
    {"Create Files", kQXAclWriteData, kQXAclKindFolder},
    {"Append Data", kQXAclAppendData, kQXAclKindFile},
    {"Create Folder", kQXAclAppendData, kQXAclKindFolder},
    {"Delete", kQXAclDelete, kQXAclKindBoth},
    {"Delete Subfolders and Files", kQXAclDeleteChild, kQXAclKindFolder},
    {"Write Attributes", kQXAclWriteAttributes, kQXAclKindBoth},
    {"Write Extended Attributes", kQXAclWriteExtAttributes, kQXAclKindBoth},
    {nullptr, kQXAclWriteData, 0},
};

const QXAclPermRow acl_admin_perms[] = {
    {"Change Permissions", kQXAclWriteSecurity, kQXAclKindBoth},
    {"Change Owner", kQXAclChangeOwner, kQXAclKindBoth},
    {nullptr, kQXAclWriteSecurity, 0},
};

const QXAclPermGroup acl_perms[] = {
    {"Read", acl_read_perms},
    {"Write", acl_write_perms},
    {"Administration", acl_admin_perms},
    {nullptr, nullptr},
};

const QXAclFlagRow acl_flags[] = {
    {"This item", kQXAclEntryOnlyInherit},
    {"Child files", kQXAclEntryFileInherit},
    {"Child folders", kQXAclEntryDirectoryInherit},
    {"All descendants", kQXAclEntryLimitInherit},
    {nullptr, kQXAclEntryOnlyInherit},
};
