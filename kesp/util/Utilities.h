// Free functions for texts, numbers, dates and paths. None depends on the process's locale, and none but GetStringRes
// reports a failure.
#pragma once
#include <cstdint>

#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

// Length in characters up to which FormatDouble keeps fixed notation; 20 unless a host changes it.
KESP_EXPORT extern std::int32_t FixedNotationMaxLength;

// Whether something that is not a directory exists under the path. A failed look-up counts as no.
KESP_EXPORT bool FileExists(CString path);

// The text under an ID of the string table (see kesp/util/StringTable.h). Without one, the message hook
// (kesp/platform/MessageHook.h) gets "Error loading string." and the result is empty.
KESP_EXPORT CString GetStringRes(int id);

// A number as text: fixed notation with `precision` decimals (6 when negative), or, where that is longer than
// FixedNotationMaxLength, exponent notation with an exponent of at least three digits ("1.50e+017"). In fixed notation
// the integer part is grouped in threes with "," unless `noGrouping`. The decimal point is always ".".
KESP_EXPORT CString FormatDouble(double value, int precision, bool noGrouping);

// The text as 8-bit characters, up to its zero, its first character above U+00FF, or `length` of them. `destination`
// holds length + 1 bytes; a zero is stored behind what was copied (when the source ended) and at destination[length].
// The bytes between are left alone.
KESP_EXPORT void StringToChar8(char* destination, const char16_t* source, unsigned int length);
KESP_EXPORT void StringToChar8(char* destination, const wchar_t* source, unsigned int length);

// At most `length` units of the text; the rest of the `length` places and destination[length] become zero.
// `destination` holds length + 1 units. A wchar_t above U+FFFF takes two units, or none where only one is left.
KESP_EXPORT void StringToChar16(char16_t* destination, const char16_t* source, unsigned int length);
KESP_EXPORT void StringToChar16(char16_t* destination, const wchar_t* source, unsigned int length);
KESP_EXPORT void StringToChar16(wchar_t* destination, const wchar_t* source, unsigned int length);

// Drive and directory with its trailing separator: "D:\a\b.txt" gives "D:\a\". Empty for a bare name.
KESP_EXPORT CString GetDir(const CString& path);

// The name without directory and extension: "D:\a\b.txt" gives "b". The extension begins at the path's last ".", also
// when that stands in a directory's name; the result is then empty.
KESP_EXPORT CString GetRoot(const CString& path);

// The date of an OLE Automation date (days since 30 December 1899, the fraction being the time of day, counted forward
// from midnight for negative dates too) as "%02d/%02d/%4d", month first. The time of day is rounded to the nearest
// second, which may reach the next day. 0 gives "null"; what lies outside 1 January 100 to 31 December 9999, and NaN,
// gives "-1/-1/  -1".
KESP_EXPORT CString GetDateString(double date);
