#include "platform/formats/Vlist.h"

#include "base/ValueCodec.h"
#include "platform/formats/Base64.h"
#include "platform/PosixError.h"

#include <expat.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

namespace {

TvError formatError(std::string text)
{
    return makeError(EINVAL, "vlist: " + std::move(text));
}

bool isXmlSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view trimmed(std::string_view s)
{
    while (!s.empty() && isXmlSpace(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && isXmlSpace(s.back()))
        s.remove_suffix(1);
    return s;
}

bool isAllSpace(std::string_view s)
{
    return trimmed(s).empty();
}

// ---------------------------------------------------------------- reading

enum class Leaf { Key, String, Integer, Real, True, False, Data, Date, Url };

std::optional<Leaf> leafNamed(std::string_view name)
{
    if (name == "key") return Leaf::Key;
    if (name == "string") return Leaf::String;
    if (name == "integer") return Leaf::Integer;
    if (name == "real") return Leaf::Real;
    if (name == "true") return Leaf::True;
    if (name == "false") return Leaf::False;
    if (name == "data") return Leaf::Data;
    if (name == "date") return Leaf::Date;
    if (name == "url") return Leaf::Url;
    return std::nullopt;
}

// "-N" is signed, "+N" unsigned; a bare N is signed when it fits int64 and
// unsigned otherwise. This is what makes the writer's output exact for both
// kinds: it marks every unsigned integer with "+".
std::optional<Value> parseInteger(std::string_view text)
{
    char sign = 0;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        sign = text.front();
        text.remove_prefix(1);
    }
    if (text.empty())
        return std::nullopt;
    std::uint64_t magnitude = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        unsigned digit = static_cast<unsigned>(c - '0');
        if (magnitude > (UINT64_MAX - digit) / 10)
            return std::nullopt;
        magnitude = magnitude * 10 + digit;
    }
    constexpr std::uint64_t kInt64Max = static_cast<std::uint64_t>(INT64_MAX);
    if (sign == '-') {
        if (magnitude > kInt64Max + 1)
            return std::nullopt;
        return Value(magnitude == kInt64Max + 1 ? INT64_MIN : -static_cast<std::int64_t>(magnitude));
    }
    if (sign == '+' || magnitude > kInt64Max)
        return Value(magnitude);
    return Value(static_cast<std::int64_t>(magnitude));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
        if (x != b[i])
            return false;
    }
    return true;
}

std::optional<double> parseReal(std::string_view text)
{
    bool negative = false;
    std::string_view body = text;
    if (!body.empty() && (body.front() == '-' || body.front() == '+')) {
        negative = body.front() == '-';
        body.remove_prefix(1);
    }
    if (equalsIgnoringCase(body, "nan"))
        return std::nan("");
    if (equalsIgnoringCase(body, "inf") || equalsIgnoringCase(body, "infinity"))
        return negative ? -HUGE_VAL : HUGE_VAL;
    // Only the decimal grammar from here on: from_chars would also take
    // "nan(...)" and hexadecimal floats are not part of the format.
    if (body.empty() || !(std::isdigit(static_cast<unsigned char>(body.front())) || body.front() == '.'))
        return std::nullopt;
    double d = 0;
    auto [end, ec] = std::from_chars(body.data(), body.data() + body.size(), d, std::chars_format::general);
    if (ec != std::errc() || end != body.data() + body.size())
        return std::nullopt;
    return negative ? -d : d;
}

// The expat handlers and the explicit stack of open containers. Every
// handler is a no-op once an error is recorded: expat may deliver a few more
// events after XML_StopParser.
class VlistReader {
public:
    explicit VlistReader(const VlistLimits& limits) : limits_(limits) {}

