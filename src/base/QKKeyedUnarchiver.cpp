#include "QKKeyedUnarchiver.h"

#include "QKArchiveException.h"
#include "QKBinaryPropertyListCheck_p.h"
#include "QKKeyedArchive_p.h"

#include <QFile>
#include <QHash>
#include <QMutex>
#include <QSet>

#include <cmath>
#include <plist/plist.h>

namespace {

// A keyed archive larger than this is not one of ours (and not one the parser takes).
constexpr qint64 MaxArchiveSize = qint64(1) << 31;

[[noreturn]] void malformed(const QString &what)
{
    throw QKArchiveException(QStringLiteral("malformed keyed archive: ") + what);
}

// Classes register from static initialisers of other files, so both live in functions.
QMutex &registryMutex()
{
    static QMutex mutex;
    return mutex;
}

QHash<QString, QKKeyedUnarchiver::Factory> &registry()
{
    static QHash<QString, QKKeyedUnarchiver::Factory> factories;
    return factories;
}

struct PlistDeleter
{
    void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};

QString stringValue(plist_t node)
{
    // Not plist_get_string_val: libplist asserts (aborts) on a UTF-16 string holding U+0000.
    uint64_t length = 0;
    const char *text = plist_get_string_ptr(node, &length);
    return text ? QString::fromUtf8(text, qsizetype(length)) : QStringLiteral("");
}

plist_t member(plist_t dict, const char *key)
{
    return plist_dict_get_item(dict, key);
}

quint64 uidValue(plist_t node)
{
    uint64_t value = 0;
    plist_get_uid_val(node, &value);
    return value;
}

QString describe(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN:
        return QStringLiteral("a boolean");
    case PLIST_UINT:
        return QStringLiteral("an integer");
    case PLIST_REAL:
        return QStringLiteral("a real");
    case PLIST_STRING:
        return QStringLiteral("a string");
    case PLIST_ARRAY:
        return QStringLiteral("an array");
    case PLIST_DICT:
        return QStringLiteral("a dictionary");
    case PLIST_DATE:
        return QStringLiteral("a date");
    case PLIST_DATA:
        return QStringLiteral("data");
    case PLIST_UID:
        return QStringLiteral("a reference");
    default:
        return QStringLiteral("an unknown value");
    }
}

} // namespace

struct QKKeyedUnarchiver::Private
{
    std::unique_ptr<void, PlistDeleter> root;
    plist_t objects = nullptr;
    quint64 count = 0;
    QHash<quint64, QVariant> decoded;
    QSet<quint64> decoding;
    QList<plist_t> current; // the dictionaries of the objects being decoded
    int depth = 0;
    QKKeyedUnarchiver *owner = nullptr;

    plist_t object(quint64 uid) const
    {
        if (uid >= count)
            malformed(QStringLiteral("reference %1 out of range (%2 objects)").arg(uid).arg(count));
        return plist_array_get_item(objects, uint32_t(uid));
    }

    QList<quint64> references(plist_t dict, const char *key, quint64 uid, const QString &className)
    {
        plist_t array = member(dict, key);
        if (!array || plist_get_node_type(array) != PLIST_ARRAY)
            malformed(QStringLiteral("%1 object %2 has no %3 array").arg(className).arg(uid).arg(QLatin1String(key)));
        const uint32_t n = plist_array_get_size(array);
        QList<quint64> uids;
        uids.reserve(n);
        for (uint32_t i = 0; i < n; ++i) {
            plist_t item = plist_array_get_item(array, i);
            if (plist_get_node_type(item) != PLIST_UID)
                malformed(QStringLiteral("entry %1 of %2 in object %3 is %4, not a reference")
                              .arg(i)
                              .arg(QLatin1String(key))
                              .arg(uid)
                              .arg(describe(item)));
            uids.append(uidValue(item));
        }
        return uids;
    }

