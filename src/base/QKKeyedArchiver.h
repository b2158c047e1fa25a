#pragma once

#include "QKCoding.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVariant>

#include <memory>

/// Writes an object graph as a keyed archive: a binary property list with
/// "$archiver" "NSKeyedArchiver", "$version" 100000, "$top" {"root"} and the flat
/// "$objects" table that other keyed-archive readers expect.
///
/// Values are QVariants: an invalid QVariant, a null QString, QByteArray or
/// QKCodingPtr, or an invalid QDateTime is nil; strings, numbers, booleans and
/// bytes are stored as they are; QDateTime is NSDate, QVariantList (and
/// QStringList) NSMutableArray, QVariantMap NSMutableDictionary, and a QKCodingPtr
/// an object of its own class. Equal strings, numbers, bytes and dates are stored
/// once; every collection and coded object is stored once per object.
///
/// Not thread-safe; use one archiver per archive.
class MURMORA_DATA_EXPORT QKKeyedArchiver
{
public:
    /// Throws QKArchiveException for a value it cannot archive (another QVariant
    /// type, a reference cycle, nesting deeper than 256 objects, a date more than
    /// 10^14 seconds from 2001) or an archive larger than QKKeyedUnarchiver reads (2 GiB).
    static QByteArray archivedData(const QVariant &root);
    /// Archives `root` and replaces the file at `path` with it (QKAtomicFile).
    /// False, with the reason in `errorString`, when it cannot be archived or written;
    /// the old file is then left as it was.
    static bool archiveRootObject(const QVariant &root, const QString &path, QString *errorString = nullptr);

    /// Called from QKCoding::encodeWithCoder: each writes one field of the object
    /// being encoded, in call order.
    void encodeObject(const QVariant &object, const QString &key);
    /// Text that must be ASCII (Base64 images; the caller checks, as this is called
    /// for every image on every save), stored as a string without a round trip
    /// through UTF-16 and not shared with equal strings; a null array is nil.
    void encodeASCIIString(const QByteArray &ascii, const QString &key);
    /// Stores a boolean.
    void encodeBool(bool value, const QString &key);
    /// Stores an integer.
    void encodeInt64(qint64 value, const QString &key);
    /// Stores a real number.
    void encodeDouble(double value, const QString &key);

    /// Only the archiver's own entry points make and end one.
    ~QKKeyedArchiver();

private:
    QKKeyedArchiver();
    friend struct QKKeyedArchiveAccess;
    struct Private;
    std::unique_ptr<Private> d;
};
