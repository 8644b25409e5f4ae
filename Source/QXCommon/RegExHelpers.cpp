// Building regular expressions from rule text, checking expressions, and the
// bounded engine behind CQXRegEx and GlobWildcardString.
//
// The library runs inside hooked processes, on threads with small stacks, so
// no expression may overflow the stack, run or allocate without bound, and
// nothing but the expression text may decide what the expression means:
//
// - Expressions are compiled by the standard library's ECMAScript compiler
//   (case-insensitive): it decides what is accepted, the error codes, and
//   what each character, class and bracket matches. Its scanner reads the
//   text through RuleCtype below, which gives only ASCII characters a narrow
//   form and counts only ASCII digits as digits. (Through the C runtime's
//   conversion a fullwidth "（" narrows to "(" by best fit, and differently
//   on different threads; here every non-ASCII character is a literal.)
//   Case is folded with the invariant tables of CaseFolding.h.
// - The compiled automaton is run by this file's own executors, which keep
//   everything that grows with the text or the expression on the heap:
//   * without back-references, a set simulation: each position of the text
//     advances the set of live states once, so a match costs at most
//     (text length + 1) x (states + edges) steps, and a search stops at the
//     first accepting state;
//   * with back-references, a backtracking walk in the standard executor's
//     order and with its loop rules, its choice points on a heap stack of at
//     most MaxBacktrackFrames entries.
// - Every state visit and character comparison spends one step of the
//   match's budget (SetStepBudget, BacktrackingStepBudget; a call of a
//   costly bracket matcher spends more, MatcherCallSteps); a match that needs more ends with the
//   budget error (QX_REGEX_ERROR_BUDGET) instead of an answer. The budget is
//   sized so that a match ends within the bound stated in QXRegEx.h.
// - The expression text is limited in length and group nesting (the compiler
//   recurses per term and per group), and the automaton in states.

// The largest automaton the compiler may build. Only this file instantiates
// the compiler for its own traits type, so the limit applies to it alone.
#define _GLIBCXX_REGEX_STATE_LIMIT 4000

#include "RegExEngine.h"

#include "CaseFolding.h"
#include "QXCommon/QXRegEx.h"
#include "QXLog.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <locale>
#include <regex>
#include <vector>

// The executors walk the automaton of libstdc++'s regex compiler, whose
// layout has been the same from GCC 11 to GCC 14.
#if !defined(_GLIBCXX_RELEASE) || _GLIBCXX_RELEASE < 11 || _GLIBCXX_RELEASE > 14
#error "RegExHelpers.cpp walks libstdc++'s regex automaton: check its layout for this standard library"
#endif

