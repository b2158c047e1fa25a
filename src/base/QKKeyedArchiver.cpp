#include "QKKeyedArchiver.h"

#include "QKArchiveException.h"
#include "QKAtomicFile.h"
#include "QKKeyedArchive_p.h"

#include <QDateTime>
#include <QList>
#include <QSet>

#include <plist/plist.h>

QKCoding::~QKCoding() = default;

struct QKKeyedArchiver::Private
{
    // $objects in UID order; each slot is filled once its object is complete.
    QList<plist_t> objects;
    QHash<QString, quint64> strings;
    QHash<QByteArray, quint64> datas;
    QHash<qint64, quint64> dates;
    QHash<QPair<int, quint64>, quint64> numbers;
    QHash<QString, quint64> classes;
    QHash<const QKCoding *, quint64> coded;
    QSet<const QKCoding *> encoding;
    QList<plist_t> containers; // the object dictionaries being filled
    int depth = 0;

    ~Private()
    {
        for (plist_t object : objects)
            if (object)
                plist_free(object);
        // Open containers are owned by their slot in `objects` only once finished.
        for (plist_t container : containers)
            plist_free(container);
    }

    quint64 append(plist_t object)
    {
        objects.append(object);
        return quint64(objects.size() - 1);
    }

    quint64 reserve()
    {
        objects.append(nullptr);
        return quint64(objects.size() - 1);
    }

    quint64 classRecord(const QStringList &chain)
    {
        const QString &name = chain.first();
        if (auto found = classes.constFind(name); found != classes.constEnd())
            return *found;
        plist_t record = plist_new_dict();
        plist_t names = plist_new_array();
        for (const QString &each : chain)
            plist_array_append_item(names, plist_new_string(each.toUtf8().constData()));
        plist_dict_set_item(record, "$classes", names);
        plist_dict_set_item(record, "$classname", plist_new_string(name.toUtf8().constData()));
        const quint64 uid = append(record);
        classes.insert(name, uid);
        return uid;
    }

    template <class Fill>
    quint64 collection(const QStringList &chain, Fill fill)
    {
        enter();
        const quint64 uid = reserve();
        plist_t object = plist_new_dict();
        containers.append(object);
        fill(object);
        containers.removeLast();
        plist_dict_set_item(object, "$class", plist_new_uid(classRecord(chain)));
        objects[qsizetype(uid)] = object;
        --depth;
        return uid;
    }

    void enter()
    {
        if (++depth > QKKeyedArchiveMaxDepth)
            throw QKArchiveException(QStringLiteral("objects nest deeper than %1 levels").arg(QKKeyedArchiveMaxDepth));
    }

    plist_t references(const QVariantList &values)
    {
        QList<quint64> uids;
        uids.reserve(values.size());
        for (const QVariant &value : values)
            uids.append(encode(value));
        plist_t array = plist_new_array();
        for (quint64 uid : uids)
            plist_array_append_item(array, plist_new_uid(uid));
        return array;
    }

    quint64 number(int kind, quint64 bits, plist_t (*make)(quint64))
    {
        const auto key = qMakePair(kind, bits);
        if (auto found = numbers.constFind(key); found != numbers.constEnd())
            return *found;
        const quint64 uid = append(make(bits));
        numbers.insert(key, uid);
        return uid;
    }

