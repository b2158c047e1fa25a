#pragma once

#include "QKCoding.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>
#include <optional>

class QKArchiveBytes;

/// Reads keyed archives written by QKKeyedArchiver or by any NSKeyedArchiver.
///
/// Values come back as QKKeyedArchiver writes them (nil as an invalid QVariant).
/// Objects of other classes are made by the factory registered for their class
/// name. The reader trusts nothing in the file: every malformed input throws
/// QKArchiveException with a message that says what is wrong, and sizes, counts
/// and nesting are bounded before memory is taken.
///
/// A file is read through a memory mapping, which objects read from it may keep
/// (an item's image text) for as long as they live.
class MURMORA_DATA_EXPORT QKKeyedUnarchiver
{
public:
    /// Makes an object from the unarchiver positioned on its fields (its initWithCoder).
    using Factory = std::function<QKCodingPtr(QKKeyedUnarchiver &coder)>;
    /// Registers (or replaces) the factory for `className`. Thread-safe.
    static void registerClass(const QString &className, Factory factory);

    /// The root object of an archive.
    static QVariant unarchivedObject(const QByteArray &data);
    /// The root object of the archive at `path`; nil when there is no such file.
    /// An unreadable file throws as malformed data does.
    static QVariant unarchiveObjectWithFile(const QString &path);

    /// Called from a factory: each reads one field of the object being decoded.
    bool containsValueForKey(const QString &key) const;
    /// Any value; nil when the key is absent.
    QVariant decodeObject(const QString &key);
    /// Typed reads: nil (a null string, an invalid date, std::nullopt) when the key
    /// is absent or holds nil; QKArchiveException when it holds another type.
    QString decodeString(const QString &key);
    /// A string's characters as bytes (UTF-8 when not ASCII), for large ASCII text
    /// (Base64 images) that need not become UTF-16. Null when absent or nil.
    QByteArray decodeASCIIString(const QString &key);
    /// A date (its "NS.time"); invalid when absent or nil.
    QDateTime decodeDate(const QString &key);
    /// An array's values; std::nullopt when absent or nil.
    std::optional<QVariantList> decodeArray(const QString &key);
    /// The object at `key` as a T; null when absent or nil, QKArchiveException when of another class.
    template <class T>
    QSharedPointer<T> decodeObjectOfClass(const QString &key)
    {
        return castObject<T>(decodeObject(key), key);
    }
    /// An array whose every entry is a T; std::nullopt when absent or nil,
    /// QKArchiveException for a nil entry or one of another class.
    template <class T>
    std::optional<QList<QSharedPointer<T>>> decodeArrayOfObjectsOfClass(const QString &key)
    {
        const auto values = decodeArray(key);
        if (!values)
            return std::nullopt;
        QList<QSharedPointer<T>> objects;
        objects.reserve(values->size());
        for (const QVariant &value : *values) {
            auto object = castObject<T>(value, key);
            if (!object)
                typeMismatch(key, QStringLiteral("a nil entry"));
            objects.append(object);
        }
        return objects;
    }
    /// Primitive values; 0 or false when absent.
    bool decodeBool(const QString &key);
    /// An integer; 0 when absent.
    qint64 decodeInt64(const QString &key);
    /// A real number; 0 when absent.
    double decodeDouble(const QString &key);

    /// Only the unarchiver's own entry points make and end one.
    ~QKKeyedUnarchiver();

private:
    explicit QKKeyedUnarchiver(std::shared_ptr<const QKArchiveBytes> bytes);
    template <class T>
    QSharedPointer<T> castObject(const QVariant &value, const QString &key)
    {
        if (!value.isValid())
            return {};
        if (value.metaType() == QMetaType::fromType<QKCodingPtr>()) {
            if (auto object = value.value<QKCodingPtr>().template dynamicCast<T>())
                return object;
        }
        typeMismatch(key, QString::fromLatin1(value.metaType().name()));
    }
    [[noreturn]] static void typeMismatch(const QString &key, const QString &found);

    friend struct QKKeyedArchiveAccess;
    struct Private;
    std::unique_ptr<Private> d;
};