    QVariant decodeReference(quint64 uid)
    {
        if (uid == 0)
            return QVariant();
        if (auto found = decoded.constFind(uid); found != decoded.constEnd())
            return *found;
        if (decoding.contains(uid))
            malformed(QStringLiteral("reference cycle through object %1").arg(uid));
        plist_t node = object(uid);
        QVariant value;
        switch (plist_get_node_type(node)) {
        case PLIST_STRING:
            value = stringValue(node);
            break;
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            value = bool(b);
            break;
        }
        case PLIST_UINT: {
            uint64_t n = 0;
            plist_get_uint_val(node, &n);
            value = qint64(n);
            break;
        }
        case PLIST_REAL: {
            double r = 0;
            plist_get_real_val(node, &r);
            value = r;
            break;
        }
        case PLIST_DATA: {
            char *bytes = nullptr;
            uint64_t length = 0;
            plist_get_data_val(node, &bytes, &length);
            value = QByteArray(bytes ? bytes : "", qsizetype(length));
            free(bytes);
            break;
        }
        case PLIST_DICT:
            decoding.insert(uid);
            value = decodeInstance(uid, node);
            decoding.remove(uid);
            break;
        default:
            malformed(QStringLiteral("object %1 is %2, which no archived object can be").arg(uid).arg(describe(node)));
        }
        decoded.insert(uid, value);
        return value;
    }

    QString classNameOf(quint64 uid, plist_t dict)
    {
        plist_t classRef = member(dict, "$class");
        if (!classRef || plist_get_node_type(classRef) != PLIST_UID)
            malformed(QStringLiteral("object %1 has no $class").arg(uid));
        plist_t record = object(uidValue(classRef));
        if (plist_get_node_type(record) != PLIST_DICT)
            malformed(QStringLiteral("the class of object %1 is not a class record").arg(uid));
        plist_t name = member(record, "$classname");
        if (!name || plist_get_node_type(name) != PLIST_STRING)
            malformed(QStringLiteral("the class record of object %1 has no $classname").arg(uid));
        return stringValue(name);
    }

    QVariant decodeInstance(quint64 uid, plist_t dict)
    {
        const QString className = classNameOf(uid, dict);
        if (++depth > QKKeyedArchiveMaxDepth)
            malformed(QStringLiteral("objects nest deeper than %1 levels").arg(QKKeyedArchiveMaxDepth));
        QVariant value;
        if (className == QLatin1String("NSArray") || className == QLatin1String("NSMutableArray")) {
            QVariantList list;
            const QList<quint64> uids = references(dict, "NS.objects", uid, className);
            list.reserve(uids.size());
            for (quint64 each : uids)
                list.append(decodeReference(each));
            value = list;
        } else if (className == QLatin1String("NSDictionary") || className == QLatin1String("NSMutableDictionary")) {
            const QList<quint64> keys = references(dict, "NS.keys", uid, className);
            const QList<quint64> values = references(dict, "NS.objects", uid, className);
            if (keys.size() != values.size())
                malformed(QStringLiteral("dictionary %1 has %2 keys and %3 values")
                              .arg(uid)
                              .arg(keys.size())
                              .arg(values.size()));
            QVariantMap map;
            for (qsizetype i = 0; i < keys.size(); ++i) {
                const QVariant key = decodeReference(keys[i]);
                if (key.metaType().id() != QMetaType::QString)
                    malformed(QStringLiteral("dictionary %1 has a key that is not a string").arg(uid));
                map.insert(key.toString(), decodeReference(values[i]));
            }
            value = map;
        } else if (className == QLatin1String("NSDate")) {
            plist_t time = member(dict, "NS.time");
            double seconds = 0;
            if (time && plist_get_node_type(time) == PLIST_REAL) {
                plist_get_real_val(time, &seconds);
            } else if (time && plist_get_node_type(time) == PLIST_UINT) {
                uint64_t n = 0;
                plist_get_uint_val(time, &n);
                seconds = double(qint64(n));
            } else {
                malformed(QStringLiteral("date %1 has no NS.time").arg(uid));
            }
            // QDateTime spans far more than this; the bound keeps the arithmetic exact.
            if (!std::isfinite(seconds) || std::fabs(seconds) > 1e14)
                malformed(QStringLiteral("date %1 is out of range").arg(uid));
            value = QDateTime::fromMSecsSinceEpoch(
                qint64(std::llround(seconds * 1000.0)) + QKKeyedArchiveEpochOffsetSecs * 1000, Qt::UTC);
        } else if (className == QLatin1String("NSString") || className == QLatin1String("NSMutableString")) {
            plist_t text = member(dict, "NS.string");
            if (!text || plist_get_node_type(text) != PLIST_STRING)
                malformed(QStringLiteral("string %1 has no NS.string").arg(uid));
            value = stringValue(text);
        } else if (className == QLatin1String("NSData") || className == QLatin1String("NSMutableData")) {
            plist_t bytes = member(dict, "NS.data");
            if (!bytes || plist_get_node_type(bytes) != PLIST_DATA)
                malformed(QStringLiteral("data %1 has no NS.data").arg(uid));
            char *raw = nullptr;
            uint64_t length = 0;
            plist_get_data_val(bytes, &raw, &length);
            value = QByteArray(raw ? raw : "", qsizetype(length));
            free(raw);
        } else {
            Factory factory;
            {
                QMutexLocker lock(&registryMutex());
                factory = registry().value(className);
            }
            if (!factory)
                malformed(QStringLiteral("object %1 is of the unknown class %2").arg(uid).arg(className));
            current.append(dict);
            QKCodingPtr instance = factory(*owner);
            current.removeLast();
            if (!instance)
                malformed(QStringLiteral("object %1 of class %2 could not be decoded").arg(uid).arg(className));
            value = QVariant::fromValue(instance);
        }
        --depth;
        return value;
    }

    plist_t field(const QString &key) const
    {
        if (current.isEmpty())
            throw QKArchiveException(QStringLiteral("decode called outside a class factory"));
        return member(current.last(), key.toUtf8().constData());
    }
};

