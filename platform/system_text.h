// Text services of the operating system: the narrow system code page (the
// locale's on POSIX, the ANSI code page on Windows), system error messages and
// the modal failure message.
//
// Threading: all functions may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace tsm {

std::wstring FromSystemCodePage(const std::string& narrow);
std::string ToSystemCodePage(const std::wstring& wide);

// The system's message text for an error code; empty when it has none.
std::wstring SystemErrorText(uint32_t code);

// Shows a modal message with an OK button (Windows), or writes it as one line
// on standard error (elsewhere).
void ShowFailureMessage(const std::wstring& text);

// Test hook: while set, failure messages go to `sink` instead.
void SetFailureMessageSinkForTesting(std::function<void(const std::wstring&)> sink);

}  // namespace tsm