    Result<Value> parse(std::string_view xml)
    {
        if (xml.size() > limits_.maxBytes)
            return makeError(EFBIG, "vlist: document of " + std::to_string(xml.size()) + " bytes exceeds the limit of " +
                                        std::to_string(limits_.maxBytes));
        parser_ = XML_ParserCreate(nullptr);
        if (!parser_)
            return makeError(ENOMEM, "vlist: cannot create an XML parser");
        XML_SetUserData(parser_, this);
        XML_SetElementHandler(parser_, &VlistReader::onStart, &VlistReader::onEnd);
        XML_SetCharacterDataHandler(parser_, &VlistReader::onText);
        XML_SetStartDoctypeDeclHandler(parser_, &VlistReader::onDoctype);
        XML_SetEntityDeclHandler(parser_, &VlistReader::onEntityDecl);
        XML_SetParamEntityParsing(parser_, XML_PARAM_ENTITY_PARSING_NEVER);

        // XML_Parse takes an int length: feed large documents in pieces.
        constexpr std::size_t kChunk = 1u << 20;
        std::size_t pos = 0;
        XML_Status status = XML_STATUS_OK;
        do {
            std::size_t n = std::min(kChunk, xml.size() - pos);
            bool last = pos + n == xml.size();
            status = XML_Parse(parser_, xml.data() + pos, static_cast<int>(n), last ? XML_TRUE : XML_FALSE);
            pos += n;
        } while (status == XML_STATUS_OK && pos < xml.size());

        std::optional<TvError> failure = error_;
        if (!failure && status != XML_STATUS_OK)
            failure = formatError("line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": " +
                                  XML_ErrorString(XML_GetErrorCode(parser_)));
        XML_ParserFree(parser_);
        parser_ = nullptr;
        if (failure)
            return *failure;
        if (!done_)
            return formatError("document holds no vlist");
        return std::move(result_);
    }

private:
    enum class FrameKind { Root, Array, Dict };
    struct Frame {
        FrameKind kind;
        Array items;
        Dictionary entries;
        std::optional<std::string> key; // a dictionary's key awaiting its value
        // Where that key goes in `entries`; none for the end, whose iterator
        // would not survive the frame being moved when the stack grows.
        std::optional<Dictionary::iterator> keyHint;
        bool hasValue = false;          // the root's one value has been seen
    };

    static void onStart(void* self, const XML_Char* name, const XML_Char** attrs)
    {
        static_cast<VlistReader*>(self)->start(name, attrs);
    }
    static void onEnd(void* self, const XML_Char* name) { static_cast<VlistReader*>(self)->end(name); }
    static void onText(void* self, const XML_Char* s, int len)
    {
        static_cast<VlistReader*>(self)->text(std::string_view(s, static_cast<std::size_t>(len)));
    }
    static void onDoctype(void* self, const XML_Char*, const XML_Char*, const XML_Char*, int)
    {
        static_cast<VlistReader*>(self)->fail("DOCTYPE declarations are not accepted");
    }
    static void onEntityDecl(void* self, const XML_Char*, int, const XML_Char*, int, const XML_Char*,
                             const XML_Char*, const XML_Char*, const XML_Char*)
    {
        static_cast<VlistReader*>(self)->fail("entity declarations are not accepted");
    }

