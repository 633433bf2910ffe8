// The hook for the library's one message to a user ("Error loading string.").
//
//   kesp::SetMessageHook([](const CString& text) { ShowMyDialog(text); });
//
// By default the text goes to standard error, with a line break. The hook is called on the thread that asked for the
// text. One thread may set it while another shows a message.
#pragma once
#include <functional>

#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

namespace kesp {

using MessageHook = std::function<void(const CString& text)>;

// Sets the hook and returns the one before it. An empty hook is the default.
KESP_EXPORT MessageHook SetMessageHook(MessageHook hook);

KESP_EXPORT void ShowMessage(const CString& text);

}  // namespace kesp