namespace QXCommon::RegExHelpers
{
namespace Detail
{
namespace
{
static_assert(QX_REGEX_ERROR_BUDGET == static_cast<int>(std::regex_constants::error_complexity));

// Steps one match may spend, by executor (a backtracking step costs more),
// sized with qxbench's patterns.regex-bound so that the worst accepted
// expressions end within the stated bound; and the choice points a
// backtracking match may hold (20 bytes each: 5 MiB).
constexpr long long SetStepBudget = 3'000'000;
constexpr long long BacktrackingStepBudget = 2'000'000;
constexpr size_t MaxBacktrackFrames = size_t{1} << 18;
// Texts are indexed with 32-bit positions.
constexpr size_t MaxTextLength = 0xFFFFFFF0u;

// The scanner's and the matchers' view of characters: only ASCII has a
// narrow form, only ASCII digits are digits, and case comes from the
// invariant tables, whatever the thread's C runtime locale.
class RuleCtype : public std::ctype<wchar_t>
{
public:
    RuleCtype() : std::ctype<wchar_t>(size_t{0}) {}

protected:
    char do_narrow(wchar_t c, char dfault) const override
    {
        return (c > 0 && c < 0x80) ? static_cast<char>(c) : dfault;
    }
    const wchar_t* do_narrow(const wchar_t* low, const wchar_t* high, char dfault, char* to) const override
    {
        for (; low < high; ++low, ++to)
            *to = do_narrow(*low, dfault);
        return high;
    }
    bool do_is(mask m, wchar_t c) const override
    {
        if (c >= 0x80)
        {
            m = static_cast<mask>(m & ~(digit | xdigit));
            if (m == 0)
                return false;
        }
        return std::ctype<wchar_t>::do_is(m, c);
    }
    wchar_t do_tolower(wchar_t c) const override { return CaseFolding::Lower(c); }
    const wchar_t* do_tolower(wchar_t* low, const wchar_t* high) const override
    {
        for (; low < high; ++low)
            *low = CaseFolding::Lower(*low);
        return high;
    }
    wchar_t do_toupper(wchar_t c) const override { return CaseFolding::Upper(c); }
    const wchar_t* do_toupper(wchar_t* low, const wchar_t* high) const override
    {
        for (; low < high; ++low)
            *low = CaseFolding::Upper(*low);
        return high;
    }
};

const std::locale& RuleLocale()
{
    static const std::locale locale(std::locale::classic(), new RuleCtype);
    return locale;
}

// The character classes of every code unit, as the facet above gives them,
// found once per code unit and kept (the facet asks the C runtime once per
// class bit). Bit 31 marks an entry as found.
class ClassTable
{
public:
    std::ctype_base::mask Of(wchar_t c)
    {
        std::atomic<uint32_t>& entry = m_masks[static_cast<unsigned short>(c)];
        uint32_t value = entry.load(std::memory_order_relaxed);
        if ((value & Found) == 0)
        {
            const auto& ctype = std::use_facet<std::ctype<wchar_t>>(RuleLocale());
            value = Found;
            for (unsigned bit = 0; bit < 8 * sizeof(std::ctype_base::mask); ++bit)
            {
                const auto single = static_cast<std::ctype_base::mask>(1u << bit);
                if (ctype.is(single, c))
                    value |= single;
            }
            entry.store(value, std::memory_order_relaxed);
        }
        return static_cast<std::ctype_base::mask>(value & ~Found);
    }

private:
    static constexpr uint32_t Found = 0x80000000u;
    std::atomic<uint32_t> m_masks[0x10000] = {};
};

ClassTable& Classes()
{
    static ClassTable table;
    return table;
}

struct RuleTraits : std::regex_traits<wchar_t>
{
    wchar_t translate_nocase(wchar_t c) const { return CaseFolding::Lower(c); }
    // As the standard traits decide it, from the table.
    bool isctype(wchar_t c, char_class_type f) const
    {
        return (Classes().Of(c) & f._M_base) != 0 ||
               ((f._M_extended & char_class_type::_S_under) != 0 && c == L'_');
    }
    // The key of an equivalence class ([[=a=]]): the lower-case text, which
    // is what the classic locale's collation gives. A bracket expression
    // asks for it on every character it tests, so it must not allocate.
    template <typename FwdIt>
    string_type transform_primary(FwdIt first, FwdIt last) const
    {
        string_type key(first, last);
        for (wchar_t& c : key)
            c = CaseFolding::Lower(c);
        return key;
    }
};

using Automaton = std::__detail::_NFA<RuleTraits>;
using Matcher = std::function<bool(wchar_t)>;

constexpr auto CompileFlags = std::regex_constants::ECMAScript | std::regex_constants::icase;

// Length and group nesting, checked before the compiler sees the text.
bool WithinTextLimits(const std::wstring& expression)
{
    if (expression.size() > MaxExpressionLength)
        return false;
    size_t depth = 0;
    bool inBracket = false;
    for (size_t i = 0; i < expression.size(); ++i)
    {
        wchar_t c = expression[i];
        if (c == L'\\')
        {
            ++i;
            continue;
        }
        if (inBracket)
        {
            if (c == L']')
                inBracket = false;
            continue;
        }
        if (c == L'[')
            inBracket = true;
        else if (c == L'(' && ++depth > MaxGroupNesting)
            return false;
        else if (c == L')' && depth > 0)
            --depth;
    }
    return true;
}

// What one call of the most expensive character matcher of the expression
// costs, in steps. A bracket expression tests its ranges one by one (with two
// case mappings each) and its classes one by one, and "{n}" copies it into n
// states, so the budget charges every matcher call as much as the largest
// bracket's ranges and classes (four ranges or two classes to a step).
long long MatcherCallSteps(const std::wstring& expression)
{
    long long largest = 0;
    for (size_t i = 0; i < expression.size(); ++i)
    {
        if (expression[i] == L'\\')
        {
            ++i;
            continue;
        }
        if (expression[i] != L'[')
            continue;
        long long work = 0;
        size_t j = i + 1;
        if (j < expression.size() && expression[j] == L'^')
            ++j;
        if (j < expression.size() && expression[j] == L']')
            ++j; // a leading ] is a literal
        for (; j < expression.size() && expression[j] != L']'; ++j)
        {
            const wchar_t c = expression[j];
            if (c == L'\\')
            {
                ++j;
                work += 2; // a class escape, or a literal
            }
            else if (c == L'-')
                work += 4;
            else if (c == L'[' && j + 1 < expression.size() &&
                     (expression[j + 1] == L':' || expression[j + 1] == L'=' || expression[j + 1] == L'.'))
            {
                const wchar_t kind = expression[j + 1];
                size_t close = j + 2;
                while (close + 1 < expression.size() && !(expression[close] == kind && expression[close + 1] == L']'))
                    ++close;
                j = close + 1;
                work += 2;
            }
        }
        largest = std::max(largest, work);
        i = j;
    }
    return 1 + largest / 4;
}

enum class Op : unsigned char
{
    Match,        // one character that the matcher accepts
    Accept,       // the end of the expression
    Split,        // alt first, then next
    Repeat,       // a quantifier: alt is once more, next is out (neg: lazy)
    Next,         // no condition
    GroupBegin,   // index: the group
    GroupEnd,     //
    LineBegin,    // ^
    LineEnd,      // $
    WordBoundary, // \b (neg: \B)
    Lookahead,    // alt: start of the sub-expression (neg: negative)
    Backref,      // index: the group
};

struct Node
{
    Op op = Op::Next;
    bool neg = false;
    int next = -1;
    int alt = -1;
    uint32_t index = 0;
    const Matcher* matcher = nullptr;
};
} // namespace

struct CompiledRegEx
{
    MatchMode mode = MatchMode::Search;
    bool backtracking = false;
    std::shared_ptr<const Automaton> automaton; // owns the matchers and traits
    std::vector<Node> nodes;
    int start = 0;
    uint32_t groups = 0;
    long long matcherCallSteps = 1;
    // When no assertion lies between the start and the first characters: the
    // character states reachable from the start, and whether the accepting
    // state is (so a search need not walk the start's edges at every
    // position).
    bool plainStart = false;
    bool startAccepts = false;
    std::vector<int> startMatches;
    // For the set simulation: each node, or the first node after it that is
    // not a plain step (group marks and joins say nothing without captures).
    std::vector<int> forward;
    RuleTraits::char_class_type wordClass{};

