#include "tests/platform/membership/NssWrapperReexec.h"

namespace {

// The test process, and every qxfile and service it starts, sees the users
// and groups of tests/acl/nss only.
__attribute__((constructor(101))) void useTestUsers() {
  qx::test::reexecWithNssWrapper(QX_NSS_WRAPPER_LIBRARY, QX_SOURCE_DIR "/tests/acl/nss",
                                 QX_SOURCE_DIR "/tests/platform/membership/nss-wrapper.tsan.supp");
}

}  // namespace
