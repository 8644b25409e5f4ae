#pragma once
// The library's bounded regular-expression engine (used by CQXRegEx and
// GlobWildcardString). See RegExHelpers.cpp for how matching is kept bounded
// in time, memory and stack.

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

// Compiles the expression case-insensitively (ECMAScript). Returns 0 and sets
// compiled, or returns the engine's error code (std::regex_constants::error_*).
int Compile(const std::wstring& expression, MatchMode mode, std::shared_ptr<const CompiledRegEx>& compiled);

// Matches. On Failed, errorCode is QX_REGEX_ERROR_BUDGET (the match needed
// more steps or more backtracking memory than one match may take).
RunResult Run(const CompiledRegEx& compiled, const std::wstring& text, int& errorCode);

// Run for a held expression (none: no match): 0 with matched set to the
// answer, or the budget error with matched false.
int TryMatch(const std::shared_ptr<const CompiledRegEx>& compiled, const std::wstring& text, bool& matched);
} // namespace QXCommon::RegExHelpers::Detail