    bool IsWord(wchar_t c) const { return automaton->_M_traits.isctype(c, wordClass); }
};

namespace
{
// The steps a match may still spend.
struct Budget
{
    long long left;
    bool Spend(long long steps = 1)
    {
        left -= steps;
        return left >= 0;
    }
};

// Result of a run: 1 accepted, 0 not, -1 budget spent.
constexpr int Found = 1;
constexpr int NotFound = 0;
constexpr int Spent = -1;

bool WordBoundaryAt(const CompiledRegEx& re, const wchar_t* text, size_t length, size_t pos)
{
    bool left = pos > 0 && re.IsWord(text[pos - 1]);
    bool right = pos < length && re.IsWord(text[pos]);
    return left != right;
}

// The set simulation, for automata without back-references.
class SetSimulation
{
public:
    SetSimulation(const CompiledRegEx& re, const std::wstring& text, Budget& budget)
        : m_re(re), m_text(text.data()), m_length(text.size()), m_budget(budget)
    {
    }

    // Runs from state start at position from. Unanchored: a new attempt
    // starts at every position. atEndOnly: the accepting state counts only
    // at the end of the text.
    int Run(int start, size_t from, bool anchored, bool atEndOnly, size_t depth)
    {
        Scratch& s = ScratchAt(depth);
        s.current.clear();
        NextGeneration(s);
        int result = Closure(s, start, from, s.current, atEndOnly, depth);
        if (result != NotFound)
            return result;
        for (size_t pos = from; pos < m_length; ++pos)
        {
            if (s.current.empty() && anchored)
                return NotFound;
            const wchar_t c = m_text[pos];
            NextGeneration(s);
            s.next.clear();
            for (int id : s.current)
            {
                if (!m_budget.Spend(m_re.matcherCallSteps))
                    return Spent;
                const Node& node = m_re.nodes[static_cast<size_t>(id)];
                if (!(*node.matcher)(c))
                    continue;
                result = Closure(s, node.next >= 0 ? m_re.forward[static_cast<size_t>(node.next)] : -1, pos + 1,
                                 s.next, atEndOnly, depth);
                if (result != NotFound)
                    return result;
            }
            if (!anchored)
            {
                result = StartAgain(s, start, pos + 1, atEndOnly, depth);
                if (result != NotFound)
                    return result;
            }
            s.current.swap(s.next);
        }
        return NotFound;
    }

private:
    struct Scratch
    {
        std::vector<uint32_t> mark; // generation in which a state was reached
        uint32_t generation = 0;
        std::vector<int> current, next, pending;
    };

