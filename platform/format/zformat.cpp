// Walks a format once: text is copied, each conversion is handed to the C library on its own with the argument that
// its letter and size call for, so that the two address conversions can take theirs in between.

#include "platform/zformat.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>

namespace
{

/// Where the text goes: as much as fits, and the length that all of it has.
class Output
{
public:
    Output(char *buffer, size_t size) : buffer_(buffer), size_(size)
    {
        if (size_ > 0)
            buffer_[0] = '\0';
    }

    void text(std::string_view piece)
    {
        if (length_ + 1 < size_) {
            const size_t fits = std::min(piece.size(), size_ - 1 - length_);
            std::memcpy(buffer_ + length_, piece.data(), fits);
            buffer_[length_ + fits] = '\0';
        }
        length_ += piece.size();
    }

    template <typename T>
    bool conversion(const char *directive, T value)
    {
        const size_t room = length_ < size_ ? size_ - length_ : 0;
#pragma clang diagnostic push
#pragma clang diagnostic ignored                                                                             \
    "-Wformat-nonliteral" // the conversion was taken apart and checked by the caller
        const int wanted = std::snprintf(room > 0 ? buffer_ + length_ : nullptr, room, directive, value);
#pragma clang diagnostic pop
        if (wanted < 0)
            return false;
        length_ += static_cast<size_t>(wanted);
        return true;
    }

    [[nodiscard]] int length() const
    {
        return length_ > static_cast<size_t>(std::numeric_limits<int>::max()) ? -1
                                                                              : static_cast<int>(length_);
    }

private:
    char *buffer_;
    size_t size_;
    size_t length_ = 0;
};

/// va_list is an array type on some machines; inside a class it can be passed by reference.
class Arguments
{
public:
    explicit Arguments(va_list list) { va_copy(list_, list); }
    ~Arguments() { va_end(list_); }
    Arguments(const Arguments &) = delete;
    Arguments &operator=(const Arguments &) = delete;

    template <typename T>
    T next()
    {
        return va_arg(list_, T); // NOLINT(clang-analyzer-valist.Uninitialized): the constructor is not seen
    }

private:
    va_list list_;
};

enum class Size { none, hh, h, l, ll, j, z, t, L };

/// One conversion taken apart.
struct Conversion {
    static constexpr size_t prefix_max = 40; ///< "%", flags, width, precision

    std::array<char, prefix_max + 4> directive{}; ///< without size and letter until finish()
    size_t directive_length = 0;
    size_t flags_end = 1; ///< index in `directive` behind the flags
    Size size = Size::none;
    char letter = '\0';
    const char *end = nullptr; ///< first character after it

    bool put(char c)
    {
        if (directive_length >= prefix_max)
            return false;
        directive[directive_length++] = c;
        return true;
    }

    bool put_number(int number)
    {
        std::array<char, 12> digits{};
        std::snprintf(digits.data(), digits.size(), "%d", number);
        for (const char *digit = digits.data(); *digit != '\0'; ++digit) {
            if (!put(*digit))
                return false;
        }
        return true;
    }

    /// Removes the flags that mean nothing for text.
    void keep_minus_only()
    {
        auto *const flags = directive.begin() + 1;
        auto *const kept =
            std::remove_if(flags, directive.begin() + flags_end, [](char flag) { return flag != '-'; });
        auto *const tail =
            std::copy(directive.begin() + flags_end, directive.begin() + directive_length, kept);
        directive_length = static_cast<size_t>(tail - directive.begin());
    }

