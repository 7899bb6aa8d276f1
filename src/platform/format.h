// The one formatter: printf-style formats over UTF-16 (and, for STRING_UTF8, over UTF-8) with the conventions of
// Microsoft's wide formats. Arguments carry their type, so that a conversion never reads what is not there.
//
//   %s   text in the format's own encoding; a null pointer prints (null)      %c   one unit
//   %d %i %ld                    signed 32 bit       %u %lu %I32u             unsigned 32 bit
//   %x %X %lx %#lx %#x           hexadecimal, with # and a value other than 0 preceded by 0x (0X)
//   %I64d %I64u %lld %llu        64 bit              %f %.3f                  a double
//   %%   a percent sign          Flags - + blank # 0, a width and a precision work as in printf; * does not exist.
//
// A literal format is checked against its arguments by the compiler. A format that comes from elsewhere (the string
// table) goes through FormatV; where it does not fit its arguments or is no format, the result is the empty text.
#pragma once

#include <windows.h>

#include <array>
#include <concepts>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

namespace keldwick {

using TEXT_VIEW = std::basic_string_view<WCHAR>;

enum class FORMAT_KIND : uint8_t { Integer, WideText, NarrowText, Unit, Real, Unsupported };

// What a conversion has to know about an argument's type.
struct FORMAT_TYPE {
    FORMAT_KIND kind = FORMAT_KIND::Unsupported;
    uint8_t bytes = 0;  // of an integer
};

// NOLINTBEGIN(bugprone-branch-clone): of the chain one branch is compiled
template <typename TYPE>
constexpr FORMAT_TYPE FormatTypeOf() {
    using PLAIN = std::decay_t<TYPE>;
    if constexpr (std::is_same_v<PLAIN, WCHAR> || std::is_same_v<PLAIN, char>) {
        return {FORMAT_KIND::Unit, sizeof(PLAIN)};
    } else if constexpr (std::is_enum_v<PLAIN> || std::is_integral_v<PLAIN>) {
        return {FORMAT_KIND::Integer, sizeof(PLAIN)};
    } else if constexpr (std::is_floating_point_v<PLAIN>) {
        return {FORMAT_KIND::Real, 0};
    } else if constexpr (std::is_convertible_v<PLAIN, const WCHAR*> || std::is_same_v<PLAIN, TEXT_VIEW>) {
        return {FORMAT_KIND::WideText, 0};
    } else if constexpr (std::is_convertible_v<PLAIN, const char*>) {
        return {FORMAT_KIND::NarrowText, 0};
    } else if constexpr (requires(const PLAIN& text) {
                             { text.Text() } -> std::same_as<const WCHAR*>;
                         }) {
        return {FORMAT_KIND::WideText, 0};
    } else if constexpr (requires(const PLAIN& text) {
                             { text.Text() } -> std::same_as<const char*>;
                         }) {
        return {FORMAT_KIND::NarrowText, 0};
    } else {
        return {};
    }
}
// NOLINTEND(bugprone-branch-clone)

// One argument of a format. Texts are borrowed: they must live until the formatting is done.
class FORMAT_ARGUMENT {
public:
    template <typename TYPE>
    FORMAT_ARGUMENT(const TYPE& value) : type(FormatTypeOf<TYPE>()) {  // NOLINT(google-explicit-constructor)
        static_assert(FormatTypeOf<TYPE>().kind != FORMAT_KIND::Unsupported, "a type that no conversion prints");
        if constexpr (FormatTypeOf<TYPE>().kind == FORMAT_KIND::Real) {
            real = static_cast<double>(value);
        } else if constexpr (FormatTypeOf<TYPE>().kind == FORMAT_KIND::Integer) {
            integer = static_cast<uint64_t>(static_cast<int64_t>(value));
        } else if constexpr (FormatTypeOf<TYPE>().kind == FORMAT_KIND::Unit) {
            integer = static_cast<std::make_unsigned_t<std::decay_t<TYPE>>>(value);
        } else if constexpr (std::is_same_v<TYPE, TEXT_VIEW>) {
            wide = value.data();
            length = value.size();
        } else if constexpr (FormatTypeOf<TYPE>().kind == FORMAT_KIND::WideText) {
            if constexpr (std::is_convertible_v<TYPE, const WCHAR*>)
                wide = value;
            else
                wide = value.Text();
        } else {
            if constexpr (std::is_convertible_v<TYPE, const char*>)
                narrow = value;
            else
                narrow = value.Text();
        }
    }