    Scratch& ScratchAt(size_t depth)
    {
        while (m_scratch.size() <= depth)
        {
            m_scratch.push_back(std::make_unique<Scratch>());
            m_scratch.back()->mark.assign(m_re.nodes.size(), 0);
        }
        return *m_scratch[depth];
    }

    static void NextGeneration(Scratch& s)
    {
        if (++s.generation == 0)
        {
            std::fill(s.mark.begin(), s.mark.end(), 0);
            s.generation = 1;
        }
    }

    // A new attempt at pos: the start's closure, taken from the compiled
    // list when no assertion depends on the position.
    int StartAgain(Scratch& s, int start, size_t pos, bool atEndOnly, size_t depth)
    {
        if (start != m_re.start || !m_re.plainStart)
            return Closure(s, start, pos, s.next, atEndOnly, depth);
        if (m_re.startAccepts && (!atEndOnly || pos == m_length))
            return Found;
        if (!m_budget.Spend(static_cast<long long>(m_re.startMatches.size()) + 1))
            return Spent;
        for (int id : m_re.startMatches)
        {
            if (s.mark[static_cast<size_t>(id)] != s.generation)
            {
                s.mark[static_cast<size_t>(id)] = s.generation;
                s.next.push_back(id);
            }
        }
        return NotFound;
    }

    // Adds the character-consuming states reachable from id at pos to into.
    int Closure(Scratch& s, int id, size_t pos, std::vector<int>& into, bool atEndOnly, size_t depth)
    {
        if (id < 0 || s.mark[static_cast<size_t>(id)] == s.generation)
            return NotFound;
        s.mark[static_cast<size_t>(id)] = s.generation;
        s.pending.clear();
        s.pending.push_back(id);
        while (!s.pending.empty())
        {
            const int self = s.pending.back();
            const Node& node = m_re.nodes[static_cast<size_t>(self)];
            s.pending.pop_back();
            if (node.op == Op::Match)
            {
                into.push_back(self); // its matcher call is charged when it runs
                continue;
            }
            if (!m_budget.Spend())
                return Spent;
            int follow = -1;
            int other = -1;
            switch (node.op)
            {
            case Op::Match:
                break;
            case Op::Accept:
                if (!atEndOnly || pos == m_length)
                    return Found;
                break;
            case Op::Split:
            case Op::Repeat:
                follow = node.next;
                other = node.alt;
                break;
            case Op::Next:
            case Op::GroupBegin:
            case Op::GroupEnd:
                follow = node.next;
                break;
            case Op::LineBegin:
                if (pos == 0)
                    follow = node.next;
                break;
            case Op::LineEnd:
                if (pos == m_length)
                    follow = node.next;
                break;
            case Op::WordBoundary:
                if (WordBoundaryAt(m_re, m_text, m_length, pos) != node.neg)
                    follow = node.next;
                break;
            case Op::Lookahead:
            {
                // The sub-expression runs on the next level's scratch.
                int result = Run(node.alt, pos, true, false, depth + 1);
                if (result == Spent)
                    return Spent;
                if ((result == Found) != node.neg)
                    follow = node.next;
                break;
            }
            case Op::Backref: // compiled for the backtracking walk only
                break;
            }
            for (int target : {other, follow})
            {
                target = target >= 0 ? m_re.forward[static_cast<size_t>(target)] : -1;
                if (target >= 0 && s.mark[static_cast<size_t>(target)] != s.generation)
                {
                    s.mark[static_cast<size_t>(target)] = s.generation;
                    s.pending.push_back(target);
                }
            }
        }
        return NotFound;
    }

    const CompiledRegEx& m_re;
    const wchar_t* m_text;
    size_t m_length;
    Budget& m_budget;
    std::vector<std::unique_ptr<Scratch>> m_scratch; // one per lookahead depth
};

// The backtracking walk, for automata with back-references: the standard
// executor's depth-first order and loop rules, with its recursion turned
// into a heap stack of frames (choice points and the undo of captures and
// loop counts).
class Backtracking
{
public:
    Backtracking(const CompiledRegEx& re, const std::wstring& text, Budget& budget)
        : m_re(re), m_text(text.data()), m_length(static_cast<uint32_t>(text.size())), m_budget(budget),
          m_captures(re.groups), m_loops(re.nodes.size())
    {
    }