QKKeyedUnarchiver::QKKeyedUnarchiver(void *plistRoot) : d(std::make_unique<Private>())
{
    d->root.reset(plistRoot);
    d->owner = this;
}

QKKeyedUnarchiver::~QKKeyedUnarchiver() = default;

void QKKeyedUnarchiver::registerClass(const QString &className, Factory factory)
{
    QMutexLocker lock(&registryMutex());
    registry().insert(className, std::move(factory));
}

QVariant QKKeyedUnarchiver::unarchivedObject(const QByteArray &data)
{
    if (data.size() > MaxArchiveSize)
        malformed(QStringLiteral("%1 bytes are more than an archive may hold").arg(data.size()));
    QKCheckBinaryPropertyList(data);
    plist_t parsed = nullptr;
    plist_from_bin(data.constData(), uint32_t(data.size()), &parsed);
    if (!parsed)
        malformed(QStringLiteral("the property list could not be parsed"));
    QKKeyedUnarchiver coder(parsed);
    Private &p = *coder.d;

    if (plist_get_node_type(parsed) != PLIST_DICT)
        malformed(QStringLiteral("the top level is %1, not a dictionary").arg(describe(parsed)));
    plist_t archiver = member(parsed, "$archiver");
    if (!archiver || plist_get_node_type(archiver) != PLIST_STRING)
        malformed(QStringLiteral("no $archiver"));
    if (stringValue(archiver) != QLatin1String("NSKeyedArchiver"))
        malformed(QStringLiteral("$archiver is \"%1\", not \"NSKeyedArchiver\"").arg(stringValue(archiver)));
    plist_t version = member(parsed, "$version");
    uint64_t versionValue = 0;
    if (version && plist_get_node_type(version) == PLIST_UINT)
        plist_get_uint_val(version, &versionValue);
    if (versionValue != QKKeyedArchiveVersion)
        malformed(QStringLiteral("$version is not %1").arg(QKKeyedArchiveVersion));
    p.objects = member(parsed, "$objects");
    if (!p.objects || plist_get_node_type(p.objects) != PLIST_ARRAY)
        malformed(QStringLiteral("no $objects array"));
    p.count = plist_array_get_size(p.objects);
    if (p.count == 0 || plist_get_node_type(plist_array_get_item(p.objects, 0)) != PLIST_STRING ||
        stringValue(plist_array_get_item(p.objects, 0)) != QLatin1String("$null"))
        malformed(QStringLiteral("$objects does not start with \"$null\""));
    plist_t top = member(parsed, "$top");
    if (!top || plist_get_node_type(top) != PLIST_DICT)
        malformed(QStringLiteral("no $top dictionary"));
    plist_t root = member(top, "root");
    if (!root || plist_get_node_type(root) != PLIST_UID)
        malformed(QStringLiteral("$top has no root reference"));
    return p.decodeReference(uidValue(root));
}

