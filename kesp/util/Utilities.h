// Free functions for texts, numbers, dates and paths. They don't depend on the process's locale. Only GetStringRes
// reports a failure.
#pragma once
#include <cstdint>

#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"

// FormatDouble uses fixed notation up to this length in characters; 20 unless a host changes it.
KESP_EXPORT extern std::int32_t FixedNotationMaxLength;

// Whether a file, or anything else that is not a directory, exists at the path. False when the system can't tell.
KESP_EXPORT bool FileExists(CString path);

// Returns the text of an ID of the string table (see kesp/util/StringTable.h). If there is none, passes "Error loading
// string." to the message hook (kesp/platform/MessageHook.h) and returns an empty text.
KESP_EXPORT CString GetStringRes(int id);

// Formats a number in fixed notation with `precision` decimals (6 when negative). If that is longer than
// FixedNotationMaxLength, uses exponent notation with at least three digits in the exponent ("1.50e+017"). In fixed
// notation the integer part is grouped in threes with "," unless `noGrouping`. The decimal point is always ".".
KESP_EXPORT CString FormatDouble(double value, int precision, bool noGrouping);

// Copies the text as 8-bit characters, up to its zero, its first character above U+00FF, or `length` characters.
// `destination` holds length + 1 bytes. destination[length] becomes zero, and so does the byte after the text if the
// source ended with its zero. The bytes between are unchanged.
KESP_EXPORT void StringToChar8(char* destination, const char16_t* source, unsigned int length);
KESP_EXPORT void StringToChar8(char* destination, const wchar_t* source, unsigned int length);

// Copies at most `length` units of the text; the rest of the `length` places and destination[length] become zero.
// `destination` holds length + 1 units. A wchar_t above U+FFFF takes two units, or is dropped where only one is left.
KESP_EXPORT void StringToChar16(char16_t* destination, const char16_t* source, unsigned int length);
KESP_EXPORT void StringToChar16(char16_t* destination, const wchar_t* source, unsigned int length);
KESP_EXPORT void StringToChar16(wchar_t* destination, const wchar_t* source, unsigned int length);

// Returns drive and directory with the trailing separator: "D:\a\b.txt" gives "D:\a\". Empty for a bare name.
KESP_EXPORT CString GetDir(const CString& path);

// Returns the name without directory and extension: "D:\a\b.txt" gives "b". The extension begins at the path's last
// ".". If that is in a directory's name, the result is empty.
KESP_EXPORT CString GetRoot(const CString& path);

// Formats the date of an OLE Automation date as "%02d/%02d/%4d", month first. The value counts days since 30 December
// 1899; its fraction is the time of day, counted forward from midnight for negative dates too. The time is rounded to
// the nearest second, which may reach the next day. 0 gives "null". A date outside 1 January 100 to 31 December 9999,
// and NaN, give "-1/-1/  -1".
KESP_EXPORT CString GetDateString(double date);