    /// Completes the directive with a size and a letter for the C library.
    const char *finish(std::string_view tail)
    {
        std::memcpy(directive.data() + directive_length, tail.data(), tail.size());
        directive[directive_length + tail.size()] = '\0';
        return directive.data();
    }
};

const char *parse_number(const char *at, Conversion &conversion, Arguments &args, bool is_precision, bool &ok)
{
    if (*at == '*') {
        const int number = args.next<int>();
        // A negative precision counts as none; a negative width is the "-" flag and a width, which prints the same.
        if (!is_precision || number >= 0)
            ok = (!is_precision || conversion.put('.')) && conversion.put_number(number);
        return at + 1;
    }
    ok = !is_precision || conversion.put('.');
    for (; ok && *at >= '0' && *at <= '9'; ++at)
        ok = conversion.put(*at);
    return at;
}

const char *parse_size(const char *at, Size &size)
{
    struct Row {
        std::string_view text;
        Size size;
    };
    static constexpr Row rows[] = {{"hh", Size::hh}, {"h", Size::h}, {"ll", Size::ll}, {"l", Size::l},
                                   {"j", Size::j},   {"z", Size::z}, {"t", Size::t},   {"L", Size::L}};
    for (const Row &row : rows) {
        if (std::strncmp(at, row.text.data(), row.text.size()) == 0) {
            size = row.size;
            return at + row.text.size();
        }
    }
    return at;
}

/// Takes the conversion at `at`, a '%', apart. False when it is none that exists here.
bool parse(const char *at, Conversion &conversion, Arguments &args)
{
    bool ok = conversion.put(*at++);
    while (ok && *at != '\0' && std::strchr("-+ #0'", *at) != nullptr)
        ok = conversion.put(*at++);
    conversion.flags_end = conversion.directive_length;
    if (ok)
        at = parse_number(at, conversion, args, false, ok);
    if (ok && *at == '.')
        at = parse_number(at + 1, conversion, args, true, ok);
    if (!ok)
        return false;
    at = parse_size(at, conversion.size);
    conversion.letter = *at;
    conversion.end = at + 1;
    return true;
}

bool print_signed(Output &out, Conversion &c, Arguments &args)
{
    const auto value = [&]() -> intmax_t {
        switch (c.size) {
        case Size::hh:
            return static_cast<signed char>(args.next<int>());
        case Size::h:
            return static_cast<short>(args.next<int>());
        case Size::l:
            return args.next<long>();
        case Size::ll:
        case Size::L:
            return args.next<long long>();
        case Size::j: // NOLINT(bugprone-branch-clone): alike only where the types are
            return args.next<intmax_t>();
        case Size::z:
            return args.next<ssize_t>();
        case Size::t:
            return args.next<ptrdiff_t>();
        case Size::none:
            break;
        }
        return args.next<int>();
    }();
    return out.conversion(c.finish("jd"), value);
}

bool print_unsigned(Output &out, Conversion &c, Arguments &args)
{
    const auto value = [&]() -> uintmax_t {
        switch (c.size) {
        case Size::hh:
            return static_cast<unsigned char>(args.next<unsigned>());
        case Size::h:
            return static_cast<unsigned short>(args.next<unsigned>());
        case Size::l:
            return args.next<unsigned long>();
        case Size::ll:
        case Size::L:
            return args.next<unsigned long long>();
        case Size::j: // NOLINT(bugprone-branch-clone): alike only where the types are
            return args.next<uintmax_t>();
        case Size::z:
            return args.next<size_t>();
        case Size::t:
            return static_cast<uintmax_t>(args.next<ptrdiff_t>());
        case Size::none:
            break;
        }
        return args.next<unsigned>();
    }();
    const char tail[] = {'j', c.letter};
    return out.conversion(c.finish({tail, 2}), value);
}

bool print_floating(Output &out, Conversion &c, Arguments &args)
{
    const char tail[] = {'L', c.letter};
    if (c.size == Size::L)
        return out.conversion(c.finish({tail, 2}), args.next<long double>());
    return out.conversion(c.finish({tail + 1, 1}), args.next<double>());
}

bool print_character(Output &out, Conversion &c, Arguments &args)
{
    if (c.size == Size::l)
        return out.conversion(c.finish("lc"), args.next<wint_t>());
    return out.conversion(c.finish("c"), args.next<int>());
}

bool print_string(Output &out, Conversion &c, Arguments &args)
{
    if (c.size == Size::l)
        return out.conversion(c.finish("ls"), args.next<const wchar_t *>());
    const char *text = args.next<const char *>();
    return out.conversion(c.finish("s"), text != nullptr ? text : "(null)");
}

bool print_pointer(Output &out, Conversion &c, Arguments &args)
{
    return out.conversion(c.finish("p"), args.next<const void *>());
}

bool print_ipv4(Output &out, Conversion &c, Arguments &args)
{
    const in_addr address{.s_addr = args.next<uint32_t>()};
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    c.keep_minus_only();
    return out.conversion(c.finish("s"), text.data());
}

bool print_ipv6(Output &out, Conversion &c, Arguments &args)
{
    const void *address = args.next<const void *>();
    c.keep_minus_only();
    if (address == nullptr)
        return out.conversion(c.finish("s"), "(null)");
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, address, text.data(), text.size());
    return out.conversion(c.finish("s"), text.data());
}

bool print_percent(Output &out, Conversion &, Arguments &)
{
    out.text("%");
    return true;
}

using Printer = bool (*)(Output &out, Conversion &conversion, Arguments &args);

Printer printer_of(char letter)
{
    struct Row {
        std::string_view letters;
        Printer printer;
    };
    static constexpr Row rows[] = {
        {"di", print_signed},   {"ouxX", print_unsigned}, {"eEfFgG", print_floating},
        {"c", print_character}, {"s", print_string},      {"p", print_pointer},
        {"a", print_ipv4},      {"v", print_ipv6},        {"%", print_percent},
    };
    for (const Row &row : rows) {
        if (letter != '\0' && row.letters.find(letter) != std::string_view::npos)
            return row.printer;
    }
    return nullptr;
}

int format_into(Output &out, const char *format, Arguments &args)
{
    while (*format != '\0') {
        const char *percent = std::strchr(format, '%');
        if (percent == nullptr) {
            out.text(format);
            break;
        }
        out.text({format, static_cast<size_t>(percent - format)});
        Conversion conversion;
        const Printer printer = parse(percent, conversion, args) ? printer_of(conversion.letter) : nullptr;
        if (printer == nullptr) {
            // What the arguments are from here on cannot be known.
            out.text(percent);
            break;
        }
        if (!printer(out, conversion, args))
            return -1;
        format = conversion.end;
    }
    return out.length();
}

} // namespace

int zvsnprintf(char *buffer, size_t size, const char *format, va_list args)
{
    Output out(buffer, size);
    Arguments arguments(args);
    return format_into(out, format, arguments);
}

int zsnprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = zvsnprintf(buffer, size, format, args);
    va_end(args);
    return length;
}

std::string zvformat(const char *format, va_list args)
{
    std::array<char, 512> buffer{};
    va_list again;
    va_copy(again, args);
    const int length = zvsnprintf(buffer.data(), buffer.size(), format, args);
    std::string text;
    if (length >= 0 && static_cast<size_t>(length) < buffer.size()) {
        text.assign(buffer.data(), static_cast<size_t>(length));
    } else if (length >= 0) {
        text.resize(static_cast<size_t>(length));
        zvsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}