    void fail(const std::string& what)
    {
        if (error_)
            return;
        error_ = formatError("line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": " + what);
        XML_StopParser(parser_, XML_FALSE);
    }

    // Containers open above the root; the next value's depth is this plus one.
    std::size_t openContainers() const { return stack_.empty() ? 0 : stack_.size() - 1; }

    void start(std::string_view name, const XML_Char** attrs)
    {
        if (error_)
            return;
        if (stack_.empty()) {
            if (done_ || name != "vlist")
                return fail("the root element must be <vlist>, not <" + std::string(name) + ">");
            for (const XML_Char** a = attrs; a[0]; a += 2) {
                if (std::string_view(a[0]) == "version" && std::string_view(a[1]) != "1.0")
                    return fail("unsupported vlist version \"" + std::string(a[1]) + "\"");
            }
            stack_.push_back(Frame{FrameKind::Root, {}, {}, {}, {}, false});
            return;
        }
        if (leaf_)
            return fail("element <" + std::string(name) + "> inside <" + leafName_ + ">");

        Frame& top = stack_.back();
        std::optional<Leaf> leaf = leafNamed(name);
        bool isKey = leaf == Leaf::Key;
        if (top.kind == FrameKind::Dict) {
            if (isKey && top.key)
                return fail("key \"" + *top.key + "\" has no value");
            if (!isKey && !top.key)
                return fail("<" + std::string(name) + "> in a dict where a <key> belongs");
        } else if (isKey) {
            return fail("<key> outside a dict");
        } else if (top.kind == FrameKind::Root && top.hasValue) {
            return fail("a vlist holds one value; found a second one, <" + std::string(name) + ">");
        }
        if (!isKey && openContainers() + 1 > limits_.maxDepth)
            return fail("nesting deeper than " + std::to_string(limits_.maxDepth));

        if (name == "array" || name == "dict") {
            stack_.push_back(Frame{name == "array" ? FrameKind::Array : FrameKind::Dict, {}, {}, {}, {}, false});
            return;
        }
        if (!leaf)
            return fail("unknown element <" + std::string(name) + ">");
        leaf_ = leaf;
        leafName_ = std::string(name);
        text_.clear();
    }

    void end(std::string_view)
    {
        // Expat has already matched the end tag with its start tag.
        if (error_)
            return;
        if (leaf_) {
            Leaf leaf = *leaf_;
            leaf_.reset();
            if (leaf == Leaf::Key) {
                Frame& dict = stack_.back();
                auto at = dict.entries.lower_bound(text_);
                if (at != dict.entries.end() && at->first == text_)
                    return fail("duplicate key \"" + text_ + "\"");
                dict.keyHint = at == dict.entries.end() ? std::nullopt : std::optional(at);
                dict.key = std::move(text_);
                return;
            }
            std::optional<Value> v = leafValue(leaf);
            if (!v)
                return;
            return add(std::move(*v));
        }
        if (stack_.empty())
            return fail("unexpected end tag");
        Frame frame = std::move(stack_.back());
        stack_.pop_back();
        switch (frame.kind) {
        case FrameKind::Root:
            if (!frame.hasValue)
                return fail("<vlist> holds no value");
            done_ = true;
            return;
        case FrameKind::Array: return add(Value(std::move(frame.items)));
        case FrameKind::Dict:
            if (frame.key)
                return fail("key \"" + *frame.key + "\" has no value");
            return add(Value(std::move(frame.entries)));
        }
    }

    void text(std::string_view s)
    {
        if (error_)
            return;
        if (leaf_) {
            text_.append(s);
            return;
        }
        if (!isAllSpace(s))
            fail("text outside a value");
    }

    std::optional<Value> leafValue(Leaf leaf)
    {
        std::string_view t = trimmed(text_);
        switch (leaf) {
        case Leaf::Key: break;
        case Leaf::String: return Value(std::move(text_));
        case Leaf::Url: return Value::url(std::move(text_));
        case Leaf::True:
        case Leaf::False:
            if (!t.empty())
                break;
            return Value(leaf == Leaf::True);
        case Leaf::Integer:
            if (auto v = parseInteger(t))
                return v;
            break;
        case Leaf::Real:
            if (auto d = parseReal(t))
                return Value(*d);
            break;
        case Leaf::Data:
            if (auto bytes = base64Decode(t, true))
                return Value::data(std::move(*bytes));
            break;
        case Leaf::Date:
            if (auto date = Date::parseIso8601(t))
                return Value(*date);
            break;
        }
        fail("malformed <" + leafName_ + ">: \"" + std::string(t.substr(0, 64)) + "\"");
        return std::nullopt;
    }

    void add(Value v)
    {
        Frame& top = stack_.back();
        switch (top.kind) {
        case FrameKind::Root:
            top.hasValue = true;
            result_ = std::move(v);
            return;
        case FrameKind::Array: top.items.push_back(std::move(v)); return;
        case FrameKind::Dict:
            top.entries.emplace_hint(top.keyHint.value_or(top.entries.end()), std::move(*top.key), std::move(v));
            top.key.reset();
            return;
        }
    }

    const VlistLimits& limits_;
    XML_Parser parser_ = nullptr;
    std::vector<Frame> stack_;
    std::optional<Leaf> leaf_;
    std::string leafName_;
    std::string text_;
    std::optional<TvError> error_;
    Value result_;
    bool done_ = false;
};

// ---------------------------------------------------------------- writing

// XML 1.0 carries tab, LF and CR (CR only as a character reference, since
// parsers normalise line ends) and everything from U+0020 on, except U+FFFE
// and U+FFFF. Text holding anything else, or invalid UTF-8, cannot be read
// back and is refused.
bool appendEscaped(std::string& out, std::string_view s)
{
    if (!isValidUtf8(s))
        return false;
    for (std::size_t i = 0; i < s.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        switch (c) {
        case '&': out += "&amp;"; continue;
        case '<': out += "&lt;"; continue;
        case '>': out += "&gt;"; continue;
        case '"': out += "&quot;"; continue;
        case '\r': out += "&#13;"; continue;
        case '\t':
        case '\n': out.push_back(static_cast<char>(c)); continue;
        default: break;
        }
        if (c < 0x20)
            return false;
        if (c == 0xEF && i + 2 < s.size() && static_cast<unsigned char>(s[i + 1]) == 0xBF &&
            (static_cast<unsigned char>(s[i + 2]) == 0xBE || static_cast<unsigned char>(s[i + 2]) == 0xBF))
            return false;
        out.push_back(static_cast<char>(c));
    }
    return true;
}

class VlistWriter {
public:
    MaybeError write(const Value& v, std::size_t depth)
    {
        if (depth > kMaxDepth)
            return formatError("cannot write nesting deeper than " + std::to_string(kMaxDepth));
        switch (v.kind()) {
        case ValueKind::Null: return formatError("cannot write an absent value");
        case ValueKind::Bool: line(depth, *v.asBool() ? "<true/>" : "<false/>"); return std::nullopt;
        case ValueKind::Int: return leaf(depth, "integer", std::to_string(*v.asInt()));
        case ValueKind::UInt: return leaf(depth, "integer", "+" + std::to_string(*v.asUInt()));
        case ValueKind::Double: return leaf(depth, "real", realText(*v.asDouble()));
        case ValueKind::String: return escapedLeaf(depth, "string", *v.asString());
        case ValueKind::Url: return escapedLeaf(depth, "url", *v.asUrl());
        case ValueKind::Uuid: return leaf(depth, "string", v.asUuid()->string());
        case ValueKind::Data: return leaf(depth, "data", base64Encode(*v.asData()));
        case ValueKind::Date: {
            std::string text = v.asDate()->iso8601();
            if (Date::parseIso8601(text) != *v.asDate())
                return formatError("cannot write the date " + text);
            return leaf(depth, "date", text);
        }
        case ValueKind::Array: {
            const Array& items = *v.asArray();
            if (items.empty()) {
                line(depth, "<array/>");
                return std::nullopt;
            }
            line(depth, "<array>");
            for (const Value& item : items)
                if (auto err = write(item, depth + 1))
                    return err;
            line(depth, "</array>");
            return std::nullopt;
        }
        case ValueKind::Dictionary: {
            const Dictionary& entries = *v.asDictionary();
            if (entries.empty()) {
                line(depth, "<dict/>");
                return std::nullopt;
            }
            line(depth, "<dict>");
            for (const auto& [key, value] : entries)
                if (auto err = writeEntry(key, value, depth + 1))
                    return err;
            line(depth, "</dict>");
            return std::nullopt;
        }
        }
        return formatError("cannot write a value of unknown kind");
    }

