#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "XaclTestSupport.h"
#include "platform/xacl/AclHandle.h"
#include "platform/xacl/AclTesting.h"
#include "platform/xacl/xacl.h"

namespace qx::xacl {
namespace {

using testing::FreeTarget;
using testing::LiveAcls;
using testing::LiveQualifiers;

int freeError(void* object) {
  errno = 0;
  return acl_free(object) == 0 ? 0 : errno;
}

// An ACL with one entry whose qualifier is set, for taking qualifiers from.
struct OneEntryAcl {
  OneEntryAcl() : acl(acl_init(1)) {
    acl_t raw = acl;
    acl_create_entry(&raw, &entry);
    acl_set_tag_type(entry, ACL_EXTENDED_ALLOW);
    acl_set_qualifier(entry, test::uuidOf("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000007D1").data());
  }
  acl_t acl = nullptr;
  acl_entry_t entry = nullptr;
};

class AclFreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    acls_ = LiveAcls();
    qualifiers_ = LiveQualifiers();
  }
  void TearDown() override {
    testing::ClearFreeFailure();
    EXPECT_EQ(LiveAcls(), acls_) << "every ACL of the test was released";
    EXPECT_EQ(LiveQualifiers(), qualifiers_) << "every qualifier of the test was released";
  }
  size_t acls_ = 0;
  size_t qualifiers_ = 0;
};

TEST_F(AclFreeTest, ReleasesAclsAndQualifiersOnce) {
  OneEntryAcl one;
  void* qualifier = acl_get_qualifier(one.entry);
  ASSERT_NE(qualifier, nullptr);
  EXPECT_EQ(LiveAcls(), acls_ + 1);
  EXPECT_EQ(LiveQualifiers(), qualifiers_ + 1);

  EXPECT_EQ(freeError(qualifier), 0);
  EXPECT_EQ(freeError(qualifier), EINVAL) << "released already";
  EXPECT_EQ(freeError(one.acl), 0);
  EXPECT_EQ(freeError(one.acl), EINVAL) << "released already";
}

TEST_F(AclFreeTest, RefusesPointersItDidNotHandOut) {
  OneEntryAcl one;
  acl_permset_t permset = nullptr;
  ASSERT_EQ(acl_get_permset(one.entry, &permset), 0);
  int local = 0;
  void* heap = std::malloc(16);

  EXPECT_EQ(freeError(nullptr), EINVAL);
  EXPECT_EQ(freeError(&local), EINVAL);
  EXPECT_EQ(freeError(heap), EINVAL);
  EXPECT_EQ(freeError(one.entry), EINVAL) << "entries belong to their ACL";
  EXPECT_EQ(freeError(permset), EINVAL);

  std::free(heap);
  acl_tag_t tag = ACL_UNDEFINED_TAG;
  EXPECT_EQ(acl_get_tag_type(one.entry, &tag), 0) << "the refused calls left the ACL alone";
  EXPECT_EQ(tag, ACL_EXTENDED_ALLOW);
  EXPECT_EQ(freeError(one.acl), 0);
}

TEST_F(AclFreeTest, InjectedFailureHitsTheChosenKindOnceAndStillReleases) {
  OneEntryAcl one;
  void* q1 = acl_get_qualifier(one.entry);
  void* q2 = acl_get_qualifier(one.entry);
  testing::FailNextFree(EIO, FreeTarget::Acl);
  EXPECT_EQ(freeError(q1), 0) << "a qualifier is not the target";
  EXPECT_TRUE(testing::FreeFailurePending());
  EXPECT_EQ(freeError(one.acl), EIO);
  EXPECT_FALSE(testing::FreeFailurePending());
  EXPECT_EQ(LiveAcls(), acls_) << "released despite the reported failure";
  EXPECT_EQ(freeError(q2), 0) << "one-shot";
}

TEST_F(AclFreeTest, InjectedFailureCanSkipMatchingReleases) {
  OneEntryAcl one;
  void* q1 = acl_get_qualifier(one.entry);
  void* q2 = acl_get_qualifier(one.entry);
  void* q3 = acl_get_qualifier(one.entry);
  testing::FailNextFree(ENOMEM, FreeTarget::Qualifier, 1);
  EXPECT_EQ(freeError(one.acl), 0) << "an ACL is not the target";
  EXPECT_EQ(freeError(q1), 0) << "skipped";
  EXPECT_EQ(freeError(q2), ENOMEM);
  EXPECT_EQ(freeError(q3), 0);
}

TEST_F(AclFreeTest, ScopedFailureIsClearedAtScopeEnd) {
  OneEntryAcl one;
  {
    testing::ScopedFreeFailure failure(EBUSY, FreeTarget::Any, 5);
    EXPECT_TRUE(testing::FreeFailurePending());
  }
  EXPECT_FALSE(testing::FreeFailurePending());
  EXPECT_EQ(freeError(one.acl), 0);
}

TEST_F(AclFreeTest, HandleReleasesWhenItGoesAndKeepsErrno) {
  {
    AclHandle handle(acl_init(0));
    ASSERT_TRUE(handle);
    EXPECT_EQ(LiveAcls(), acls_ + 1);
    testing::FailNextFree(EIO);
    errno = ENOTDIR;
  }
  EXPECT_EQ(errno, ENOTDIR) << "the ignored release failure did not overwrite errno";
  EXPECT_EQ(LiveAcls(), acls_);
}

TEST_F(AclFreeTest, HandleMovesResetsAndReleases) {
  AclHandle a(acl_init(0));
  acl_t raw = a.get();
  AclHandle b(std::move(a));
  EXPECT_FALSE(a);
  EXPECT_EQ(b.get(), raw);
  AclHandle c;
  c = std::move(b);
  EXPECT_EQ(c.get(), raw);
  EXPECT_EQ(LiveAcls(), acls_ + 1);

  c.reset(acl_init(0));
  EXPECT_EQ(LiveAcls(), acls_ + 1) << "the old ACL went, the new one stays";
  acl_t released = c.release();
  EXPECT_FALSE(c);
  EXPECT_EQ(freeError(released), 0);

  OneEntryAcl one;
  QualifierHandle qualifier(acl_get_qualifier(one.entry));
  EXPECT_EQ(LiveQualifiers(), qualifiers_ + 1);
  qualifier.reset();
  EXPECT_EQ(LiveQualifiers(), qualifiers_);
  EXPECT_EQ(freeError(one.acl), 0);
}

}  // namespace
}  // namespace qx::xacl