    FORMAT_TYPE Type() const { return type; }
    uint64_t Integer() const { return integer; }  // sign-extended from the argument's own width
    double Real() const { return real; }
    // The text, or null; Length() units of it, or up to its NUL when Length() is Terminated. A view without data is the
    // empty text.
    template <typename UNIT>
    const UNIT* TextOf() const {
        if constexpr (std::is_same_v<UNIT, WCHAR>)
            return wide;
        else
            return narrow;
    }
    size_t Length() const { return length; }

    static constexpr size_t Terminated = static_cast<size_t>(-1);

private:
    FORMAT_TYPE type;
    union {
        uint64_t integer;
        double real;
        const WCHAR* wide;
        const char* narrow;
    };
    size_t length = Terminated;
};

using FORMAT_ARGUMENTS = std::span<const FORMAT_ARGUMENT>;

// A format's text, and what the compiler knows about a literal one.
template <typename UNIT>
struct FORMAT_TEXT {
    constexpr FORMAT_TEXT(const UNIT* text)  // NOLINT(google-explicit-constructor)
        : start(text), length(std::char_traits<UNIT>::length(text)) {}
    constexpr FORMAT_TEXT(const UNIT* text, size_t units, const uint16_t* places)
        : start(text), length(units), percents(places) {}

    const UNIT* start;  // ends with a NUL
    size_t length;      // without it
    // Where the percent signs stand, of which each argument has one; null: they are to be looked for.
    const uint16_t* percents = nullptr;
};

// One "%..." of a format, as read by ReadConversion.
struct FORMAT_CONVERSION {
    bool left = false, plus = false, blank = false, alternate = false, zero = false;
    bool longLong = false;  // I64 or ll
    uint32_t width = 0;
    int32_t precision = -1;  // -1: none given
    char letter = 0;         // 'd', 'u', 'x', 'X', 'c', 's', 'f' or '%'; 0: no conversion that exists