    // A dictionary entry whose key and value sit at `depth`.
    MaybeError writeEntry(std::string_view key, const Value& value, std::size_t depth)
    {
        if (auto err = escapedLeaf(depth, "key", key))
            return err;
        return write(value, depth);
    }

    std::string out;

private:
    static constexpr std::size_t kMaxDepth = VlistLimits{}.maxDepth;

    static std::string realText(double d)
    {
        if (std::isnan(d))
            return "nan";
        if (std::isinf(d))
            return d < 0 ? "-inf" : "inf";
        // Shortest text that reads back as the same double.
        char buf[32];
        auto res = std::to_chars(buf, buf + sizeof buf, d);
        return std::string(buf, res.ptr);
    }

    // The root value sits at depth 1 and is not indented, as in the usual
    // layout of these files; members are indented one tab per level below it.
    void indent(std::size_t depth) { out.append(depth > 1 ? depth - 1 : 0, '\t'); }

    void line(std::size_t depth, std::string_view text)
    {
        indent(depth);
        out.append(text);
        out.push_back('\n');
    }

    MaybeError leaf(std::size_t depth, std::string_view tag, std::string_view text)
    {
        indent(depth);
        out.append("<").append(tag).append(">").append(text).append("</").append(tag).append(">\n");
        return std::nullopt;
    }

