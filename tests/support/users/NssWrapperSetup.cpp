#include "NssWrapperReexec.h"

namespace {

__attribute__((constructor(101))) void useTestUsers() {
  qx::test::reexecWithNssWrapper(QX_NSS_WRAPPER_LIBRARY,
                                 QX_SOURCE_DIR "/tests/platform/membership/nss",
                                 QX_SOURCE_DIR "/tests/platform/membership/nss-wrapper.tsan.supp");
}

}  // namespace