    // Whether an argument of this type may be printed so; text of the encoding that %s stands for.
    constexpr bool Takes(FORMAT_TYPE type, FORMAT_KIND text) const {
        switch (letter) {
            case 'd':
            case 'u':
            case 'x':
            case 'X':
                return type.kind == FORMAT_KIND::Integer && (longLong || type.bytes <= 4);
            case 'c':
                return type.kind == FORMAT_KIND::Unit;
            case 's':
                return type.kind == text;
            case 'f':
                return type.kind == FORMAT_KIND::Real;
            default:
                return false;
        }
    }
};

constexpr uint32_t MaxFormatWidth = 4096;     // of a width; wider is a formatting error
constexpr int32_t MaxFormatPrecision = 4096;  // of a precision
constexpr int32_t MaxRealPrecision = 64;      // of a precision of %f

// Reads the conversion whose percent sign stands before `at`, and moves `at` to its end.
template <typename UNIT>
constexpr FORMAT_CONVERSION ReadConversion(const UNIT*& at) {
    FORMAT_CONVERSION result;
    const auto is = [&at](char c) { return *at == static_cast<UNIT>(c); };
    const auto digit = [&at] { return *at >= static_cast<UNIT>('0') && *at <= static_cast<UNIT>('9'); };
    if (is('s')) {  // most are
        ++at;
        result.letter = 's';
        return result;
    }
    for (;; ++at) {
        if (is('-'))
            result.left = true;
        else if (is('+'))
            result.plus = true;
        else if (is(' '))
            result.blank = true;
        else if (is('#'))
            result.alternate = true;
        else if (is('0'))
            result.zero = true;
        else
            break;
    }
    for (; digit(); ++at) {
        result.width = result.width * 10 + static_cast<uint32_t>(*at - static_cast<UNIT>('0'));
        if (result.width > MaxFormatWidth) return {};
    }
    if (is('.')) {
        result.precision = 0;
        for (++at; digit(); ++at) {
            result.precision = result.precision * 10 + static_cast<int32_t>(*at - static_cast<UNIT>('0'));
            if (result.precision > MaxFormatPrecision) return {};
        }
    }
    if (is('I')) {
        ++at;
        if (is('3') && at[1] == static_cast<UNIT>('2')) {
            at += 2;
        } else if (is('6') && at[1] == static_cast<UNIT>('4')) {
            at += 2;
            result.longLong = true;
        } else {
            return {};
        }
    } else if (is('l')) {
        ++at;
        if (is('l')) {
            ++at;
            result.longLong = true;
        }
    }
    constexpr char known[] = {'d', 'i', 'u', 'x', 'X', 'c', 's', 'f', '%'};
    for (const char letter : known) {
        if (!is(letter)) continue;
        ++at;
        result.letter = letter == 'i' ? 'd' : letter;
        break;
    }
    if (result.letter == 'f' && result.precision > MaxRealPrecision) return {};
    return result;
}

// Whether every conversion of the format exists and fits its argument, and no argument is left over.
template <typename UNIT>
constexpr bool FormatFits(const UNIT* format, FORMAT_KIND text, std::span<const FORMAT_TYPE> types) {
    size_t used = 0;
    while (*format != 0) {
        if (*format++ != static_cast<UNIT>('%')) continue;
        const FORMAT_CONVERSION conversion = ReadConversion(format);
        if (conversion.letter == '%') continue;
        if (used == types.size() || !conversion.Takes(types[used], text)) return false;
        ++used;
    }
    return used == types.size();
}

void AFormatDoesNotFitItsArguments();  // never defined: what the compiler names when a literal is wrong

// A literal format, checked when it is compiled. `text` is the kind that %s takes.
template <typename UNIT, FORMAT_KIND text, typename... ARGUMENTS>
class CHECKED_FORMAT {
public:
    consteval CHECKED_FORMAT(const UNIT* literal)  // NOLINT(google-explicit-constructor)
        : format(literal), length(std::char_traits<UNIT>::length(literal)) {
        const std::array<FORMAT_TYPE, sizeof...(ARGUMENTS)> types{FormatTypeOf<ARGUMENTS>()...};
        if (!FormatFits<UNIT>(literal, text, types) || length > UINT16_MAX) AFormatDoesNotFitItsArguments();
        size_t found = 0;
        for (size_t at = 0; at < length; ++at) {
            if (literal[at] != static_cast<UNIT>('%')) continue;
            if (found < percents.size()) percents[found] = static_cast<uint16_t>(at);
            ++found;
        }
        plain = found == percents.size();
    }
    constexpr FORMAT_TEXT<UNIT> Text() const { return {format, length, plain ? percents.data() : nullptr}; }

private:
    const UNIT* format;
    size_t length;
    std::array<uint16_t, sizeof...(ARGUMENTS)> percents{};
    bool plain = false;  // each percent sign belongs to an argument, none stands for itself
};

template <typename... ARGUMENTS>
using FORMAT = CHECKED_FORMAT<WCHAR, FORMAT_KIND::WideText, std::type_identity_t<ARGUMENTS>...>;
// For STRING_UTF8, whose %s is UTF-8 text.
template <typename... ARGUMENTS>
using FORMAT_UTF8 = CHECKED_FORMAT<char, FORMAT_KIND::NarrowText, std::type_identity_t<ARGUMENTS>...>;
// An ASCII literal that is widened before it is used: its %s is UTF-16 text.
template <typename... ARGUMENTS>
using FORMAT_NARROW = CHECKED_FORMAT<char, FORMAT_KIND::WideText, std::type_identity_t<ARGUMENTS>...>;

// The arguments of one call, in the form that the formatter takes.
template <typename... ARGUMENTS>
std::array<FORMAT_ARGUMENT, sizeof...(ARGUMENTS)> FormatArguments(const ARGUMENTS&... arguments) {
    return {FORMAT_ARGUMENT(arguments)...};
}

constexpr size_t FormatFailed = static_cast<size_t>(-1);

// The length of the formatted text in units, without terminator; FormatFailed where the format does not fit.
size_t MeasureFormat(const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments);
size_t MeasureFormat(const FORMAT_TEXT<char>& format, FORMAT_ARGUMENTS arguments);
// Writes exactly as many units as MeasureFormat counted, no terminator.
void WriteFormat(WCHAR* to, const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments);
void WriteFormat(char* to, const FORMAT_TEXT<char>& format, FORMAT_ARGUMENTS arguments);

}  // namespace keldwick
