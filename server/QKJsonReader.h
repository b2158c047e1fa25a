#pragma once

// A strict JSON reader for what arrives from outside: RFC 8259 and nothing more (no
// comments, no trailing commas, no NaN), valid UTF-8 only, no lone surrogates, no
// duplicate keys, bounded nesting. Faster than QJsonDocument on the large Base64
// strings of screenshots, which it copies in runs.

#include <QByteArrayView>
#include <QJsonValue>
#include <QString>

#include <optional>

class QKJsonReader
{
public:
    static constexpr int DefaultMaxDepth = 32;

    // The value of the whole text (surrounding white space allowed), or nullopt with
    // `error` saying where and what.
    static std::optional<QJsonValue> read(QByteArrayView text, int maxDepth = DefaultMaxDepth,
                                          QString *error = nullptr);
};
