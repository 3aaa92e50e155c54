#include "base/Format.h"

#include <cstdio>

namespace tv {

namespace {

std::string argText(const FormatArg& arg)
{
    return std::visit(
        [](const auto& x) -> std::string {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, std::monostate>)
                return "(null)";
            else if constexpr (std::is_same_v<T, std::string>)
                return x;
            else if constexpr (std::is_same_v<T, Value>)
                return x.description();
            else if constexpr (std::is_same_v<T, const void*>) {
                char buf[32];
                std::snprintf(buf, sizeof buf, "%p", x);
                return buf;
            } else
                return Value(x).description();
        },
        arg.rep());
}

std::int64_t argInt(const FormatArg& arg)
{
    const auto& r = arg.rep();
    if (auto i = std::get_if<std::int64_t>(&r))
        return *i;
    if (auto u = std::get_if<std::uint64_t>(&r))
        return static_cast<std::int64_t>(*u);
    if (auto d = std::get_if<double>(&r))
        return static_cast<std::int64_t>(*d);
    if (auto v = std::get_if<Value>(&r))
        return v->integerValue();
    return 0;
}

double argDouble(const FormatArg& arg)
{
    const auto& r = arg.rep();
    if (auto d = std::get_if<double>(&r))
        return *d;
    if (auto u = std::get_if<std::uint64_t>(&r))
        return static_cast<double>(*u);
    if (auto v = std::get_if<Value>(&r); v && v->asDouble())
        return *v->asDouble();
    return static_cast<double>(argInt(arg));
}

// printf of one conversion, however long its output (a width or precision
// can ask for more than any fixed buffer holds).
template <class T>
void appendPrintf(std::string& out, const std::string& spec, T value)
{
    char buf[128];
    int n = std::snprintf(buf, sizeof buf, spec.c_str(), value);
    if (n < 0)
        return;
    if (static_cast<std::size_t>(n) < sizeof buf) {
        out.append(buf, static_cast<std::size_t>(n));
        return;
    }
    std::size_t at = out.size();
    out.resize(at + static_cast<std::size_t>(n) + 1);
    std::snprintf(out.data() + at, static_cast<std::size_t>(n) + 1, spec.c_str(), value);
    out.resize(at + static_cast<std::size_t>(n));
}

} // namespace

std::string formatStringArgs(std::string_view fmt, std::span<const FormatArg> args, bool redactPrivate)
{
    std::string out;
    out.reserve(fmt.size() + 32);
    std::size_t next = 0;
    auto take = [&]() -> const FormatArg* { return next < args.size() ? &args[next++] : nullptr; };

    for (std::size_t i = 0; i < fmt.size(); ++i) {
        char c = fmt[i];
        if (c != '%') {
            out += c;
            continue;
        }
        std::size_t start = i++;
        const std::size_t firstArg = next;
        if (i >= fmt.size()) {
            out += '%';
            break;
        }
        if (fmt[i] == '%') {
            out += '%';
            continue;
        }
        bool isPublic = false;
        if (fmt[i] == '{') {
            std::size_t close = fmt.find('}', i);
            if (close == std::string_view::npos) {
                out.append(fmt.substr(start));
                break;
            }
            std::string_view marker = fmt.substr(i + 1, close - i - 1);
            isPublic = marker == "public";
            i = close + 1;
        }
        // printf spec: flags, width, precision; length modifiers dropped.
        std::string spec = "%";
        while (i < fmt.size() && std::string_view("-+ #0'").find(fmt[i]) != std::string_view::npos)
            spec += fmt[i++];
        if (i < fmt.size() && fmt[i] == '*') {
            const FormatArg* w = take();
            spec += std::to_string(w ? argInt(*w) : 0);
            ++i;
        }
        while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9')
            spec += fmt[i++];
        if (i < fmt.size() && fmt[i] == '.') {
            spec += fmt[i++];
            if (i < fmt.size() && fmt[i] == '*') {
                const FormatArg* p = take();
                spec += std::to_string(p ? argInt(*p) : 0);
                ++i;
            }
            while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9')
                spec += fmt[i++];
        }
        while (i < fmt.size() && std::string_view("hlqLjzt").find(fmt[i]) != std::string_view::npos)
            ++i;
        if (i >= fmt.size()) {
            out.append(fmt.substr(start));
            break;
        }
        char conv = fmt[i];
        const FormatArg* arg = take();
        switch (conv) {
        case 'd':
        case 'i':
            // Arguments carry their type: an unsigned value is printed as
            // the value it is, never reinterpreted as negative.
            if (const auto* u = arg ? std::get_if<std::uint64_t>(&arg->rep()) : nullptr)
                appendPrintf(out, spec + "llu", static_cast<unsigned long long>(*u));
            else
                appendPrintf(out, spec + "lld", static_cast<long long>(arg ? argInt(*arg) : 0));
            break;
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            appendPrintf(out, spec + "ll" + conv, static_cast<unsigned long long>(arg ? argInt(*arg) : 0));
            break;
        case 'c':
            out += static_cast<char>(arg ? argInt(*arg) : '?');
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            appendPrintf(out, spec + conv, arg ? argDouble(*arg) : 0.0);
            break;
        case 'p':
            out += arg ? argText(*arg) : "(null)";
            break;
        case 's':
        case '@': {
            if (redactPrivate && !isPublic && arg) {
                out += "<private>";
                break;
            }
            std::string text = arg ? argText(*arg) : "(null)";
            if (spec.size() > 1) {
                // Width and precision apply to the text as to printf's %s.
                appendPrintf(out, spec + "s", text.c_str());
            } else {
                out += text;
            }
            break;
        }
        default:
            // Unknown conversion: keep the text as written.
            // Arguments taken for "*" or for the conversion stay unused.
            out.append(fmt.substr(start, i - start + 1));
            next = firstArg;
            break;
        }
    }
    return out;
}

} // namespace tv