    quint64 encode(const QVariant &value)
    {
        if (!value.isValid())
            return 0;
        switch (value.metaType().id()) {
        case QMetaType::QString: {
            const QString text = value.toString();
            if (text.isNull())
                return 0;
            if (auto found = strings.constFind(text); found != strings.constEnd())
                return *found;
            const quint64 uid = append(plist_new_string(text.toUtf8().constData()));
            strings.insert(text, uid);
            return uid;
        }
        case QMetaType::Bool:
            return number(0, value.toBool(), [](quint64 bits) { return plist_new_bool(bits != 0); });
        case QMetaType::Int:
        case QMetaType::LongLong:
        case QMetaType::Long:
        case QMetaType::Short:
            return number(1, quint64(value.toLongLong()), [](quint64 bits) { return plist_new_uint(bits); });
        case QMetaType::UInt:
        case QMetaType::ULongLong:
        case QMetaType::ULong:
        case QMetaType::UShort:
            return number(1, value.toULongLong(), [](quint64 bits) { return plist_new_uint(bits); });
        case QMetaType::Double:
        case QMetaType::Float: {
            const double real = value.toDouble();
            quint64 bits;
            std::memcpy(&bits, &real, sizeof bits);
            return number(2, bits, [](quint64 stored) {
                double d;
                std::memcpy(&d, &stored, sizeof d);
                return plist_new_real(d);
            });
        }
        case QMetaType::QByteArray: {
            const QByteArray bytes = value.toByteArray();
            if (bytes.isNull())
                return 0;
            if (auto found = datas.constFind(bytes); found != datas.constEnd())
                return *found;
            const quint64 uid = append(plist_new_data(bytes.constData(), quint64(bytes.size())));
            datas.insert(bytes, uid);
            return uid;
        }
        case QMetaType::QDateTime: {
            const QDateTime date = value.toDateTime();
            if (!date.isValid())
                return 0;
            const qint64 msecs = date.toMSecsSinceEpoch();
            if (auto found = dates.constFind(msecs); found != dates.constEnd())
                return *found;
            const quint64 uid = collection({QStringLiteral("NSDate"), QStringLiteral("NSObject")}, [&](plist_t object) {
                plist_dict_set_item(object, "NS.time", plist_new_real(QKKeyedArchiveTimeFromDate(date)));
            });
            dates.insert(msecs, uid);
            return uid;
        }
        case QMetaType::QStringList:
        case QMetaType::QVariantList: {
            const QVariantList values = value.toList();
            return collection(QKKeyedArchiveMutableArrayChain(),
                              [&](plist_t object) { plist_dict_set_item(object, "NS.objects", references(values)); });
        }
        case QMetaType::QVariantMap: {
            const QVariantMap map = value.toMap();
            return collection(QKKeyedArchiveMutableDictionaryChain(), [&](plist_t object) {
                // Keys first, then values, as the platform's dictionaries encode.
                QVariantList keys;
                for (const QString &key : map.keys())
                    keys.append(key);
                plist_dict_set_item(object, "NS.keys", references(keys));
                plist_dict_set_item(object, "NS.objects", references(map.values()));
            });
        }
        default:
            break;
        }
        if (value.metaType() == QMetaType::fromType<QKCodingPtr>()) {
            const QKCodingPtr coding = value.value<QKCodingPtr>();
            if (!coding)
                return 0;
            if (encoding.contains(coding.data()))
                throw QKArchiveException(QStringLiteral("cannot archive a reference cycle through a %1")
                                             .arg(coding->archiveClassChain().value(0)));
            if (auto found = coded.constFind(coding.data()); found != coded.constEnd())
                return *found;
            const QStringList chain = coding->archiveClassChain();
            if (chain.isEmpty())
                throw QKArchiveException(QStringLiteral("an archived class has no name"));
            encoding.insert(coding.data());
            const quint64 uid = collection(chain, [&](plist_t) { coding->encodeWithCoder(*owner); });
            encoding.remove(coding.data());
            coded.insert(coding.data(), uid);
            return uid;
        }
        throw QKArchiveException(
            QStringLiteral("cannot archive a value of type %1").arg(QString::fromLatin1(value.metaType().name())));
    }

    void set(const QString &key, plist_t item)
    {
        if (containers.isEmpty()) {
            plist_free(item);
            throw QKArchiveException(QStringLiteral("encode called outside encodeWithCoder"));
        }
        plist_dict_set_item(containers.last(), key.toUtf8().constData(), item);
    }

    QKKeyedArchiver *owner = nullptr;
};

QKKeyedArchiver::QKKeyedArchiver() : d(std::make_unique<Private>())
{
    d->owner = this;
}

QKKeyedArchiver::~QKKeyedArchiver() = default;

QByteArray QKKeyedArchiver::archivedData(const QVariant &root)
{
    QKKeyedArchiver archiver;
    Private &p = *archiver.d;
    p.append(plist_new_string("$null"));
    const quint64 rootUid = p.encode(root);

    plist_t archive = plist_new_dict();
    plist_dict_set_item(archive, "$version", plist_new_uint(QKKeyedArchiveVersion));
    plist_dict_set_item(archive, "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(rootUid));
    plist_dict_set_item(archive, "$top", top);
    plist_t objects = plist_new_array();
    for (plist_t object : std::as_const(p.objects))
        plist_array_append_item(objects, object);
    p.objects.clear(); // now owned by the archive
    plist_dict_set_item(archive, "$objects", objects);

    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(archive, &bytes, &length);
    plist_free(archive);
    if (!bytes)
        throw QKArchiveException(QStringLiteral("the property list could not be written"));
    QByteArray data(bytes, qsizetype(length));
    plist_to_bin_free(bytes);
    return data;
}

bool QKKeyedArchiver::archiveRootObject(const QVariant &root, const QString &path, QString *errorString)
{
    QByteArray data;
    try {
        data = archivedData(root);
    } catch (const QKArchiveException &e) {
        if (errorString)
            *errorString = e.reason();
        return false;
    }
    return QKAtomicFile::write(path, data, errorString);
}

void QKKeyedArchiver::encodeObject(const QVariant &object, const QString &key)
{
    const quint64 uid = d->encode(object);
    d->set(key, plist_new_uid(uid));
}

void QKKeyedArchiver::encodeBool(bool value, const QString &key)
{
    d->set(key, plist_new_bool(value));
}

void QKKeyedArchiver::encodeInt64(qint64 value, const QString &key)
{
    d->set(key, plist_new_uint(quint64(value)));
}

void QKKeyedArchiver::encodeDouble(double value, const QString &key)
{
    d->set(key, plist_new_real(value));
}
