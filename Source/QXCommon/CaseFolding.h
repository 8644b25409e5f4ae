#pragma once
// Case mapping of single UTF-16 code units, the same on every thread and in
// every locale: the invariant locale's lower and upper case of each code unit,
// computed once per process into two tables. Surrogates and code unit 0 map
// to themselves. Used wherever the library compares names and paths without
// regard to case, so that the wildcard matcher and the regular-expression
// engine fold alike.

#include <windows.h>

#include <vector>

namespace QXCommon::CaseFolding
{
namespace Detail
{
struct Table
{
    wchar_t map[0x10000];

    explicit Table(DWORD mapping)
    {
        for (size_t i = 0; i < 0x10000; ++i)
            map[i] = static_cast<wchar_t>(i);
        std::vector<wchar_t> source(0x10000);
        for (size_t i = 0; i < 0x10000; ++i)
            source[i] = static_cast<wchar_t>(i);
        // Code unit 0 is left out; surrogates are restored afterwards, as
        // adjacent ones may have been read as pairs.
        if (LCMapStringW(LOCALE_INVARIANT, mapping, source.data() + 1, 0xFFFF, map + 1, 0xFFFF) == 0)
        {
            for (size_t i = 0; i < 0x10000; ++i)
            {
                wchar_t c = static_cast<wchar_t>(i);
                if (mapping == LCMAP_LOWERCASE && c >= L'A' && c <= L'Z')
                    c = static_cast<wchar_t>(c + (L'a' - L'A'));
                else if (mapping == LCMAP_UPPERCASE && c >= L'a' && c <= L'z')
                    c = static_cast<wchar_t>(c - (L'a' - L'A'));
                map[i] = c;
            }
        }
        for (size_t i = 0xD800; i < 0xE000; ++i)
            map[i] = static_cast<wchar_t>(i);
    }
};
} // namespace Detail

// Table of the lower case of every code unit.
inline const wchar_t* LowerTable()
{
    static const Detail::Table table(LCMAP_LOWERCASE);
    return table.map;
}

// Table of the upper case of every code unit.
inline const wchar_t* UpperTable()
{
    static const Detail::Table table(LCMAP_UPPERCASE);
    return table.map;
}

inline wchar_t Lower(wchar_t c) { return LowerTable()[static_cast<unsigned short>(c)]; }
inline wchar_t Upper(wchar_t c) { return UpperTable()[static_cast<unsigned short>(c)]; }
} // namespace QXCommon::CaseFolding
