#include "kesp/platform/MessageHook.h"

#include <cstdio>
#include <mutex>
#include <utility>

namespace kesp {
namespace {

struct HookState {
  std::mutex mutex;
  MessageHook hook;
};

HookState& State() {
  static HookState state;
  return state;
}

}  // namespace

MessageHook SetMessageHook(MessageHook hook) {
  HookState& state = State();
  const std::lock_guard lock(state.mutex);
  return std::exchange(state.hook, std::move(hook));
}

void ShowMessage(const CString& text) {
  HookState& state = State();
  MessageHook hook;
  {
    const std::lock_guard lock(state.mutex);
    hook = state.hook;
  }
  // Called without the lock, so that a hook may set another hook.
  if (hook) {
    hook(text);
  } else {
    (void)std::fprintf(stderr, "%s\n", text.ToUtf8().c_str());
  }
}

}  // namespace kesp
