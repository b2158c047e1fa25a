#include "QKKeyedArchiver.h"

#include "QKArchiveException.h"
#include "QKAtomicFile.h"
#include "QKKeyedArchive_p.h"

#include <QDateTime>
#include <QList>
#include <QSet>
#include <QtNumeric>

#include "QKBinaryPropertyListWriter_p.h"

QKCoding::~QKCoding() = default;

struct QKKeyedArchiver::Private
{
    // $objects in UID order; each slot is filled once its object is complete.
    QList<QKPlistNode> objects;
    QHash<QString, quint64> strings;
    QHash<QByteArray, quint64> datas;
    QHash<qint64, quint64> dates;
    QHash<QPair<int, quint64>, quint64> numbers;
    QHash<QString, quint64> classes;
    QHash<const QKCoding *, quint64> coded;
    QSet<const QKCoding *> encoding;
    QList<QKPlistNode> containers;                       // the object dictionaries being filled
    QList<std::shared_ptr<const QKArchiveBytes>> slices; // what encodeText's nodes point into
    QKPlistNode archive;                                 // what the written pieces point into
    int depth = 0;

    quint64 append(QKPlistNode object)
    {
        objects.append(std::move(object));
        return quint64(objects.size() - 1);
    }

    quint64 reserve()
    {
        objects.append(QKPlistNode());
        return quint64(objects.size() - 1);
    }

    quint64 classRecord(const QStringList &chain)
    {
        const QString &name = chain.first();
        if (auto found = classes.constFind(name); found != classes.constEnd())
            return *found;
        QKPlistNode record = QKPlistNode::dict();
        QKPlistNode names = QKPlistNode::array();
        for (const QString &each : chain)
            names.values.append(QKPlistNode::string(each));
        record.insert(QStringLiteral("$classes"), std::move(names));
        record.insert(QStringLiteral("$classname"), QKPlistNode::string(name));
        const quint64 uid = append(std::move(record));
        classes.insert(name, uid);
        return uid;
    }

    template <class Fill>
    quint64 collection(const QStringList &chain, Fill fill)
    {
        enter();
        const quint64 uid = reserve();
        containers.append(QKPlistNode::dict());
        fill();
        QKPlistNode object = containers.takeLast();
        object.insert(QStringLiteral("$class"), QKPlistNode::uid(classRecord(chain)));
        objects[qsizetype(uid)] = std::move(object);
        --depth;
        return uid;
    }

    void enter()
    {
        if (++depth > QKKeyedArchiveMaxDepth)
            throw QKArchiveException(QStringLiteral("objects nest deeper than %1 levels").arg(QKKeyedArchiveMaxDepth));
    }

    QKPlistNode references(const QVariantList &values)
    {
        QList<quint64> uids;
        uids.reserve(values.size());
        for (const QVariant &value : values)
            uids.append(encode(value));
        QKPlistNode array = QKPlistNode::array();
        for (quint64 uid : uids)
            array.values.append(QKPlistNode::uid(uid));
        return array;
    }