    int Search(bool whole)
    {
        for (uint32_t from = 0; from <= m_length; ++from)
        {
            std::fill(m_captures.begin(), m_captures.end(), Capture{});
            int result = Run(m_re.start, from, whole);
            if (result != NotFound || whole)
                return result;
        }
        return NotFound;
    }

private:
    struct Capture
    {
        uint32_t first = 0;
        uint32_t second = 0;
        bool matched = false;
    };
    struct Loop
    {
        uint32_t pos = 0;
        uint32_t count = 0;
    };
    enum class Kind : unsigned char
    {
        Explore,        // go on from state at pos
        OnceMore,       // enter a quantifier's body once more, under its loop rule
        RestoreCapture, // state: group; a, b, matched: its former value
        RestoreLoop,    // state: quantifier; a, b: its former position and count
    };
    struct Frame
    {
        Kind kind;
        bool matched;
        uint32_t state;
        uint32_t pos;
        uint32_t a;
        uint32_t b;
    };

    bool Push(Kind kind, int state, uint32_t pos, uint32_t a = 0, uint32_t b = 0, bool matched = false)
    {
        if (state < 0)
            return true;
        if (m_frames.size() >= MaxBacktrackFrames)
            return false;
        m_frames.push_back(Frame{kind, matched, static_cast<uint32_t>(state), pos, a, b});
        return true;
    }

    bool SaveCapture(uint32_t group)
    {
        const Capture& c = m_captures[group];
        return Push(Kind::RestoreCapture, static_cast<int>(group), 0, c.first, c.second, c.matched);
    }

    // Drops the frames above base, undoing what they record.
    void Unwind(size_t base)
    {
        while (m_frames.size() > base)
        {
            const Frame f = m_frames.back();
            m_frames.pop_back();
            if (f.kind == Kind::RestoreCapture)
                m_captures[f.state] = Capture{f.a, f.b, f.matched};
            else if (f.kind == Kind::RestoreLoop)
                m_loops[f.state] = Loop{f.a, f.b};
        }
    }

    bool BackrefMatches(const Capture& c, uint32_t pos, uint32_t& end)
    {
        if (!c.matched || c.first > c.second)
            return false;
        const uint32_t length = c.second - c.first;
        if (m_length - pos < length || !m_budget.Spend(length))
            return false;
        for (uint32_t i = 0; i < length; ++i)
        {
            if (CaseFolding::Lower(m_text[c.first + i]) != CaseFolding::Lower(m_text[pos + i]))
                return false;
        }
        end = pos + length;
        return true;
    }

