#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// A property-list value as the keyed archiver builds it, before it is written.
struct QKPlistNode
{
    enum Kind : quint8 { Bool, Integer, Real, String, ASCII, Data, UID, Array, Dict };
    Kind kind = Bool;
    quint64 bits = 0;          // Bool, Integer (two's complement), Real (IEEE bits), UID
    QString text;              // String
    QByteArray bytes;          // ASCII, Data
    QList<QKPlistNode> values; // Array items, Dict values
    QList<QString> keys;       // Dict keys

    static QKPlistNode boolean(bool value) { return {Bool, value ? 1u : 0u, {}, {}, {}, {}}; }
    static QKPlistNode integer(qint64 value) { return {Integer, quint64(value), {}, {}, {}, {}}; }
    static QKPlistNode real(double value);
    static QKPlistNode string(const QString &text) { return {String, 0, text, {}, {}, {}}; }
    // Text known to be ASCII, kept as bytes: large Base64 images never pass through UTF-16.
    static QKPlistNode ascii(const QByteArray &bytes) { return {ASCII, 0, {}, bytes, {}, {}}; }
    static QKPlistNode data(const QByteArray &bytes) { return {Data, 0, {}, bytes, {}, {}}; }
    static QKPlistNode uid(quint64 value) { return {UID, value, {}, {}, {}, {}}; }
    static QKPlistNode array() { return {Array, 0, {}, {}, {}, {}}; }
    static QKPlistNode dict() { return {Dict, 0, {}, {}, {}, {}}; }

    void insert(const QString &key, QKPlistNode value)
    {
        keys.append(key);
        values.append(std::move(value));
    }
};

// The binary property list ("bplist00") of `root`, as pieces to be written one after
// the other: large strings and data are read from their nodes' own arrays, never
// copied, so `root` must outlive the pieces.
QList<QByteArray> QKWriteBinaryPropertyList(const QKPlistNode &root);
