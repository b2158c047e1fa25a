#include "QKKeyedUnarchiver.h"

#include "QKArchiveException.h"
#include "QKBase64.h"
#include "QKBinaryPropertyList_p.h"
#include "QKKeyedArchive_p.h"

#include <QFile>
#include <QHash>
#include <QMutex>
#include <QSet>

#include <atomic>
#include <cerrno>
#include <cmath>

#ifdef Q_OS_UNIX
#include <unistd.h>
#endif

namespace {

using Object = QKBinaryPropertyList::Object;

std::atomic<qint64> maxArchiveSize{QKKeyedArchiveDefaultMaxSize};

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

} // namespace

qint64 QKKeyedArchiveMaxSize()
{
    return maxArchiveSize.load(std::memory_order_relaxed);
}

void QKKeyedArchiveUseMaxSize(qint64 bytes)
{
    maxArchiveSize.store(bytes > 0 ? bytes : QKKeyedArchiveDefaultMaxSize, std::memory_order_relaxed);
}

QKArchiveBytes::QKArchiveBytes(const QByteArray &bytes) : m_bytes(bytes)
{
    if (!m_bytes.data_ptr().isMutable()) // raw data: the caller may free it
        m_bytes = QByteArray(bytes.constData(), bytes.size());
    m_view = m_bytes;
}

QKArchiveBytes::QKArchiveBytes(std::unique_ptr<QFile> file, const uchar *mapped, qint64 size)
    : m_file(std::move(file)), m_view(mapped, size)
{}

// The file's destructor unmaps it.
QKArchiveBytes::~QKArchiveBytes() = default;

bool QKArchiveBytes::isASCII(QByteArrayView text) const
{
#ifdef Q_OS_UNIX
    if (m_file) {
        char buffer[1 << 16];
        auto offset = off_t(text.data() - m_view.data());
        for (qsizetype left = text.size(); left > 0;) {
            const ssize_t got = ::pread(m_file->handle(), buffer, size_t(qMin<qsizetype>(left, sizeof buffer)), offset);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                break; // the mapping is still there to look at
            if (!QKBase64::isASCII(QByteArrayView(buffer, got)))
                return false;
            left -= got;
            offset += got;
            text = text.sliced(got);
        }
        if (text.isEmpty())
            return true;
    }
#endif
    return QKBase64::isASCII(text);
}

struct QKKeyedUnarchiver::Private
{
    std::shared_ptr<const QKArchiveBytes> bytes;
    QKBinaryPropertyList plist;
    Object objects;
    quint64 count = 0;
    QHash<quint64, QVariant> decoded;
    QSet<quint64> decoding;
    QList<Object> current; // the dictionaries of the objects being decoded
    int depth = 0;
    QKKeyedUnarchiver *owner = nullptr;

    explicit Private(std::shared_ptr<const QKArchiveBytes> archive) : bytes(std::move(archive)), plist(bytes->view()) {}

    std::optional<Object> member(const Object &dict, QStringView key) const { return plist.member(dict, key); }

    Object object(quint64 uid) const
    {
        if (uid >= count)
            malformed(QStringLiteral("reference %1 out of range (%2 objects)").arg(uid).arg(count));
        return plist.element(objects, uid);
    }

