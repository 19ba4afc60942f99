#pragma once
// Kept for the command-line tests until they take the shared set-up.
#include "tests/support/NssWrapperReexec.h"
