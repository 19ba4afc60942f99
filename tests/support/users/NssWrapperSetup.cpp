#include "tests/support/NssWrapperReexec.h"

namespace {

// The test binary sees the users and groups of QX_TEST_USERS only.
__attribute__((constructor(101))) void useTestUsers() {
  qx::test::reexecWithNssWrapper(QX_NSS_WRAPPER_LIBRARY, QX_TEST_USERS,
                                 QX_SOURCE_DIR "/tests/platform/membership/nss-wrapper.tsan.supp");
}

}  // namespace
