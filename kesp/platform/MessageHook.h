// The one message that the library has for a person ("Error loading string.") goes through this hook.
//
//   kesp::SetMessageHook([](const CString& text) { ShowMyDialog(text); });
//
// By default the text goes to standard error, with a line break. The hook is called on the thread that asked for the
// text. Setting it from one thread while another shows a message is safe.
#pragma once
#include <functional>

#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

namespace kesp {

using MessageHook = std::function<void(const CString& text)>;

// An empty hook brings the default back. The hook that was set before is returned, empty for the default.
KESP_EXPORT MessageHook SetMessageHook(MessageHook hook);

KESP_EXPORT void ShowMessage(const CString& text);

}  // namespace kesp
