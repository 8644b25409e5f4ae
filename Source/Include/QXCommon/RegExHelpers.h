#pragma once
// Building regular expressions from rule text, and checking expressions
// before they enter a rule set.

#include "QXCommonAPI.h"

#include <string>

namespace QXCommon::RegExHelpers
{
namespace Detail
{
// A compiled expression; opaque outside the library. Immutable once built, so
// copies of GlobWildcardString / CQXRegEx share it.
struct CompiledRegEx;
} // namespace Detail

// The text with a backslash before every regular-expression metacharacter
// (\ . [ ] ^ - ? + ( ) { } $ | ! *). Characters outside ASCII are never
// metacharacters to the library's engine (fullwidth "（" is a literal), so
// they are left as they are and still match only themselves.
QXCOMMON_API std::wstring EscapeRegExMetaCharacters(const std::wstring& text);

// "^" + escaped glob + "$", where an escaped ? becomes "." and an escaped *
// becomes ".*" (a star here spans separators).
QXCOMMON_API std::wstring GlobToRegExPattern(const std::wstring& glob);
} // namespace QXCommon::RegExHelpers

// Sample kinds of ValidateRegularExpressionEx.
#define QX_REGEX_SAMPLE_EMPTY 0x01u
#define QX_REGEX_SAMPLE_FILE_PATH 0x02u
#define QX_REGEX_SAMPLE_FOLDER 0x04u
#define QX_REGEX_SAMPLE_COMPUTER_NAME 0x08u
#define QX_REGEX_SAMPLE_UNC_SHARE 0x10u
#define QX_REGEX_SAMPLE_WEB_HOST 0x20u
#define QX_REGEX_SAMPLE_IPV4_ADDRESS 0x40u
#define QX_REGEX_SAMPLE_ALL 0x7Fu

// Error code that ValidateRegularExpressionEx reports for an expression that
// is too slow to match.
#define QX_REGEX_ERROR_TOO_SLOW 99

// Error code of a match that spent its budget before it had an answer (the
// engine's error_complexity). See QXRegEx.h for the bound.
#define QX_REGEX_ERROR_BUDGET 11

// True when the expression compiles (case-insensitive, ECMAScript); errorCode
// receives the engine's error code (0 when none). Null pointers give false.
QXCOMMON_C_API bool ValidateRegularExpression(const wchar_t* expression, int* errorCode);

// As ValidateRegularExpression, then matches the expression against the
// sample of each kind set in sampleMask (QX_REGEX_SAMPLE_*); a match that
// takes more than 100 ms (or that spends its budget) gives false with
// errorCode 99.
QXCOMMON_C_API bool ValidateRegularExpressionEx(const wchar_t* expression, unsigned int sampleMask, int* errorCode);