QVariant QKKeyedUnarchiver::unarchiveObjectWithFile(const QString &path)
{
    QFile file(path);
    if (!file.exists())
        return QVariant();
    if (!file.open(QIODevice::ReadOnly))
        throw QKArchiveException(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    if (file.size() > MaxArchiveSize)
        malformed(QStringLiteral("%1 is %2 bytes, more than an archive may hold").arg(path).arg(file.size()));
    if (file.size() == 0)
        malformed(QStringLiteral("%1 is empty").arg(path));
    // Mapped rather than read: the parser copies out everything it keeps, and a copy
    // of an archive of screenshots is hundreds of megabytes.
    if (uchar *mapped = file.map(0, file.size())) {
        const QVariant root =
            unarchivedObject(QByteArray::fromRawData(reinterpret_cast<const char *>(mapped), file.size()));
        file.unmap(mapped);
        return root;
    }
    const QByteArray data = file.readAll();
    if (data.isEmpty())
        malformed(QStringLiteral("%1 is empty").arg(path));
    return unarchivedObject(data);
}

bool QKKeyedUnarchiver::containsValueForKey(const QString &key) const
{
    return d->field(key) != nullptr;
}

QVariant QKKeyedUnarchiver::decodeObject(const QString &key)
{
    plist_t value = d->field(key);
    if (!value)
        return QVariant();
    if (plist_get_node_type(value) != PLIST_UID)
        malformed(QStringLiteral("the value for key \"%1\" is %2, not an object reference").arg(key, describe(value)));
    return d->decodeReference(uidValue(value));
}

void QKKeyedUnarchiver::typeMismatch(const QString &key, const QString &found)
{
    malformed(QStringLiteral("the value for key \"%1\" is %2, not of the expected type").arg(key, found));
}

QString QKKeyedUnarchiver::decodeString(const QString &key)
{
    const QVariant value = decodeObject(key);
    if (!value.isValid())
        return QString();
    if (value.metaType().id() != QMetaType::QString)
        typeMismatch(key, QString::fromLatin1(value.metaType().name()));
    return value.toString();
}

QByteArray QKKeyedUnarchiver::decodeASCIIString(const QString &key)
{
    plist_t value = d->field(key);
    if (!value)
        return QByteArray();
    if (plist_get_node_type(value) != PLIST_UID)
        malformed(QStringLiteral("the value for key \"%1\" is %2, not an object reference").arg(key, describe(value)));
    const quint64 uid = uidValue(value);
    if (uid == 0)
        return QByteArray();
    plist_t node = d->object(uid);
    if (plist_get_node_type(node) != PLIST_STRING)
        return decodeString(key).toUtf8(); // says what else it holds
    uint64_t length = 0;
    const char *text = plist_get_string_ptr(node, &length);
    return QByteArray(text ? text : "", qsizetype(length));
}

QDateTime QKKeyedUnarchiver::decodeDate(const QString &key)
{
    const QVariant value = decodeObject(key);
    if (!value.isValid())
        return QDateTime();
    if (value.metaType().id() != QMetaType::QDateTime)
        typeMismatch(key, QString::fromLatin1(value.metaType().name()));
    return value.toDateTime();
}

std::optional<QVariantList> QKKeyedUnarchiver::decodeArray(const QString &key)
{
    const QVariant value = decodeObject(key);
    if (!value.isValid())
        return std::nullopt;
    if (value.metaType().id() != QMetaType::QVariantList)
        typeMismatch(key, QString::fromLatin1(value.metaType().name()));
    return value.toList();
}

namespace {
template <class T>
T primitive(plist_t node, const QString &key, plist_type type, void (*get)(plist_t, T *))
{
    if (!node)
        return T();
    if (plist_get_node_type(node) != type)
        malformed(QStringLiteral("the value for key \"%1\" is %2").arg(key, describe(node)));
    T value{};
    get(node, &value);
    return value;
}
} // namespace

bool QKKeyedUnarchiver::decodeBool(const QString &key)
{
    return primitive<uint8_t>(d->field(key), key, PLIST_BOOLEAN, plist_get_bool_val) != 0;
}

qint64 QKKeyedUnarchiver::decodeInt64(const QString &key)
{
    return qint64(primitive<uint64_t>(d->field(key), key, PLIST_UINT, plist_get_uint_val));
}

double QKKeyedUnarchiver::decodeDouble(const QString &key)
{
    return primitive<double>(d->field(key), key, PLIST_REAL, plist_get_real_val);
}