    MaybeError escapedLeaf(std::size_t depth, std::string_view tag, std::string_view text)
    {
        indent(depth);
        out.append("<").append(tag).append(">");
        if (!appendEscaped(out, text))
            return formatError("cannot write <" + std::string(tag) +
                               ">: text holds invalid UTF-8 or a control character that XML cannot carry");
        out.append("</").append(tag).append(">\n");
        return std::nullopt;
    }
};

// ---------------------------------------------------------------- files

MaybeError writeAll(int fd, std::string_view data, const std::string& path)
{
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return posixError(errno, "write " + path);
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return std::nullopt;
}

std::string randomSuffix()
{
    // Only uniqueness matters (O_EXCL guards against collisions); the UUID
    // source is already at hand.
    return Uuid::random().string().substr(0, 8);
}

} // namespace

Result<Value> parseVlist(std::string_view xml, const VlistLimits& limits)
{
    return VlistReader(limits).parse(xml);
}

Result<Value> readVlistFile(const std::string& path, const VlistLimits& limits)
{
    // O_NONBLOCK: opening a FIFO must not wait for a writer; it is refused
    // below as not a regular file.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return posixError(errno, "open " + path);
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        int err = errno;
        ::close(fd);
        return posixError(err, "stat " + path);
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        return posixError(EINVAL, path + " is not a regular file");
    }
    // Read at most one byte past the limit: the size from fstat may be stale
    // and the file may grow while it is read.
    std::string text;
    std::size_t cap = limits.maxBytes + 1;
    text.resize(std::min<std::size_t>(cap, static_cast<std::size_t>(st.st_size) + 1));
    std::size_t got = 0;
    for (;;) {
        if (got == text.size()) {
            if (text.size() >= cap)
                break;
            text.resize(std::min(cap, text.size() * 2 + 4096));
        }
        ssize_t n = ::read(fd, text.data() + got, text.size() - got);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            int err = errno;
            ::close(fd);
            return posixError(err, "read " + path);
        }
        if (n == 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
    text.resize(got);
    auto result = parseVlist(text, limits);
    if (!result.ok()) {
        TvError e = result.error();
        e.description = path + ": " + e.localizedDescription();
        return e;
    }
    return result;
}

Result<std::string> serializeVlist(const Value& value)
{
    VlistWriter writer;
    writer.out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vlist version=\"1.0\">\n";
    if (auto err = writer.write(value, 1))
        return *err;
    writer.out += "</vlist>\n";
    return std::move(writer.out);
}

Result<std::string> serializeVlistEntry(std::string_view key, const Value& value, std::size_t depth)
{
    VlistWriter writer;
    if (auto err = writer.writeEntry(key, value, depth + 1))
        return *err;
    return std::move(writer.out);
}

MaybeError writeVlistFileAtomically(const std::string& path, const Value& value, unsigned mode)
{
    auto text = serializeVlist(value);
    if (!text.ok())
        return text.error();
    return writeFileAtomically(path, *text, mode);
}

MaybeError writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode)
{
    std::size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base.empty())
        return posixError(EISDIR, "write " + path);

    std::string temp;
    int fd = -1;
    for (int attempt = 0; fd < 0; ++attempt) {
        temp = dir + "/." + base + ".tmp-" + randomSuffix();
        fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode));
        if (fd < 0 && (errno != EEXIST || attempt == 16))
            return posixError(errno, "create " + temp);
    }

    auto abandon = [&](TvError error) -> MaybeError {
        if (fd >= 0)
            ::close(fd);
        ::unlink(temp.c_str());
        return error;
    };
    if (auto err = writeAll(fd, contents, temp))
        return abandon(*err);
    if (::fsync(fd) != 0)
        return abandon(posixError(errno, "fsync " + temp));
    int closed = ::close(fd);
    fd = -1;
    if (closed != 0)
        return abandon(posixError(errno, "close " + temp));
    if (::rename(temp.c_str(), path.c_str()) != 0)
        return abandon(posixError(errno, "rename " + temp + " to " + path));

    // The new name is durable only once the directory is.
    int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0)
        return posixError(errno, "open directory " + dir);
    int synced = ::fsync(dirFd);
    int err = errno;
    ::close(dirFd);
    if (synced != 0)
        return posixError(err, "fsync directory " + dir);
    return std::nullopt;
}

} // namespace tv::platform
