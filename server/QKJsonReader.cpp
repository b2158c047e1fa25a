#include "QKJsonReader.h"

#include <QJsonArray>
#include <QJsonObject>

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

class Parser
{
public:
    Parser(QByteArrayView text, int maxDepth)
        : p(text.data()), end(text.data() + text.size()), begin(p), maxDepth(maxDepth)
    {}

    std::optional<QJsonValue> document()
    {
        skipSpace();
        auto value = parseValue(0);
        if (!value)
            return std::nullopt;
        skipSpace();
        if (p != end)
            return fail("unexpected text after the value");
        return value;
    }

    QString error;

private:
    const char *p;
    const char *end;
    const char *begin;
    int maxDepth;
    QByteArray buffer;

    std::nullopt_t fail(const char *what)
    {
        if (error.isEmpty())
            error = QStringLiteral("%1 at byte %2").arg(QLatin1String(what)).arg(p - begin);
        return std::nullopt;
    }

    void skipSpace()
    {
        while (p != end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r'))
            ++p;
    }

    bool literal(const char *word)
    {
        const size_t n = std::strlen(word);
        if (size_t(end - p) < n || std::memcmp(p, word, n) != 0)
            return false;
        p += n;
        return true;
    }

    std::optional<QJsonValue> parseValue(int depth)
    {
        if (p == end)
            return fail("unexpected end");
        switch (*p) {
        case '{':
            return parseObject(depth + 1);
        case '[':
            return parseArray(depth + 1);
        case '"': {
            auto s = parseString();
            if (!s)
                return std::nullopt;
            return QJsonValue(*s);
        }
        case 't':
            if (literal("true"))
                return QJsonValue(true);
            break;
        case 'f':
            if (literal("false"))
                return QJsonValue(false);
            break;
        case 'n':
            if (literal("null"))
                return QJsonValue(QJsonValue::Null);
            break;
        default:
            if (*p == '-' || (*p >= '0' && *p <= '9'))
                return parseNumber();
        }
        return fail("unexpected character");
    }

    std::optional<QJsonValue> parseObject(int depth)
    {
        if (depth > maxDepth)
            return fail("nested too deeply");
        ++p;
        QJsonObject object;
        skipSpace();
        if (p != end && *p == '}') {
            ++p;
            return QJsonValue(object);
        }
        for (;;) {
            skipSpace();
            if (p == end || *p != '"')
                return fail("expected a key");
            auto key = parseString();
            if (!key)
                return std::nullopt;
            if (object.contains(*key))
                return fail("duplicate key");
            skipSpace();
            if (p == end || *p != ':')
                return fail("expected ':'");
            ++p;
            skipSpace();
            auto value = parseValue(depth);
            if (!value)
                return std::nullopt;
            object.insert(*key, *value);
            skipSpace();
            if (p != end && *p == ',') {
                ++p;
                continue;
            }
            if (p != end && *p == '}') {
                ++p;
                return QJsonValue(object);
            }
            return fail("expected ',' or '}'");
        }
    }

    std::optional<QJsonValue> parseArray(int depth)
    {
        if (depth > maxDepth)
            return fail("nested too deeply");
        ++p;
        QJsonArray array;
        skipSpace();
        if (p != end && *p == ']') {
            ++p;
            return QJsonValue(array);
        }
        for (;;) {
            skipSpace();
            auto value = parseValue(depth);
            if (!value)
                return std::nullopt;
            array.append(*value);
            skipSpace();
            if (p != end && *p == ',') {
                ++p;
                continue;
            }
            if (p != end && *p == ']') {
                ++p;
                return QJsonValue(array);
            }
            return fail("expected ',' or ']'");
        }
    }

    std::optional<QJsonValue> parseNumber()
    {
        const char *start = p;
        if (*p == '-')
            ++p;
        if (p == end)
            return fail("bad number");
        if (*p == '0') {
            ++p;
        } else if (*p >= '1' && *p <= '9') {
            while (p != end && *p >= '0' && *p <= '9')
                ++p;
        } else {
            return fail("bad number");
        }
        if (p != end && *p == '.') {
            ++p;
            if (p == end || !(*p >= '0' && *p <= '9'))
                return fail("bad number");
            while (p != end && *p >= '0' && *p <= '9')
                ++p;
        }
        if (p != end && (*p == 'e' || *p == 'E')) {
            ++p;
            if (p != end && (*p == '+' || *p == '-'))
                ++p;
            if (p == end || !(*p >= '0' && *p <= '9'))
                return fail("bad number");
            while (p != end && *p >= '0' && *p <= '9')
                ++p;
        }
        if (p - start > 64)
            return fail("number too long");
        char digits[72];
        std::memcpy(digits, start, p - start);
        digits[p - start] = 0;
        const double value = std::strtod(digits, nullptr);
        if (!std::isfinite(value))
            return fail("number out of range");
        return QJsonValue(value);
    }

    static int hex(char c)
    {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    }

    bool readHex4(unsigned *out)
    {
        if (end - p < 4)
            return false;
        unsigned v = 0;
        for (int i = 0; i < 4; ++i) {
            const int h = hex(p[i]);
            if (h < 0)
                return false;
            v = v << 4 | unsigned(h);
        }
        p += 4;
        *out = v;
        return true;
    }

    void appendUtf8(unsigned cp)
    {
        if (cp < 0x80) {
            buffer.append(char(cp));
        } else if (cp < 0x800) {
            buffer.append(char(0xC0 | cp >> 6));
            buffer.append(char(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            buffer.append(char(0xE0 | cp >> 12));
            buffer.append(char(0x80 | (cp >> 6 & 0x3F)));
            buffer.append(char(0x80 | (cp & 0x3F)));
        } else {
            buffer.append(char(0xF0 | cp >> 18));
            buffer.append(char(0x80 | (cp >> 12 & 0x3F)));
            buffer.append(char(0x80 | (cp >> 6 & 0x3F)));
            buffer.append(char(0x80 | (cp & 0x3F)));
        }
    }

    // The length of the valid UTF-8 sequence at `s`, or 0.
    static int utf8Sequence(const unsigned char *s, const unsigned char *e)
    {
        const unsigned c = s[0];
        int n;
        unsigned min;
        if (c >= 0xC2 && c <= 0xDF) {
            n = 2;
            min = 0x80;
        } else if (c >= 0xE0 && c <= 0xEF) {
            n = 3;
            min = 0x800;
        } else if (c >= 0xF0 && c <= 0xF4) {
            n = 4;
            min = 0x10000;
        } else {
            return 0;
        }
        if (e - s < n)
            return 0;
        unsigned cp = c & (0x7F >> n);
        for (int i = 1; i < n; ++i) {
            if ((s[i] & 0xC0) != 0x80)
                return 0;
            cp = cp << 6 | (s[i] & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return 0;
        return n;
    }

    std::optional<QString> parseString()
    {
        ++p; // the opening quote
        // Room for the whole string at once: a screenshot's Base64 would otherwise grow
        // the buffer a run at a time.
        buffer.resize(0);
        if (const void *quote = std::memchr(p, '"', size_t(end - p)))
            buffer.reserve(static_cast<const char *>(quote) - p);
        for (;;) {
            const char *run = p;
            while (p != end) {
                const unsigned char c = static_cast<unsigned char>(*p);
                if (c == '"' || c == '\\' || c < 0x20 || c >= 0x80)
                    break;
                ++p;
            }
            buffer.append(run, p - run);
            if (p == end)
                return fail("unterminated string");
            const unsigned char c = static_cast<unsigned char>(*p);
            if (c == '"') {
                ++p;
                return QString::fromUtf8(buffer);
            }
            if (c < 0x20)
                return fail("control character in a string");
            if (c >= 0x80) {
                const int n = utf8Sequence(reinterpret_cast<const unsigned char *>(p),
                                           reinterpret_cast<const unsigned char *>(end));
                if (n == 0)
                    return fail("invalid UTF-8");
                buffer.append(p, n);
                p += n;
                continue;
            }
            ++p; // the backslash
            if (p == end)
                return fail("unterminated string");
            const char e = *p++;
            switch (e) {
            case '"':
            case '\\':
            case '/':
                buffer.append(e);
                break;
            case 'b':
                buffer.append('\b');
                break;
            case 'f':
                buffer.append('\f');
                break;
            case 'n':
                buffer.append('\n');
                break;
            case 'r':
                buffer.append('\r');
                break;
            case 't':
                buffer.append('\t');
                break;
            case 'u': {
                unsigned cp;
                if (!readHex4(&cp))
                    return fail("bad \\u escape");
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    unsigned low;
                    if (end - p < 6 || p[0] != '\\' || p[1] != 'u')
                        return fail("lone surrogate");
                    p += 2;
                    if (!readHex4(&low) || low < 0xDC00 || low > 0xDFFF)
                        return fail("lone surrogate");
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                    return fail("lone surrogate");
                }
                appendUtf8(cp);
                break;
            }
            default:
                return fail("bad escape");
            }
        }
    }
};

} // namespace

std::optional<QJsonValue> QKJsonReader::read(QByteArrayView text, int maxDepth, QString *error)
{
    Parser parser(text, maxDepth);
    auto value = parser.document();
    if (!value && error)
        *error = parser.error;
    return value;
}
