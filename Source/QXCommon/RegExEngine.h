#pragma once
// The library's bounded regular-expression engine (used by CQXRegEx and
// GlobWildcardString). See RegExHelpers.cpp for how matching is kept bounded
// in time and stack.

#include "QXCommon/RegExHelpers.h"

#include <memory>
#include <string>

namespace QXCommon::RegExHelpers::Detail
{
enum class MatchMode
{
    Search, // the expression matches somewhere in the text
    Whole,  // the expression matches the whole text
};

enum class RunResult
{
    Match,
    NoMatch,
    Failed, // errorCode tells why
};

// Longest expression text accepted, and deepest group nesting.
constexpr size_t MaxExpressionLength = 2048;
constexpr size_t MaxGroupNesting = 64;
// Longest text an expression with back-references is matched against.
constexpr size_t MaxBacktrackingSubject = 256;

// Compiles the expression case-insensitively (ECMAScript). Returns 0 and sets
// compiled, or returns the engine's error code (std::regex_constants::error_*).
int Compile(const std::wstring& expression, MatchMode mode, std::shared_ptr<const CompiledRegEx>& compiled);

// Matches; on Failed, errorCode is error_complexity when the expression
// exploded (step budget spent), error_stack when the text is too long for a
// back-referencing expression, or the engine's code.
RunResult Run(const CompiledRegEx& compiled, const std::wstring& text, int& errorCode);

// The engine's code for an expression stopped because it explodes.
int ExplodedErrorCode();

// The error of the last Run on this thread (0 when it did not fail).
int LastRunError();
} // namespace QXCommon::RegExHelpers::Detail
