#include "ModificationTestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "platform/xacl/AclHandle.h"

namespace qxtest {

std::vector<AclFields> fieldsOf(qx::xacl::acl_t acl) {
  using namespace qx::xacl;
  std::vector<AclFields> fields;
  acl_entry_t entry = nullptr;
  for (int id = ACL_FIRST_ENTRY; acl_get_entry(acl, id, &entry) == 0; id = ACL_NEXT_ENTRY) {
    AclFields one{};
    acl_get_tag_type(entry, &one.tag);
    QualifierHandle qualifier(acl_get_qualifier(entry));
    if (qualifier) one.uuid = qx::Uuid::withBytes(static_cast<const uint8_t*>(qualifier.get()));
    acl_permset_t permset = nullptr;
    acl_get_permset(entry, &permset);
    for (acl_perm_t bit = 1; bit <= ACL_CHANGE_OWNER; bit <<= 1) {
      if ((bit & ACL_PERM_MASK) && acl_get_perm_np(permset, bit) == 1) one.perms |= bit;
    }
    acl_flagset_t flagset = nullptr;
    acl_get_flagset_np(entry, &flagset);
    for (acl_flag_t bit = ACL_ENTRY_INHERITED; bit <= ACL_ENTRY_ONLY_INHERIT; bit <<= 1) {
      if (acl_get_flag_np(flagset, bit) == 1) one.flags |= bit;
    }
    fields.push_back(one);
  }
  return fields;
}

std::optional<std::vector<AclFields>> storedAcl(const std::string& path) {
  qx::xacl::AclHandle acl(qx::xacl::acl_get_link_np(path.c_str(), qx::xacl::ACL_TYPE_EXTENDED));
  if (!acl) return std::nullopt;
  return fieldsOf(acl.get());
}

bool hasAclAttribute(const std::string& path) {
  return lgetxattr(path.c_str(), qx::xacl::kAclAttributeName, nullptr, 0) >= 0;
}

std::string describe(const std::vector<AclFields>& entries) {
  std::ostringstream out;
  for (const AclFields& entry : entries) {
    out << "tag=" << entry.tag << " uuid=" << (entry.uuid ? entry.uuid->UUIDString() : "nil")
        << std::hex << " perms=0x" << entry.perms << " flags=0x" << entry.flags << std::dec << "\n";
  }
  return out.str();
}

std::string stepText(const std::string& format, const std::string& path) {
  std::string text = format;
  text.replace(text.find("%s"), 2, path);
  return text;
}

std::string suggestionFor(const std::string& format, const std::string& path, int errnum) {
  return stepText(format, path) + " " + strerror(errnum);
}

void expectStepError(const qx::ErrorPtr& error, const char* title, int64_t code,
                     const std::string& format, const std::string& path) {
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), qx::kPOSIXErrorDomain);
  EXPECT_EQ(error->code(), code);
  EXPECT_EQ(error->localizedDescription(), title);
  EXPECT_EQ(error->localizedRecoverySuggestion(),
            suggestionFor(format, path, static_cast<int>(code)));
}

std::optional<std::string> runAs(uid_t uid, gid_t gid, const std::function<std::string()>& body) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return std::nullopt;
  pid_t pid = fork();
  if (pid < 0) return std::nullopt;
  if (pid == 0) {
    close(pipeFds[0]);
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0)) {
      _exit(2);
    }
    std::string text = body();
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
      ssize_t written = write(pipeFds[1], data, left);
      if (written <= 0) _exit(3);
      data += written;
      left -= static_cast<size_t>(written);
    }
    _exit(0);
  }
  close(pipeFds[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  close(pipeFds[0]);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return std::nullopt;
  }
  return text;
}

std::string outcome(bool result, const qx::ErrorPtr& error) {
  if (result && !error) return "ok";
  if (!error) return "failed without an error";
  return std::to_string(error->code()) + "\n" + error->localizedDescription() + "\n" +
         error->localizedRecoverySuggestion().value_or("<none>");
}

}  // namespace qxtest