    quint64 number(int kind, quint64 bits, QKPlistNode (*make)(quint64))
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
            const quint64 uid = append(QKPlistNode::string(text));
            strings.insert(text, uid);
            return uid;
        }
        case QMetaType::Bool:
            return number(0, value.toBool(), [](quint64 bits) { return QKPlistNode::boolean(bits != 0); });
        case QMetaType::Int:
        case QMetaType::LongLong:
        case QMetaType::Long:
        case QMetaType::Short:
            return number(1, quint64(value.toLongLong()),
                          [](quint64 bits) { return QKPlistNode::integer(qint64(bits)); });
        case QMetaType::UInt:
        case QMetaType::ULongLong:
        case QMetaType::ULong:
        case QMetaType::UShort:
            return number(1, value.toULongLong(), [](quint64 bits) { return QKPlistNode::integer(qint64(bits)); });
        case QMetaType::Double:
        case QMetaType::Float: {
            const double real = value.toDouble();
            quint64 bits;
            std::memcpy(&bits, &real, sizeof bits);
            return number(2, bits, [](quint64 stored) {
                double d;
                std::memcpy(&d, &stored, sizeof d);
                return QKPlistNode::real(d);
            });
        }
        case QMetaType::QByteArray: {
            const QByteArray bytes = value.toByteArray();
            if (bytes.isNull())
                return 0;
            if (auto found = datas.constFind(bytes); found != datas.constEnd())
                return *found;
            const quint64 uid = append(QKPlistNode::data(bytes));
            datas.insert(bytes, uid);
            return uid;
        }
        case QMetaType::QDateTime: {
            const QDateTime date = value.toDateTime();
            if (!date.isValid())
                return 0;
            const qint64 msecs = date.toMSecsSinceEpoch();
            // Milliseconds from the archive's epoch, within what the reader takes.
            qint64 sinceEpoch = 0;
            if (qSubOverflow(msecs, QKKeyedArchiveEpochOffsetSecs * 1000, &sinceEpoch) ||
                sinceEpoch > QKKeyedArchiveMaxDateSecs * 1000 || sinceEpoch < -QKKeyedArchiveMaxDateSecs * 1000)
                throw QKArchiveException(
                    QStringLiteral("cannot archive a date out of range (%1 ms since 1970)").arg(msecs));
            if (auto found = dates.constFind(msecs); found != dates.constEnd())
                return *found;
            const quint64 uid = collection({QStringLiteral("NSDate"), QStringLiteral("NSObject")}, [&] {
                containers.last().insert(QStringLiteral("NS.time"),
                                         QKPlistNode::real(QKKeyedArchiveTimeFromDate(date)));
            });
            dates.insert(msecs, uid);
            return uid;
        }
        case QMetaType::QStringList:
        case QMetaType::QVariantList: {
            const QVariantList values = value.toList();
            return collection(QKKeyedArchiveMutableArrayChain(), [&] {
                // Encoded first: nested objects grow `containers`, which would leave last() dangling.
                QKPlistNode refs = references(values);
                containers.last().insert(QStringLiteral("NS.objects"), std::move(refs));
            });
        }
        case QMetaType::QVariantMap: {
            const QVariantMap map = value.toMap();
            return collection(QKKeyedArchiveMutableDictionaryChain(), [&] {
                // Keys first, then values, as the platform's dictionaries encode.
                QVariantList keys;
                for (const QString &key : map.keys())
                    keys.append(key);
                QKPlistNode keyRefs = references(keys);
                QKPlistNode valueRefs = references(map.values());
                containers.last().insert(QStringLiteral("NS.keys"), std::move(keyRefs));
                containers.last().insert(QStringLiteral("NS.objects"), std::move(valueRefs));
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
            const quint64 uid = collection(chain, [&] { coding->encodeWithCoder(*owner); });
            encoding.remove(coding.data());
            coded.insert(coding.data(), uid);
            return uid;
        }
        throw QKArchiveException(
            QStringLiteral("cannot archive a value of type %1").arg(QString::fromLatin1(value.metaType().name())));
    }

    void set(const QString &key, QKPlistNode item)
    {
        if (containers.isEmpty())
            throw QKArchiveException(QStringLiteral("encode called outside encodeWithCoder"));
        QKPlistNode &object = containers.last();
        const QString escaped = QKKeyedArchiveEscapedKey(key);
        // A key written twice keeps its last value, as a dictionary does.
        if (const qsizetype at = object.keys.indexOf(escaped); at >= 0)
            object.values[at] = std::move(item);
        else
            object.insert(escaped, std::move(item));
    }

    // The archive's top-level dictionary around the finished object table.
    QList<QByteArray> pieces(const QVariant &root)
    {
        append(QKPlistNode::string(QStringLiteral("$null")));
        const quint64 rootUid = encode(root);
        archive = QKPlistNode::dict();
        archive.insert(QStringLiteral("$version"), QKPlistNode::integer(QKKeyedArchiveVersion));
        archive.insert(QStringLiteral("$archiver"), QKPlistNode::string(QStringLiteral("NSKeyedArchiver")));
        QKPlistNode top = QKPlistNode::dict();
        top.insert(QStringLiteral("root"), QKPlistNode::uid(rootUid));
        archive.insert(QStringLiteral("$top"), std::move(top));
        QKPlistNode table = QKPlistNode::array();
        table.values = std::move(objects);
        archive.insert(QStringLiteral("$objects"), std::move(table));
        QList<QByteArray> written = QKWriteBinaryPropertyList(archive);
        qint64 size = 0;
        for (const QByteArray &piece : std::as_const(written))
            size += piece.size();
        if (size > QKKeyedArchiveMaxSize())
            throw QKArchiveException(QStringLiteral("the archive would be %1 bytes, more than an archive may hold (%2)")
                                         .arg(size)
                                         .arg(QKKeyedArchiveMaxSize()));
        return written;
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
    const QList<QByteArray> pieces = archiver.d->pieces(root);
    qsizetype size = 0;
    for (const QByteArray &piece : pieces)
        size += piece.size();
    QByteArray data;
    data.reserve(size);
    for (const QByteArray &piece : pieces)
        data.append(piece);
    return data;
}

bool QKKeyedArchiver::archiveRootObject(const QVariant &root, const QString &path, QString *errorString)
{
    // Lives until the pieces are written: it holds what they point into.
    QKKeyedArchiver archiver;
    QList<QByteArray> pieces;
    try {
        pieces = archiver.d->pieces(root);
    } catch (const QKArchiveException &e) {
        if (errorString)
            *errorString = e.reason();
        return false;
    }
    return QKAtomicFile::write(path, pieces, errorString);
}

void QKKeyedArchiver::encodeObject(const QVariant &object, const QString &key)
{
    const quint64 uid = d->encode(object);
    d->set(key, QKPlistNode::uid(uid));
}

void QKKeyedArchiver::encodeASCIIString(const QByteArray &ascii, const QString &key)
{
    if (ascii.isNull()) {
        d->set(key, QKPlistNode::uid(0));
        return;
    }
    d->set(key, QKPlistNode::uid(d->append(QKPlistNode::ascii(ascii))));
}

void QKKeyedArchiveAccess::encodeText(QKKeyedArchiver &coder, const QKArchiveSlice &text, const QString &key)
{
    if (!text.bytes) {
        coder.encodeASCIIString(QByteArray(), key);
        return;
    }
    coder.d->slices.append(text.bytes);
    coder.encodeASCIIString(QByteArray::fromRawData(text.text.data(), text.text.size()), key);
}

void QKKeyedArchiver::encodeBool(bool value, const QString &key)
{
    d->set(key, QKPlistNode::boolean(value));
}

void QKKeyedArchiver::encodeInt64(qint64 value, const QString &key)
{
    d->set(key, QKPlistNode::integer(value));
}

void QKKeyedArchiver::encodeDouble(double value, const QString &key)
{
    d->set(key, QKPlistNode::real(value));
}
