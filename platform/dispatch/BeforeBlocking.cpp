#include "platform/dispatch/BeforeBlocking.h"

namespace qx {
namespace {

thread_local BeforeBlocking::Hook tHook = nullptr;
thread_local void* tContext = nullptr;

}  // namespace

BeforeBlocking::Scope::Scope(Hook hook, void* context)
    : outerHook_(tHook), outerContext_(tContext) {
  tHook = hook;
  tContext = context;
}

BeforeBlocking::Scope::~Scope() {
  tHook = outerHook_;
  tContext = outerContext_;
}

void BeforeBlocking::notify() {
  Hook hook = tHook;
  if (!hook) return;
  tHook = nullptr;
  hook(tContext);
}

}  // namespace qx