    QList<quint64> references(const Object &dict, QStringView key, quint64 uid, const QString &className) const
    {
        const std::optional<Object> array = member(dict, key);
        if (!array || array->type != QKBinaryPropertyList::Array)
            malformed(QStringLiteral("%1 object %2 has no %3 array").arg(className).arg(uid).arg(key));
        QList<quint64> uids;
        uids.reserve(qsizetype(array->count));
        for (quint64 i = 0; i < array->count; ++i) {
            const Object item = plist.element(*array, i);
            if (item.type != QKBinaryPropertyList::UID)
                malformed(QStringLiteral("entry %1 of %2 in object %3 is %4, not a reference")
                              .arg(i)
                              .arg(key)
                              .arg(uid)
                              .arg(QKBinaryPropertyList::describe(item)));
            uids.append(plist.integer(item));
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
        const Object node = object(uid);
        QVariant value;
        switch (node.type) {
        case QKBinaryPropertyList::String:
            value = plist.string(node);
            break;
        case QKBinaryPropertyList::Boolean:
            value = node.truth;
            break;
        case QKBinaryPropertyList::Integer:
            value = qint64(plist.integer(node));
            break;
        case QKBinaryPropertyList::Real:
            value = plist.real(node);
            break;
        case QKBinaryPropertyList::Data:
            value = plist.bytes(node).toByteArray();
            break;
        case QKBinaryPropertyList::Dictionary:
            decoding.insert(uid);
            value = decodeInstance(uid, node);
            decoding.remove(uid);
            break;
        default:
            malformed(QStringLiteral("object %1 is %2, which no archived object can be")
                          .arg(uid)
                          .arg(QKBinaryPropertyList::describe(node)));
        }
        decoded.insert(uid, value);
        return value;
    }

    QString classNameOf(quint64 uid, const Object &dict) const
    {
        const std::optional<Object> classRef = member(dict, u"$class");
        if (!classRef || classRef->type != QKBinaryPropertyList::UID)
            malformed(QStringLiteral("object %1 has no $class").arg(uid));
        const Object record = object(plist.integer(*classRef));
        if (record.type != QKBinaryPropertyList::Dictionary)
            malformed(QStringLiteral("the class of object %1 is not a class record").arg(uid));
        const std::optional<Object> name = member(record, u"$classname");
        if (!name || name->type != QKBinaryPropertyList::String)
            malformed(QStringLiteral("the class record of object %1 has no $classname").arg(uid));
        return plist.string(*name);
    }

    QVariant decodeInstance(quint64 uid, const Object &dict)
    {
        const QString className = classNameOf(uid, dict);
        if (++depth > QKKeyedArchiveMaxDepth)
            malformed(QStringLiteral("objects nest deeper than %1 levels").arg(QKKeyedArchiveMaxDepth));
        QVariant value;
        if (className == QLatin1String("NSArray") || className == QLatin1String("NSMutableArray")) {
            QVariantList list;
            const QList<quint64> uids = references(dict, u"NS.objects", uid, className);
            list.reserve(uids.size());
            for (quint64 each : uids)
                list.append(decodeReference(each));
            value = list;
        } else if (className == QLatin1String("NSDictionary") || className == QLatin1String("NSMutableDictionary")) {
            const QList<quint64> keys = references(dict, u"NS.keys", uid, className);
            const QList<quint64> values = references(dict, u"NS.objects", uid, className);
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
            const std::optional<Object> time = member(dict, u"NS.time");
            double seconds = 0;
            if (time && time->type == QKBinaryPropertyList::Real)
                seconds = plist.real(*time);
            else if (time && time->type == QKBinaryPropertyList::Integer)
                seconds = double(qint64(plist.integer(*time)));
            else
                malformed(QStringLiteral("date %1 has no NS.time").arg(uid));
            if (!std::isfinite(seconds) || std::fabs(seconds) > double(QKKeyedArchiveMaxDateSecs))
                malformed(QStringLiteral("date %1 is out of range").arg(uid));
            value = QDateTime::fromMSecsSinceEpoch(
                qint64(std::llround(seconds * 1000.0)) + QKKeyedArchiveEpochOffsetSecs * 1000, Qt::UTC);
        } else if (className == QLatin1String("NSString") || className == QLatin1String("NSMutableString")) {
            const std::optional<Object> text = member(dict, u"NS.string");
            if (!text || text->type != QKBinaryPropertyList::String)
                malformed(QStringLiteral("string %1 has no NS.string").arg(uid));
            value = plist.string(*text);
        } else if (className == QLatin1String("NSData") || className == QLatin1String("NSMutableData")) {
            const std::optional<Object> bytes = member(dict, u"NS.data");
            if (!bytes || bytes->type != QKBinaryPropertyList::Data)
                malformed(QStringLiteral("data %1 has no NS.data").arg(uid));
            value = plist.bytes(*bytes).toByteArray();
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

    std::optional<Object> field(const QString &key) const
    {
        if (current.isEmpty())
            throw QKArchiveException(QStringLiteral("decode called outside a class factory"));
        return member(current.last(), QKKeyedArchiveEscapedKey(key));
    }

    // The object a field refers to; nullopt when the field is absent or nil.
    std::optional<Object> referenced(const QString &key, quint64 *uid = nullptr) const
    {
        const std::optional<Object> value = field(key);
        if (!value)
            return std::nullopt;
        if (value->type != QKBinaryPropertyList::UID)
            malformed(QStringLiteral("the value for key \"%1\" is %2, not an object reference")
                          .arg(key, QKBinaryPropertyList::describe(*value)));
        const quint64 index = plist.integer(*value);
        if (uid)
            *uid = index;
        if (index == 0)
            return std::nullopt;
        return object(index);
    }

    QVariant decodeRoot()
    {
        const Object top = plist.top();
        if (top.type != QKBinaryPropertyList::Dictionary)
            malformed(QStringLiteral("the top level is %1, not a dictionary").arg(QKBinaryPropertyList::describe(top)));
        const std::optional<Object> archiver = member(top, u"$archiver");
        if (!archiver || archiver->type != QKBinaryPropertyList::String)
            malformed(QStringLiteral("no $archiver"));
        if (!plist.equals(*archiver, u"NSKeyedArchiver"))
            malformed(QStringLiteral("$archiver is \"%1\", not \"NSKeyedArchiver\"").arg(plist.string(*archiver)));
        const std::optional<Object> version = member(top, u"$version");
        if (!version || version->type != QKBinaryPropertyList::Integer ||
            plist.integer(*version) != QKKeyedArchiveVersion)
            malformed(QStringLiteral("$version is not %1").arg(QKKeyedArchiveVersion));
        const std::optional<Object> table = member(top, u"$objects");
        if (!table || table->type != QKBinaryPropertyList::Array)
            malformed(QStringLiteral("no $objects array"));
        objects = *table;
        count = objects.count;
        if (count == 0 || !plist.equals(plist.element(objects, 0), u"$null"))
            malformed(QStringLiteral("$objects does not start with \"$null\""));
        const std::optional<Object> topDict = member(top, u"$top");
        if (!topDict || topDict->type != QKBinaryPropertyList::Dictionary)
            malformed(QStringLiteral("no $top dictionary"));
        const std::optional<Object> root = member(*topDict, u"root");
        if (!root || root->type != QKBinaryPropertyList::UID)
            malformed(QStringLiteral("$top has no root reference"));
        return decodeReference(plist.integer(*root));
    }
};

QKKeyedUnarchiver::QKKeyedUnarchiver(std::shared_ptr<const QKArchiveBytes> bytes)
    : d(std::make_unique<Private>(std::move(bytes)))
{
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
    if (data.size() > QKKeyedArchiveMaxSize())
        malformed(QStringLiteral("%1 bytes are more than an archive may hold").arg(data.size()));
    return QKKeyedUnarchiver(std::make_shared<const QKArchiveBytes>(data)).d->decodeRoot();
}

QVariant QKKeyedUnarchiver::unarchiveObjectWithFile(const QString &path)
{
    auto file = std::make_unique<QFile>(path);
    if (!file->exists())
        return QVariant();
    if (!file->open(QIODevice::ReadOnly))
        throw QKArchiveException(QStringLiteral("cannot read %1: %2").arg(path, file->errorString()));
    const qint64 size = file->size();
    if (size > QKKeyedArchiveMaxSize())
        malformed(QStringLiteral("%1 is %2 bytes, more than an archive may hold").arg(path).arg(size));
    if (size == 0)
        malformed(QStringLiteral("%1 is empty").arg(path));
    // Mapped rather than read: the images' text stays in the file until it is used.
    if (const uchar *mapped = file->map(0, size))
        return QKKeyedUnarchiver(std::make_shared<const QKArchiveBytes>(std::move(file), mapped, size)).d->decodeRoot();
    const QByteArray data = file->readAll();
    if (data.isEmpty())
        malformed(QStringLiteral("%1 is empty").arg(path));
    return unarchivedObject(data);
}

bool QKKeyedUnarchiver::containsValueForKey(const QString &key) const
{
    return d->field(key).has_value();
}

QVariant QKKeyedUnarchiver::decodeObject(const QString &key)
{
    quint64 uid = 0;
    if (!d->referenced(key, &uid))
        return QVariant();
    return d->decodeReference(uid);
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

QKArchiveSlice QKKeyedArchiveAccess::decodeText(QKKeyedUnarchiver &coder, const QString &key)
{
    const std::optional<Object> node = coder.d->referenced(key);
    if (!node)
        return {};
    if (node->type != QKBinaryPropertyList::String || node->utf16) {
        // Says what else it holds, or makes the UTF-16 text bytes of its own.
        const QByteArray text = coder.decodeString(key).toUtf8();
        auto bytes = std::make_shared<const QKArchiveBytes>(text);
        return {bytes, bytes->view()};
    }
    return {coder.d->bytes, coder.d->plist.bytes(*node)};
}

QByteArray QKKeyedUnarchiver::decodeASCIIString(const QString &key)
{
    const QKArchiveSlice text = QKKeyedArchiveAccess::decodeText(*this, key);
    return text.bytes ? text.text.toByteArray() : QByteArray();
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
std::optional<Object> primitive(const std::optional<Object> &node, const QString &key, QKBinaryPropertyList::Type type)
{
    if (node && node->type != type)
        malformed(QStringLiteral("the value for key \"%1\" is %2").arg(key, QKBinaryPropertyList::describe(*node)));
    return node;
}
} // namespace

bool QKKeyedUnarchiver::decodeBool(const QString &key)
{
    const auto node = primitive(d->field(key), key, QKBinaryPropertyList::Boolean);
    return node && node->truth;
}

qint64 QKKeyedUnarchiver::decodeInt64(const QString &key)
{
    const auto node = primitive(d->field(key), key, QKBinaryPropertyList::Integer);
    return node ? qint64(d->plist.integer(*node)) : 0;
}

double QKKeyedUnarchiver::decodeDouble(const QString &key)
{
    const auto node = primitive(d->field(key), key, QKBinaryPropertyList::Real);
    return node ? d->plist.real(*node) : 0;
}
