#include "platform/format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "platform/line_buffer.h"

namespace keldwick {

// A line takes a format in one pass.
struct LINE_SINK {
    LINE_BUFFER& line;
    void Put(const WCHAR* text, size_t units) { line.PutWide({text, units}); }
    void PutAscii(const char* text, size_t units) { line.Append({text, units}); }
    void Fill(char unit, size_t units) {
        if (units == 0) return;
        line.EndWide();
        char* const at = line.Reserve(units);
        if (at == nullptr) return;
        std::fill_n(at, units, unit);
        line.length += units;
    }
};

namespace {

// The two passes of a string, which has room for exactly its text: one counts, the other writes.
template <typename UNIT>
struct COUNTING_SINK {
    size_t count = 0;
    void Put(const UNIT*, size_t units) { count += units; }
    void PutAscii(const char*, size_t units) { count += units; }
    void Fill(char, size_t units) { count += units; }
};

template <typename UNIT>
struct WRITING_SINK {
    UNIT* at;
    void Put(const UNIT* text, size_t units) {
        std::memcpy(at, text, units * sizeof(UNIT));
        at += units;
    }
    void PutAscii(const char* text, size_t units) { at = std::copy(text, text + units, at); }
    void Fill(char unit, size_t units) { at = std::fill_n(at, units, static_cast<UNIT>(unit)); }
};

// Pads a field to its width, left or right.
template <typename SINK, typename PRINT>
void Pad(SINK& sink, const FORMAT_CONVERSION& conversion, size_t length, PRINT print) {
    const size_t padding = conversion.width > length ? conversion.width - length : 0;
    if (!conversion.left) sink.Fill(' ', padding);
    print();
    if (conversion.left) sink.Fill(' ', padding);
}

// Sign or 0x, zeros, digits.
template <typename SINK>
void PutNumber(SINK& sink, const FORMAT_CONVERSION& conversion, std::string_view sign, std::string_view digits,
               size_t zeros) {
    const size_t length = sign.size() + zeros + digits.size();
    if (conversion.zero && !conversion.left && conversion.width > length) zeros += conversion.width - length;
    Pad(sink, conversion, sign.size() + zeros + digits.size(), [&] {
        sink.PutAscii(sign.data(), sign.size());
        sink.Fill('0', zeros);
        sink.PutAscii(digits.data(), digits.size());
    });
}

std::string_view PositiveSign(const FORMAT_CONVERSION& conversion) {
    return conversion.plus ? "+" : conversion.blank ? " " : "";
}

template <typename SINK>
void PutInteger(SINK& sink, FORMAT_CONVERSION conversion, uint64_t argument) {
    uint64_t value = conversion.longLong ? argument : static_cast<uint32_t>(argument);
    std::string_view sign;
    if (conversion.letter == 'd') {
        const auto number = conversion.longLong ? static_cast<int64_t>(argument) : static_cast<int32_t>(argument);
        sign = number < 0 ? "-" : PositiveSign(conversion);
        value = number < 0 ? 0 - static_cast<uint64_t>(number) : static_cast<uint64_t>(number);
    } else if (conversion.alternate && conversion.letter != 'u' && value != 0) {
        sign = conversion.letter == 'X' ? "0X" : "0x";
    }
    char digits[24];
    const bool hexadecimal = conversion.letter == 'x' || conversion.letter == 'X';
    char* const end = std::to_chars(digits, digits + sizeof(digits), value, hexadecimal ? 16 : 10).ptr;
    if (conversion.letter == 'X') {
        std::transform(digits, end, digits, [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
    }
    size_t length = static_cast<size_t>(end - digits);
    size_t zeros = 0;
    if (conversion.precision >= 0) {
        if (conversion.precision == 0 && value == 0) length = 0;
        zeros =
            static_cast<size_t>(conversion.precision) > length ? static_cast<size_t>(conversion.precision) - length : 0;
        conversion.zero = false;  // a precision overrules the flag
    }
    PutNumber(sink, conversion, sign, {digits, length}, zeros);
}

template <typename SINK>
void PutReal(SINK& sink, FORMAT_CONVERSION conversion, double value) {
    constexpr size_t MaxRealLength = 310 + 1 + MaxRealPrecision;  // digits of the largest double, point, decimals
    char digits[MaxRealLength];
    const std::string_view sign = std::signbit(value) ? "-" : PositiveSign(conversion);
    const int precision = conversion.precision >= 0 ? conversion.precision : 6;
    const char* const end =
        std::to_chars(digits, digits + sizeof(digits), std::fabs(value), std::chars_format::fixed, precision).ptr;
    if (!std::isfinite(value)) conversion.zero = false;
    PutNumber(sink, conversion, sign, {digits, static_cast<size_t>(end - digits)}, 0);
}

template <typename UNIT, typename SINK>
void PutText(SINK& sink, const FORMAT_CONVERSION& conversion, const FORMAT_ARGUMENT& argument) {
    static constexpr UNIT null[] = {'(', 'n', 'u', 'l', 'l', ')', 0};
    const UNIT* const given = argument.TextOf<UNIT>();
    const UNIT* const text = given != nullptr ? given : null;
    const size_t most =
        conversion.precision >= 0 ? static_cast<size_t>(conversion.precision) : FORMAT_ARGUMENT::Terminated;
    size_t length = 0;
    if (argument.Length() != FORMAT_ARGUMENT::Terminated) {
        length = std::min(most, argument.Length());
    } else {
        while (length < most && text[length] != 0) ++length;
    }
    Pad(sink, conversion, length, [&] { sink.Put(text, length); });
}

template <typename UNIT, typename SINK>
void PutUnit(SINK& sink, const FORMAT_CONVERSION& conversion, const FORMAT_ARGUMENT& argument) {
    const bool fits = sizeof(UNIT) > 1 || argument.Integer() < 0x80 || argument.Type().bytes == 1;
    const UNIT unit = fits ? static_cast<UNIT>(argument.Integer()) : static_cast<UNIT>('?');
    Pad(sink, conversion, 1, [&] { sink.Put(&unit, 1); });
}

template <typename UNIT, typename SINK>
bool Convert(SINK& sink, const FORMAT_CONVERSION& conversion, const FORMAT_ARGUMENT& argument) {
    constexpr FORMAT_KIND text = sizeof(UNIT) > 1 ? FORMAT_KIND::WideText : FORMAT_KIND::NarrowText;
    if (!conversion.Takes(argument.Type(), text)) return false;
    switch (conversion.letter) {
        case 's':
            PutText<UNIT>(sink, conversion, argument);
            return true;
        case 'c':
            PutUnit<UNIT>(sink, conversion, argument);
            return true;
        case 'f':
            PutReal(sink, conversion, argument.Real());
            return true;
        default:
            PutInteger(sink, conversion, argument.Integer());
            return true;
    }
}

// Where the next conversion stands, or the format's end.
template <typename UNIT>
const UNIT* NextPercent(const FORMAT_TEXT<UNIT>& format, const UNIT* at, size_t used, size_t arguments) {
    const UNIT* const end = format.start + format.length;
    if (format.percents == nullptr) return std::find(at, end, static_cast<UNIT>('%'));
    return used < arguments ? format.start + format.percents[used] : end;
}

// Arguments that no conversion asks for are not looked at, as printf leaves them.
template <typename UNIT, typename SINK>
bool Run(SINK& sink, const FORMAT_TEXT<UNIT>& format, FORMAT_ARGUMENTS arguments) {
    const UNIT* at = format.start;
    for (size_t used = 0;;) {
        const UNIT* const percent = NextPercent(format, at, used, arguments.size());
        sink.Put(at, static_cast<size_t>(percent - at));
        if (percent == format.start + format.length) return true;
        at = percent + 1;
        const FORMAT_CONVERSION conversion = ReadConversion(at);
        if (conversion.letter == '%') {
            sink.Fill('%', 1);
        } else if (used == arguments.size() || !Convert<UNIT>(sink, conversion, arguments[used++])) {
            return false;
        }
    }
}

template <typename UNIT>
size_t Measure(const FORMAT_TEXT<UNIT>& format, FORMAT_ARGUMENTS arguments) {
    COUNTING_SINK<UNIT> sink;
    return Run(sink, format, arguments) ? sink.count : FormatFailed;
}

template <typename UNIT>
void Write(UNIT* to, const FORMAT_TEXT<UNIT>& format, FORMAT_ARGUMENTS arguments) {
    WRITING_SINK<UNIT> sink{to};
    Run(sink, format, arguments);
}

}  // namespace

size_t MeasureFormat(const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments) {
    return Measure(format, arguments);
}
size_t MeasureFormat(const FORMAT_TEXT<char>& format, FORMAT_ARGUMENTS arguments) { return Measure(format, arguments); }
void WriteFormat(WCHAR* to, const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments) {
    Write(to, format, arguments);
}
void WriteFormat(char* to, const FORMAT_TEXT<char>& format, FORMAT_ARGUMENTS arguments) {
    Write(to, format, arguments);
}

bool LINE_BUFFER::AppendFormat(const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments) {
    const size_t before = length;
    LINE_SINK sink{*this};
    const bool fits = Run(sink, format, arguments);
    EndWide();
    if (!fits && !failed) length = before;
    return fits;
}

}  // namespace keldwick
