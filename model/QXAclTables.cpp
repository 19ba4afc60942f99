#include "model/QXAclTables.h"

const QXAclPermRow acl_read_perms[] = {
    {"Read Data", 0x2, 2},          {"List Folder Contents", 0x2, 1},
    {"Execute File", 0x8, 2},       {"Traverse Folder", 0x8, 1},
    {"Read Attributes", 0x80, 3},   {"Read Extended Attributes", 0x200, 3},
    {"Read Permissions", 0x800, 3}, {nullptr, 0x2, 0},
};

const QXAclPermRow acl_write_perms[] = {
    {"Write Data", 0x4, 2},
    {"Create Files", 0x4, 1},
    {"Append Data", 0x20, 2},
    {"Create Folder", 0x20, 1},
    {"Delete", 0x10, 3},
    {"Delete Subfolders and Files", 0x40, 1},
    {"Write Attributes", 0x100, 3},
    {"Write Extended Attributes", 0x400, 3},
    {nullptr, 0x4, 0},
};

const QXAclPermRow acl_admin_perms[] = {
    {"Change Permissions", 0x1000, 3},
    {"Change Owner", 0x2000, 3},
    {nullptr, 0x1000, 0},
};

const QXAclPermGroup acl_perms[] = {
    {"Read", acl_read_perms},
    {"Write", acl_write_perms},
    {"Administration", acl_admin_perms},
    {nullptr, nullptr},
};

const QXAclFlagRow acl_flags[] = {
    {"This item", 0x100},      {"Child files", 0x20}, {"Child folders", 0x40},
    {"All descendants", 0x80}, {nullptr, 0x100},
};