    // On success the captures at the accepting state go to accepted (when
    // given) and everything the run changed is undone.
    int Run(int start, uint32_t from, bool atEndOnly, std::vector<Capture>* accepted = nullptr)
    {
        const size_t base = m_frames.size();
        if (!Push(Kind::Explore, start, from))
            return Spent;
        while (m_frames.size() > base)
        {
            const Frame f = m_frames.back();
            m_frames.pop_back();
            if (!m_budget.Spend())
                return Spent;
            bool pushed = true;
            switch (f.kind)
            {
            case Kind::RestoreCapture:
                m_captures[f.state] = Capture{f.a, f.b, f.matched};
                continue;
            case Kind::RestoreLoop:
                m_loops[f.state] = Loop{f.a, f.b};
                continue;
            case Kind::OnceMore:
            {
                // A quantifier may enter its body again at the position where
                // it last entered it only once more (room for a capture).
                Loop& loop = m_loops[f.state];
                const int body = m_re.nodes[f.state].alt;
                if (loop.count == 0 || loop.pos != f.pos)
                {
                    pushed = Push(Kind::RestoreLoop, static_cast<int>(f.state), 0, loop.pos, loop.count);
                    loop = Loop{f.pos, 1};
                    pushed = pushed && Push(Kind::Explore, body, f.pos);
                }
                else if (loop.count < 2)
                {
                    pushed = Push(Kind::RestoreLoop, static_cast<int>(f.state), 0, loop.pos, loop.count);
                    ++loop.count;
                    pushed = pushed && Push(Kind::Explore, body, f.pos);
                }
                if (!pushed)
                    return Spent;
                continue;
            }
            case Kind::Explore:
                break;
            }

            const Node& node = m_re.nodes[f.state];
            const uint32_t pos = f.pos;
            switch (node.op)
            {
            case Op::Match:
                if (pos >= m_length)
                    break;
                if (!m_budget.Spend(m_re.matcherCallSteps))
                    return Spent;
                if ((*node.matcher)(m_text[pos]))
                    pushed = Push(Kind::Explore, node.next, pos + 1);
                break;
            case Op::Accept:
                if (!atEndOnly || pos == m_length)
                {
                    if (accepted != nullptr)
                        *accepted = m_captures;
                    Unwind(base);
                    return Found;
                }
                break;
            case Op::Split:
                pushed = Push(Kind::Explore, node.next, pos) && Push(Kind::Explore, node.alt, pos);
                break;
            case Op::Repeat:
                if (!node.neg)
                    pushed = Push(Kind::Explore, node.next, pos) &&
                             Push(Kind::OnceMore, static_cast<int>(f.state), pos);
                else
                    pushed = Push(Kind::OnceMore, static_cast<int>(f.state), pos) &&
                             Push(Kind::Explore, node.next, pos);
                break;
            case Op::Next:
                pushed = Push(Kind::Explore, node.next, pos);
                break;
            case Op::GroupBegin:
                pushed = SaveCapture(node.index);
                m_captures[node.index].first = pos;
                pushed = pushed && Push(Kind::Explore, node.next, pos);
                break;
            case Op::GroupEnd:
                pushed = SaveCapture(node.index);
                m_captures[node.index].second = pos;
                m_captures[node.index].matched = true;
                pushed = pushed && Push(Kind::Explore, node.next, pos);
                break;
            case Op::LineBegin:
                if (pos == 0)
                    pushed = Push(Kind::Explore, node.next, pos);
                break;
            case Op::LineEnd:
                if (pos == m_length)
                    pushed = Push(Kind::Explore, node.next, pos);
                break;
            case Op::WordBoundary:
                if (WordBoundaryAt(m_re, m_text, m_length, pos) != node.neg)
                    pushed = Push(Kind::Explore, node.next, pos);
                break;
            case Op::Lookahead:
            {
                // The sub-expression starts with the captures as they are; on
                // success the groups it matched are kept (undone on the way
                // back, like any capture).
                std::vector<Capture> inner;
                int result = Run(node.alt, pos, false, &inner);
                if (result == Spent)
                    return Spent;
                if (result == Found)
                {
                    for (uint32_t g = 0; g < m_re.groups && pushed; ++g)
                    {
                        if (!inner[g].matched)
                            continue;
                        pushed = SaveCapture(g);
                        m_captures[g] = inner[g];
                    }
                }
                if (pushed && (result == Found) != node.neg)
                    pushed = Push(Kind::Explore, node.next, pos);
                break;
            }
            case Op::Backref:
            {
                uint32_t end = 0;
                if (BackrefMatches(m_captures[node.index], pos, end))
                    pushed = Push(Kind::Explore, node.next, end);
                if (m_budget.left < 0)
                    return Spent;
                break;
            }
            }
            if (!pushed)
                return Spent;
        }
        return NotFound;
    }

