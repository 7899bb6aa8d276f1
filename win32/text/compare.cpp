// lstrcmpW and lstrcmpiW: the user's collation, as ICU knows it. Names are compared for every event, so texts of
// printable ASCII go through a table that was made from the collator itself and gives the same answer.
#include <unicode/ucol.h>
#include <unicode/uloc.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace {

// The user's locale in ICU's spelling, "de_AT": what LC_ALL, LC_COLLATE or LANG names. A machine that names none, or
// the C locale, is US English, as the program's own texts are.
std::string UserLocale() {
    for (const char* variable : {"LC_ALL", "LC_COLLATE", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value == nullptr || *value == '\0') continue;
        std::string name(value);
        name.resize(std::min(name.size(), name.find_first_of(".@")));
        if (name.empty() || name == "C" || name == "POSIX") break;
        return name;
    }
    return "en_US";
}

struct COLLATOR_CLOSER {
    void operator()(UCollator* collator) const { ucol_close(collator); }
};

// The order of texts in one locale. Read-only once made: any thread may compare.
class TEXT_ORDER {
public:
    explicit TEXT_ORDER(const std::string& locale) {
        UErrorCode status = U_ZERO_ERROR;
        collator.reset(ucol_open(locale.c_str(), &status));
        if (U_FAILURE(status)) collator.reset();
        if (!collator) return;
        ucol_setStrength(collator.get(), UCOL_TERTIARY);
        ucol_setAttribute(collator.get(), UCOL_NORMALIZATION_MODE, UCOL_ON, &status);
        quick = IsRootOrder() && U_SUCCESS(status);
        if (quick) RankAscii();
    }

    int Compare(LPCWSTR a, LPCWSTR b, bool ignoreCase) const {
        int result = 0;
        if (quick && CompareQuickly(a, b, ignoreCase, result)) return result;
        const std::u16string_view textA(a);
        const std::u16string_view textB(b);
        if (textA == textB) return 0;
        return ignoreCase ? Collate(win32::FoldName(textA), win32::FoldName(textB)) : Collate(textA, textB);
    }

    // Bytes that are equal for texts that compare equal; their number is given even where `room` is too small.
    size_t SortKey(std::u16string_view text, bool ignoreCase, unsigned char* key, size_t room) const {
        const std::u16string folded = ignoreCase ? win32::FoldName(text) : std::u16string(text);
        if (collator != nullptr)
            return static_cast<size_t>(ucol_getSortKey(
                collator.get(), folded.data(), static_cast<int32_t>(folded.size()), key, static_cast<int32_t>(room)));
        const size_t bytes = folded.size() * sizeof(char16_t);
        if (bytes < room) std::memcpy(key, folded.c_str(), bytes + 1);
        return bytes + 1;
    }

private:
    // Locales with rules of their own may join letters ("ch", "aa") or order them differently; no table of single
    // characters can say that.
    bool IsRootOrder() const {
        int32_t rules = 0;
        ucol_getRules(collator.get(), &rules);
        UErrorCode status = U_ZERO_ERROR;
        return rules == 0 && ucol_getAttribute(collator.get(), UCOL_CASE_FIRST, &status) == UCOL_OFF &&
               ucol_getAttribute(collator.get(), UCOL_ALTERNATE_HANDLING, &status) == UCOL_NON_IGNORABLE &&
               U_SUCCESS(status);
    }

    static constexpr char16_t Lower(char16_t unit) {
        return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
    }

    void RankAscii() {
        std::vector<char16_t> units;
        for (char16_t unit = u' '; unit <= u'~'; ++unit)
            if (Lower(unit) == unit) units.push_back(unit);
        std::sort(units.begin(), units.end(), [&](char16_t a, char16_t b) { return Collate({&a, 1}, {&b, 1}) < 0; });
        for (size_t i = 0; i < units.size(); ++i) rank[units[i]] = static_cast<unsigned char>(i + 1);
        for (char16_t unit = u'A'; unit <= u'Z'; ++unit) rank[unit] = rank[Lower(unit)];
    }

    unsigned char Rank(char16_t unit) const { return unit < rank.size() ? rank[unit] : 0; }

    bool IsRanked(LPCWSTR text) const {
        while (Rank(*text) != 0) ++text;
        return *text == 0;
    }

    // False: a unit outside printable ASCII was met, so that only the collator knows.
    bool CompareQuickly(LPCWSTR a, LPCWSTR b, bool ignoreCase, int& result) const {
        int caseOrder = 0;  // of the first letters that differ in case alone: small letters come first
        for (; Rank(*a) != 0 && Rank(*a) == Rank(*b); ++a, ++b)
            if (caseOrder == 0 && *a != *b) caseOrder = *a > *b ? -1 : 1;
        if (!IsRanked(a) || !IsRanked(b)) return false;
        const int order = Rank(*a) - Rank(*b);  // the end of a text comes before every unit
        result = order != 0 ? (order < 0 ? -1 : 1) : ignoreCase ? 0 : caseOrder;
        return true;
    }

    int Collate(std::u16string_view a, std::u16string_view b) const {
        if (collator == nullptr) return a < b ? -1 : a > b ? 1 : 0;
        return ucol_strcoll(collator.get(), a.data(), static_cast<int32_t>(a.size()), b.data(),
                            static_cast<int32_t>(b.size()));
    }

    std::unique_ptr<UCollator, COLLATOR_CLOSER>
        collator;  // null: ICU has no data for any locale; texts are then ordered by their units
    bool quick = false;
    std::array<unsigned char, 128> rank{};  // 0: not for the table
};

// Made once and never destroyed, since threads may still compare while the program ends.
const TEXT_ORDER& UserOrder() {
    static const TEXT_ORDER& order = *new TEXT_ORDER(UserLocale());
    return order;
}

int Compare(LPCWSTR a, LPCWSTR b, bool ignoreCase) {
    if (a == nullptr || b == nullptr) return a == b ? 0 : a == nullptr ? -1 : 1;
    return UserOrder().Compare(a, b, ignoreCase);
}

}  // namespace

int WINAPI lstrcmpW(LPCWSTR a, LPCWSTR b) { return Compare(a, b, false); }
int WINAPI lstrcmpiW(LPCWSTR a, LPCWSTR b) { return Compare(a, b, true); }

int WINAPI LCMapStringW(LCID, DWORD flags, LPCWSTR text, int units, LPWSTR key, int keyBytes) {
    if (text == nullptr || units == 0 || keyBytes < 0 || (flags & ~NORM_IGNORECASE) != LCMAP_SORTKEY) {
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    }
    const std::u16string_view source = units < 0 ? std::u16string_view(text) : std::u16string_view(text, units);
    const size_t needed = UserOrder().SortKey(source, (flags & NORM_IGNORECASE) != 0,
                                              reinterpret_cast<unsigned char*>(key), static_cast<size_t>(keyBytes));
    if (keyBytes != 0 && needed > static_cast<size_t>(keyBytes)) {
        return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    }
    return static_cast<int>(needed);
}

LCID WINAPI GetThreadLocale() {
    constexpr LCID usEnglish = 0x0409;
    static const LCID locale = uloc_getLCID(UserLocale().c_str());
    return locale != 0 ? locale : usEnglish;
}
