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

// Longest expression text accepted, and deepest group nesting.
constexpr size_t MaxExpressionLength = 2048;
constexpr size_t MaxGroupNesting = 64;

// Compiles the expression case-insensitively (ECMAScript). Returns 0 and sets
// compiled, or returns the engine's error code (std::regex_constants::error_*).
int Compile(const std::wstring& expression, MatchMode mode, std::shared_ptr<const CompiledRegEx>& compiled);

// Matches a held expression (none: no match): 0 with matched set to the
// answer, or QX_REGEX_ERROR_BUDGET with matched false when the match needed
// more steps or more backtracking memory than one match may take.
int TryMatch(const std::shared_ptr<const CompiledRegEx>& compiled, const std::wstring& text, bool& matched);
} // namespace QXCommon::RegExHelpers::Detail