    const CompiledRegEx& m_re;
    const wchar_t* m_text;
    uint32_t m_length;
    Budget& m_budget;
    std::vector<Capture> m_captures;
    std::vector<Loop> m_loops;
    std::vector<Frame> m_frames;
};

// The automaton's states as nodes; false when it holds something unknown.
bool BuildNodes(const Automaton& automaton, CompiledRegEx& re)
{
    namespace rx = std::__detail;
    const long count = static_cast<long>(automaton.size());
    auto target = [count](long id) { return (id >= 0 && id < count) ? static_cast<int>(id) : -1; };
    re.nodes.resize(automaton.size());
    for (long i = 0; i < count; ++i)
    {
        const auto& state = automaton[static_cast<size_t>(i)];
        Node& node = re.nodes[static_cast<size_t>(i)];
        node.next = target(state._M_next);
        switch (state._M_opcode())
        {
        case rx::_S_opcode_alternative:
            node.op = Op::Split;
            node.alt = target(state._M_alt);
            break;
        case rx::_S_opcode_repeat:
            node.op = Op::Repeat;
            node.alt = target(state._M_alt);
            node.neg = state._M_neg;
            break;
        case rx::_S_opcode_backref:
            node.op = Op::Backref;
            node.index = static_cast<uint32_t>(state._M_backref_index);
            re.backtracking = true;
            break;
        case rx::_S_opcode_line_begin_assertion:
            node.op = Op::LineBegin;
            break;
        case rx::_S_opcode_line_end_assertion:
            node.op = Op::LineEnd;
            break;
        case rx::_S_opcode_word_boundary:
            node.op = Op::WordBoundary;
            node.neg = state._M_neg;
            break;
        case rx::_S_opcode_subexpr_lookahead:
            node.op = Op::Lookahead;
            node.alt = target(state._M_alt);
            node.neg = state._M_neg;
            break;
        case rx::_S_opcode_subexpr_begin:
            node.op = Op::GroupBegin;
            node.index = static_cast<uint32_t>(state._M_subexpr);
            break;
        case rx::_S_opcode_subexpr_end:
            node.op = Op::GroupEnd;
            node.index = static_cast<uint32_t>(state._M_subexpr);
            break;
        case rx::_S_opcode_dummy:
            node.op = Op::Next;
            break;
        case rx::_S_opcode_match:
            node.op = Op::Match;
            node.matcher = &state._M_get_matcher(); // copies left unreachable by "{n}" lead nowhere
            break;
        case rx::_S_opcode_accept:
            node.op = Op::Accept;
            break;
        default:
            return false;
        }
        if ((node.op == Op::GroupBegin || node.op == Op::GroupEnd || node.op == Op::Backref) &&
            node.index >= automaton._M_sub_count())
            return false;
    }
    re.start = target(automaton._M_start());
    re.groups = static_cast<uint32_t>(automaton._M_sub_count());
    if (re.start < 0)
        return false;

    re.forward.resize(re.nodes.size());
    for (size_t i = 0; i < re.nodes.size(); ++i)
    {
        int at = static_cast<int>(i);
        for (size_t hops = 0; at >= 0 && hops < re.nodes.size(); ++hops)
        {
            const Op op = re.nodes[static_cast<size_t>(at)].op;
            if (op != Op::Next && op != Op::GroupBegin && op != Op::GroupEnd)
                break;
            at = re.nodes[static_cast<size_t>(at)].next;
        }
        re.forward[i] = at;
    }

    // The start's closure, when it holds no assertion.
    std::vector<bool> seen(re.nodes.size(), false);
    std::vector<int> pending{re.start};
    seen[static_cast<size_t>(re.start)] = true;
    re.plainStart = true;
    while (!pending.empty() && re.plainStart)
    {
        const Node& node = re.nodes[static_cast<size_t>(pending.back())];
        const int self = pending.back();
        pending.pop_back();
        switch (node.op)
        {
        case Op::Match:
            re.startMatches.push_back(self);
            continue;
        case Op::Accept:
            re.startAccepts = true;
            continue;
        case Op::Split:
        case Op::Repeat:
        case Op::Next:
        case Op::GroupBegin:
        case Op::GroupEnd:
            break;
        default:
            re.plainStart = false;
            continue;
        }
        for (int t : {node.alt, node.next})
        {
            if (t >= 0 && !seen[static_cast<size_t>(t)])
            {
                seen[static_cast<size_t>(t)] = true;
                pending.push_back(t);
            }
        }
    }
    if (!re.plainStart)
    {
        re.startMatches.clear();
        re.startAccepts = false;
    }
    return true;
}
} // namespace

int Compile(const std::wstring& expression, MatchMode mode, std::shared_ptr<const CompiledRegEx>& compiled)
{
    compiled.reset();
    if (!WithinTextLimits(expression))
        return static_cast<int>(std::regex_constants::error_complexity);

    auto result = std::make_shared<CompiledRegEx>();
    result->mode = mode;
    try
    {
        const wchar_t* first = expression.data();
        std::__detail::_Compiler<RuleTraits> compiler(first, first + expression.size(), RuleLocale(), CompileFlags);
        result->automaton = compiler._M_get_nfa();
    }
    catch (const std::regex_error& e)
    {
        return static_cast<int>(e.code());
    }
    if (!result->automaton || !BuildNodes(*result->automaton, *result))
        return static_cast<int>(std::regex_constants::error_complexity);
    result->matcherCallSteps = MatcherCallSteps(expression);
    const wchar_t word[] = L"w";
    result->wordClass = result->automaton->_M_traits.lookup_classname(word, word + 1);
    compiled = std::move(result);
    return 0;
}

int TryMatch(const std::shared_ptr<const CompiledRegEx>& compiled, const std::wstring& text, bool& matched)
{
    matched = false;
    if (!compiled)
        return 0;
    int result = Spent;
    if (text.size() <= MaxTextLength)
    {
        Budget budget{compiled->backtracking ? BacktrackingStepBudget : SetStepBudget};
        const bool whole = compiled->mode == MatchMode::Whole;
        if (compiled->backtracking)
            result = Backtracking(*compiled, text, budget).Search(whole);
        else
            result = SetSimulation(*compiled, text, budget).Run(compiled->start, 0, whole, whole, 0);
    }
    if (result == Spent)
        return QX_REGEX_ERROR_BUDGET;
    matched = result == Found;
    return 0;
}
} // namespace Detail

std::wstring EscapeRegExMetaCharacters(const std::wstring& text)
{
    // One pass gives the same text as replacing each metacharacter in turn,
    // backslash first: every metacharacter of the input gets one backslash.
    static const std::wstring_view metaCharacters = L"\\.[]^-?+(){}$|!*";
    std::wstring escaped;
    escaped.reserve(text.size() * 2);
    for (wchar_t c : text)
    {
        if (metaCharacters.find(c) != std::wstring_view::npos)
            escaped.push_back(L'\\');
        escaped.push_back(c);
    }
    return escaped;
}

std::wstring GlobToRegExPattern(const std::wstring& glob)
{
    std::wstring escaped = EscapeRegExMetaCharacters(glob);
    std::wstring pattern;
    pattern.reserve(escaped.size() + 8);
    pattern.push_back(L'^');
    for (size_t i = 0; i < escaped.size(); ++i)
    {
        if (escaped[i] == L'\\' && i + 1 < escaped.size())
        {
            wchar_t next = escaped[i + 1];
            if (next == L'?')
                pattern.push_back(L'.');
            else if (next == L'*')
                pattern.append(L".*");
            else
            {
                pattern.push_back(L'\\');
                pattern.push_back(next);
            }
            ++i;
            continue;
        }
        pattern.push_back(escaped[i]);
    }
    pattern.push_back(L'$');
    return pattern;
}
} // namespace QXCommon::RegExHelpers

namespace
{
// Samples of ValidateRegularExpressionEx, by bit.
struct Sample
{
    unsigned int bit;
    const wchar_t* text;
};
constexpr Sample Samples[] = {
    {QX_REGEX_SAMPLE_EMPTY, L""},
    {QX_REGEX_SAMPLE_FILE_PATH, L"c:\\windows\\system32\\calc.exe"},
    {QX_REGEX_SAMPLE_FOLDER, L"c:\\windows\\system32\\"},
    {QX_REGEX_SAMPLE_COMPUTER_NAME, L"WKSTN07"},
    {QX_REGEX_SAMPLE_UNC_SHARE, L"\\\\fileserver1\\public"},
    {QX_REGEX_SAMPLE_WEB_HOST, L"www.example.com.au"},
    {QX_REGEX_SAMPLE_IPV4_ADDRESS, L"192.168.1.1"},
};
// Each kind's sample has its settled length.
constexpr size_t SampleLengths[] = {0, 28, 20, 7, 20, 18, 11};
constexpr bool SamplesHaveTheirLengths()
{
    for (size_t i = 0; i < sizeof Samples / sizeof Samples[0]; ++i)
        if (std::char_traits<wchar_t>::length(Samples[i].text) != SampleLengths[i])
            return false;
    return true;
}
static_assert(SamplesHaveTheirLengths());
} // namespace

bool ValidateRegularExpression(const wchar_t* expression, int* errorCode)
{
    if (expression == nullptr || errorCode == nullptr)
    {
        QXLOG_ERROR("ValidateRegularExpression", L"Invalid parameter\n");
        if (errorCode != nullptr)
            *errorCode = 0;
        return false;
    }
    QXCommon::RegExHelpers::CQXRegEx regex;
    bool parsed = regex.Parse(expression);
    *errorCode = regex.GetLastRxErrorCode();
    return parsed;
}

bool ValidateRegularExpressionEx(const wchar_t* expression, unsigned int sampleMask, int* errorCode)
{
    if (expression == nullptr || errorCode == nullptr)
    {
        QXLOG_ERROR("ValidateRegularExpressionEx", L"Invalid parameter\n");
        if (errorCode != nullptr)
            *errorCode = 0;
        return false;
    }
    QXCommon::RegExHelpers::CQXRegEx regex;
    if (!regex.Parse(expression))
    {
        *errorCode = regex.GetLastRxErrorCode();
        return false;
    }
    *errorCode = 0;
    for (const Sample& sample : Samples)
    {
        if ((sampleMask & sample.bit) == 0)
            continue;
        std::wstring text = sample.text;
        bool matched = false;
        DWORD start = GetTickCount();
        int matchError = regex.TryMatch(text, matched);
        DWORD elapsed = GetTickCount() - start;
        // A match that spent its budget counts as too slow: without the
        // budget it would have taken longer.
        if (elapsed > 100 || matchError != 0)
        {
            QXLOG_ERROR("ValidateRegularExpressionEx",
                        L"Regular Expression [ {} ] takes too long to match [ {} ] ({} ms)\n", expression, text,
                        elapsed);
            *errorCode = QX_REGEX_ERROR_TOO_SLOW;
            return false;
        }
    }
    return true;
}
