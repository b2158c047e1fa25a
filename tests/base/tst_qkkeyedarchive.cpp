// Keyed archives: the value model (what round-trips, what is shared, what is refused),
// items in them (the record's own rules, the platform's object layout in both
// directions), and the reader's refusal of malformed files.

#include "base/QKArchiveException.h"
#include "base/QKAtomicFile.h"
#include "base/QKBase64.h"
#include "base/QKKeyedArchive_p.h"
#include "base/QKKeyedArchiver.h"
#include "base/QKKeyedUnarchiver.h"
#include "data/QKFeedbackComment.h"
#include "data/QKFeedbackItem.h"
#include "support/PlistBuilder.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <thread>
#include <vector>

using namespace PlistBuilder;

namespace {

// A coded class of the test's own: a name and child nodes.
class Node : public QKCoding
{
public:
    QString name;
    QList<QSharedPointer<Node>> children;
    // What decoding read back of the primitive fields.
    double weight = 0;
    qint64 count = 0;
    bool flag = false;
    bool hasAbsent = true;
    QString reserved; // read from a key that the archive's own keys could clash with

    QStringList archiveClassChain() const override { return {"TestNode", "NSObject"}; }
    void encodeWithCoder(QKKeyedArchiver &coder) const override
    {
        coder.encodeObject(name, "name");
        coder.encodeObject(name, "$class");
        QVariantList list;
        for (const auto &child : children)
            list.append(QVariant::fromValue(child.staticCast<QKCoding>()));
        coder.encodeObject(list, "children");
        coder.encodeDouble(2.5, "weight");
        coder.encodeInt64(-7, "count");
        coder.encodeBool(true, "flag");
    }
};

QVariant valueRoundTrip(const QVariant &value)
{
    return QKKeyedUnarchiver::unarchivedObject(QKKeyedArchiver::archivedData(value));
}

// The number of entries in "$objects" of an archive.
uint32_t objectCount(const QByteArray &archive)
{
    plist_t root = nullptr;
    plist_from_bin(archive.constData(), uint32_t(archive.size()), &root);
    const uint32_t count = plist_array_get_size(plist_dict_get_item(root, "$objects"));
    plist_free(root);
    return count;
}

QVariant coded(const QSharedPointer<QKCoding> &object)
{
    return QVariant::fromValue(object);
}

QVariant itemList(const QKFeedbackItemList &items)
{
    QVariantList list;
    for (const auto &item : items)
        list.append(coded(item));
    return list;
}

// The object an archive's root holds, as a T.
template <class T = QKFeedbackItem>
QSharedPointer<T> objectIn(const QVariant &root)
{
    return root.value<QKCodingPtr>().template dynamicCast<T>();
}

QKFeedbackItemList itemsFrom(const QVariant &root)
{
    QKFeedbackItemList items;
    for (const QVariant &value : root.toList())
        items.append(objectIn(value));
    return items;
}

template <class T>
QSharedPointer<T> roundTrip(const QSharedPointer<T> &object)
{
    return objectIn<T>(valueRoundTrip(coded(object)));
}

QImage sampleImage(int width, int height)
{
    QImage image(width, height, QImage::Format_ARGB32);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setPixel(x, y, qRgba(x * 7, y * 5, (x ^ y) & 0xFF, 200 + (x % 50)));
    return image;
}

QDateTime at(qint64 msecs)
{
    return QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC);
}

double nsTime(const QDateTime &date)
{
    // Seconds since 2001-01-01, the nearest double to the exact value.
    return double(date.toMSecsSinceEpoch() - 978307200000) / 1000.0;
}

plist_t nsDate(const QDateTime &date, quint64 classUid)
{
    return dict({{"NS.time", plist_new_real(nsTime(date))}, {"$class", uid(classUid)}});
}

plist_t itemDict(std::initializer_list<quint64> fields, quint64 classUid)
{
    static const char *const keys[] = {"key",    "createdAt", "modifiedAt", "text",
                                       "author", "state",     "image",      "subItems"};
    plist_t d = plist_new_dict();
    int i = 0;
    for (quint64 field : fields)
        plist_dict_set_item(d, keys[i++], uid(field));
    plist_dict_set_item(d, "$class", uid(classUid));
    return d;
}

const QDateTime d1 = at(1700000000123);
const QDateTime d2 = at(1700000500456);
const QDateTime d3 = at(1700001000789);
const QDateTime d4 = at(1600000000000);

// The object graph the platform's archiver lays out for two items: the first with an
// image, both dates, no author and one comment; the second resolved, with no image.
plist_t platformGraph(const QString &imageText)
{
    plist_t objects = array({
        str("$null"),
        dict({{"NS.objects", uids({2, 19})}, {"$class", uid(17)}}), // 1 root
        itemDict({3, 4, 6, 7, 0, 8, 9, 10}, 18),                    // 2 first item
        str("A1"),
        nsDate(d1, 5),
        classRecord({"NSDate", "NSObject"}), // 5
        nsDate(d2, 5),
        str("First"),
        str("Open"),
        str(imageText.toUtf8().constData()),
        dict({{"NS.objects", uids({11})}, {"$class", uid(17)}}), // 10 its comments
        itemDict({12, 13, 0, 14, 15, 0, 0, 16}, 18),             // 11 the comment
        str("C1"),
        nsDate(d3, 5),
        str("A comment ✓"), // UTF-16 in the file
        str("Ada"),
        dict({{"NS.objects", uids({})}, {"$class", uid(17)}}), // 16
        classRecord({"NSMutableArray", "NSArray", "NSObject"}),
        classRecord({"QKFeedbackItem", "NSObject"}),
        itemDict({20, 21, 0, 22, 0, 23, 0, 24}, 18), // 19 second item
        str("A2"),
        nsDate(d4, 5),
        str("Second"),
        str("Resolved"),
        dict({{"NS.objects", uids({})}, {"$class", uid(17)}}),
    });
    return keyedArchive(objects);
}

QKFeedbackItemList platformItems(const QImage &image)
{
    auto first = QKFeedbackItem::create();
    first->setKey("A1");
    first->setCreatedAt(d1);
    first->setModifiedAt(d2);
    first->setText("First");
    first->setState("Open");
    first->setImage(image);
    auto comment = QKFeedbackItem::create();
    comment->setKey("C1");
    comment->setCreatedAt(d3);
    comment->setText("A comment ✓");
    comment->setAuthor("Ada");
    first->addSubItem(comment);
    auto second = QKFeedbackItem::create();
    second->setKey("A2");
    second->setCreatedAt(d4);
    second->setText("Second");
    second->setState("Resolved");
    return {first, second};
}

// Every field of the items and their sub-items, nil marked, images by size.
QString dump(const QKFeedbackItemList &items)
{
    QString out;
    const auto text = [](const QString &v) { return v.isNull() ? QStringLiteral("nil") : u'"' + v + u'"'; };
    for (const auto &item : items)
        out += QStringLiteral("{%1 %2 %3 %4 %5 %6 %7x%8 %9}")
                   .arg(text(item->key()), item->createdAt().toString(Qt::ISODateWithMs),
                        item->modifiedAt().toString(Qt::ISODateWithMs), text(item->text()), text(item->author()),
                        text(item->state()))
                   .arg(item->image().width())
                   .arg(item->image().height())
                   .arg(item->subItems() ? dump(*item->subItems()) : "nil");
    return out;
}

QString plistutil()
{
    return QStandardPaths::findExecutable("plistutil");
}

} // namespace

class TestKeyedArchive : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QKKeyedUnarchiver::registerClass("TestNode", [](QKKeyedUnarchiver &coder) -> QKCodingPtr {
            auto node = QSharedPointer<Node>::create();
            node->name = coder.decodeString("name");
            if (auto children = coder.decodeArrayOfObjectsOfClass<Node>(QStringLiteral("children")))
                node->children = *children;
            node->weight = coder.decodeDouble("weight");
            node->count = coder.decodeInt64("count");
            node->flag = coder.decodeBool("flag");
            node->hasAbsent = coder.containsValueForKey("absent");
            node->reserved = coder.decodeString("$class");
            return node;
        });
    }

    void valuesRoundTrip_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::newRow("nil") << QVariant();
        QTest::newRow("string") << QVariant("Grüße, 世界 🙂");
        QTest::newRow("empty string") << QVariant("");
        QTest::newRow("integer") << QVariant(qint64(-1234567890123));
        QTest::newRow("real") << QVariant(0.1);
        QTest::newRow("bool") << QVariant(false);
        QTest::newRow("data") << QVariant(QByteArray("\0\1\2\xff", 4));
        QTest::newRow("date") << QVariant(QDateTime::fromMSecsSinceEpoch(-86400001, Qt::UTC));
        QTest::newRow("list") << QVariant(QVariantList{1, "a", QVariantList{}, QVariant()});
        QTest::newRow("dictionary") << QVariant(QVariantMap{{"Name", "Ada"}, {"n", QVariantMap{{"x", 1.5}}}});
    }

    void valuesRoundTrip()
    {
        QFETCH(QVariant, value);
        const QVariant back = valueRoundTrip(value);
        QCOMPARE(back.isValid(), value.isValid());
        if (value.metaType().id() == QMetaType::QVariantList || value.metaType().id() == QMetaType::QVariantMap)
            QCOMPARE(back, value);
        else if (value.isValid())
            QCOMPARE(back.toString(), value.toString());
        if (value.metaType().id() == QMetaType::QString)
            QVERIFY(!back.toString().isNull());
        if (value.metaType().id() == QMetaType::QDateTime)
            QCOMPARE(back.toDateTime(), value.toDateTime());
    }

    void sharingFollowsTheObjects()
    {
        auto leaf = QSharedPointer<Node>::create();
        leaf->name = "leaf";
        auto root = QSharedPointer<Node>::create();
        root->name = "leaf"; // equal strings are stored once
        root->children = {leaf, leaf};
        const QByteArray archive = QKKeyedArchiver::archivedData(coded(root));
        // $null, root, "leaf", children array, leaf, its empty array, two class records.
        QCOMPARE(objectCount(archive), 8u);
        const auto back = objectIn<Node>(QKKeyedUnarchiver::unarchivedObject(archive));
        QVERIFY(back);
        QCOMPARE(back->children.size(), 2);
        QCOMPARE(back->children[0], back->children[1]); // one object, read once
        QCOMPARE(back->children[0]->name, "leaf");
        QCOMPARE(back->reserved, "leaf");
        QCOMPARE(back->weight, 2.5);
        QCOMPARE(back->count, -7);
        QVERIFY(back->flag);
        QVERIFY(!back->hasAbsent);
    }

    void refusesWhatItCannotWrite()
    {
        auto node = QSharedPointer<Node>::create();
        node->children = {node};
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedArchiver::archivedData(coded(node)));
        node->children.clear(); // break the cycle so the node can go

        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedArchiver::archivedData(QVariant(QPointF(1, 2))));
        QVariant deep = QVariantList{};
        for (int i = 0; i < 300; ++i)
            deep = QVariantList{deep};
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedArchiver::archivedData(deep));
        // Dates the reader would refuse as out of range.
        for (const QDateTime &date : {QDateTime(QDate(9999999, 1, 1), QTime(0, 0), Qt::UTC),
                                      QDateTime::fromMSecsSinceEpoch(std::numeric_limits<qint64>::min(), Qt::UTC)})
            QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedArchiver::archivedData(date));
        QString error;
        QVERIFY(!QKKeyedArchiver::archiveRootObject(QVariant(QPointF()), "/tmp/never-written", &error));
        QVERIFY(error.contains("QPointF"));
        QVERIFY(!QFile::exists("/tmp/never-written"));
    }

    void sizeLimitHoldsBothWays()
    {
        const auto restore = qScopeGuard([] { QKKeyedArchiveUseMaxSize(0); });
        QTemporaryDir dir;
        const QString path = dir.filePath("a.plist");
        const QVariant value = QVariantList{QString(300, QLatin1Char('x'))};
        const QByteArray data = QKKeyedArchiver::archivedData(value);
        QVERIFY(QKKeyedArchiver::archiveRootObject("old", path));
        QKKeyedArchiveUseMaxSize(data.size() - 1);
        QString error;
        QVERIFY(!QKKeyedArchiver::archiveRootObject(value, path, &error));
        QVERIFY2(error.contains("more than an archive may hold"), qPrintable(error));
        QCOMPARE(QKKeyedUnarchiver::unarchiveObjectWithFile(path), QVariant("old"));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{"a.plist"});
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedUnarchiver::unarchivedObject(data));

        QKKeyedArchiveUseMaxSize(data.size());
        QVERIFY(QKKeyedArchiver::archiveRootObject(value, path));
        QCOMPARE(QKKeyedUnarchiver::unarchiveObjectWithFile(path), value);
        QKKeyedArchiveUseMaxSize(data.size() - 1);
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedUnarchiver::unarchiveObjectWithFile(path));
    }
    void subItemList()
    {
        auto item = QKFeedbackItem::create();
        QVERIFY(item->subItems().has_value());
        QCOMPARE(item->subItems()->size(), 0);
        auto a = QKFeedbackItem::create(), b = QKFeedbackItem::create(), c = QKFeedbackItem::create();
        item->addSubItem(a);
        item->addSubItem(b);
        QCOMPARE(*item->subItems(), (QKFeedbackItemList{a, b}));
        item->insertSubItem(c, 0);
        QCOMPARE(*item->subItems(), (QKFeedbackItemList{c, a, b}));
        item->insertSubItem(c, 3); // at the count: appends
        QCOMPARE(item->subItems()->last(), c);
        QVERIFY_THROWS_EXCEPTION(std::out_of_range, item->insertSubItem(a, 5));
        QCOMPARE(item->subItems()->size(), 4);
        // The list is handed out itself.
        item->subItems()->removeFirst();
        QCOMPARE(item->subItems()->size(), 3);
    }

    void recordRoundTrip()
    {
        auto item = QKFeedbackItem::create();
        item->setKey("k");
        item->setCreatedAt(d1);
        item->setText("Zwölf Boxkämpfer ✓");
        item->setState("");
        item->setParams({{"ImageUri", "https://x/y"}, {"CommentsCount", 3}});
        auto comment = QKFeedbackItem::create();
        comment->setText("c");
        item->addSubItem(comment);

        const auto back = roundTrip(item);
        QCOMPARE(back->key(), item->key());
        QCOMPARE(back->createdAt(), d1);
        QVERIFY(!back->modifiedAt().isValid());
        QCOMPARE(back->text(), item->text());
        QVERIFY(back->author().isNull());
        QVERIFY(!back->state().isNull() && back->state().isEmpty()); // empty stays empty, not nil
        QVERIFY(back->image().isNull());
        QVERIFY(back->params().isEmpty());
        QCOMPARE(back->subItems()->size(), 1);
        QCOMPARE(back->subItems()->first()->text(), "c");
        QCOMPARE(back->subItems()->first()->subItems()->size(), 0);

        auto note = QKFeedbackCommentPtr::create();
        note->setKey("c9");
        note->setCreatedAt(d2);
        note->setText("hi");
        const auto noteBack = roundTrip(note);
        QVERIFY(noteBack);
        QCOMPARE(noteBack->key(), note->key());
        QCOMPARE(noteBack->createdAt(), d2);
        QCOMPARE(noteBack->text(), note->text());
    }

    void archivedImagesDecodeOnceOnAnyThread()
    {
        const QImage image = sampleImage(301, 207);
        auto item = QKFeedbackItem::create();
        item->setImage(image);
        const QByteArray archive = QKKeyedArchiver::archivedData(coded(item));
        const auto back = objectIn(QKKeyedUnarchiver::unarchivedObject(archive));
        // Written back as it was read, without a decode and encode in between.
        QCOMPARE(back->imageBase64(), item->imageBase64());
        QCOMPARE(QKKeyedArchiver::archivedData(coded(back)), archive);
        // The archive's layout (platformLayout) holds this text, broken by CR LF.
        QVERIFY(QKFeedbackItem::encodeToBase64String(image).contains("\r\n"));
        QVERIFY(QKFeedbackItem::encodeToBase64String(QImage()).isNull());
        QVERIFY(QKFeedbackItem::decodeBase64ToImage(QString()).isNull());
        QVERIFY(QKFeedbackItem::decodeBase64ToImage(QStringLiteral("bm90IGFuIGltYWdl")).isNull());

        // std::thread, whose joins ThreadSanitizer sees (Qt's are not instrumented).
        std::vector<QImage> seen(8);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < seen.size(); ++i)
            threads.emplace_back([&, i] { seen[i] = back->image(); });
        for (std::thread &thread : threads)
            thread.join();
        for (const QImage &each : seen) {
            QCOMPARE(each.convertToFormat(QImage::Format_ARGB32), image);
            QCOMPARE(each.cacheKey(), seen[0].cacheKey()); // one decode, shared
        }
        // The PNG kept from the first archive is dropped with a new image.
        back->setImage(sampleImage(5, 9));
        QCOMPARE(roundTrip(back)->image().size(), QSize(5, 9));
    }

    void imagesReadFromAFileOutliveIt()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("items.plist");
        const QImage image = sampleImage(64, 48);
        auto item = QKFeedbackItem::create();
        item->setImage(image);
        const QByteArray archive = QKKeyedArchiver::archivedData(itemList({item}));
        QVERIFY(QKKeyedArchiver::archiveRootObject(itemList({item}), path));
        QKFeedbackItemList back = itemsFrom(QKKeyedUnarchiver::unarchiveObjectWithFile(path));
        QCOMPARE(back.size(), 1);
        // Saved over the file it was read from (the text written from the old file), then gone.
        QVERIFY(QKKeyedArchiver::archiveRootObject(itemList(back), path));
        QFile saved(path);
        QVERIFY(saved.open(QIODevice::ReadOnly));
        QCOMPARE(saved.readAll(), archive);
        QVERIFY(saved.remove());
        QCOMPARE(back.first()->image().convertToFormat(QImage::Format_ARGB32), image);
        const QByteArray base64 = back.first()->imageBase64();
        back.clear(); // the last holder of the old file
        QCOMPARE(base64, item->imageBase64());
    }

    void damagedImageTextIsWrittenBackAsASCII_data()
    {
        QTest::addColumn<bool>("fromFile");
        QTest::newRow("in memory") << false;
        QTest::newRow("from a file") << true;
    }

    void damagedImageTextIsWrittenBackAsASCII()
    {
        QFETCH(bool, fromFile);
        QImage image(160, 160, QImage::Format_ARGB32); // noise, so that its text is long
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(image.bits()), image.sizeInBytes() / 4);
        auto item = QKFeedbackItem::create();
        item->setImage(image);
        QByteArray archive = QKKeyedArchiver::archivedData(coded(item));
        // A line break's CR turned into a byte of another alphabet, same length; late
        // in the text, past what a file is read in at once.
        const qsizetype at = archive.lastIndexOf("\r\n");
        QVERIFY(at > 100000);
        archive[at] = char(0xE9);
        QTemporaryDir dir;
        const QString path = dir.filePath("items.plist");
        QVERIFY(QKAtomicFile::write(path, archive));
        const auto back = objectIn(fromFile ? QKKeyedUnarchiver::unarchiveObjectWithFile(path)
                                            : QKKeyedUnarchiver::unarchivedObject(archive));
        QVERIFY(back);
        // Written back (before anything else looked at it) one byte shorter.
        QCOMPARE(QKKeyedArchiver::archivedData(coded(back)).size(), archive.size() - 1);
        QVERIFY(QKBase64::isASCII(back->imageBase64()));
        QCOMPARE(back->image().convertToFormat(QImage::Format_ARGB32), image);
        QCOMPARE(roundTrip(back)->image().convertToFormat(QImage::Format_ARGB32), image);
    }

    void absentSubItemsStayNil()
    {
        // An item archived by an older writer, without "subItems".
        plist_t objects = array({str("$null"), dict({{"text", uid(2)}, {"$class", uid(3)}}), str("old"),
                                 classRecord({"QKFeedbackItem", "NSObject"})});
        const auto item = objectIn(QKKeyedUnarchiver::unarchivedObject(toBinary(keyedArchive(objects))));
        QCOMPARE(item->text(), "old");
        QVERIFY(!item->subItems().has_value());
        item->addSubItem(QKFeedbackItem::create());
        item->insertSubItem(QKFeedbackItem::create(), 0);
        QVERIFY(!item->subItems().has_value());
        // And nil sub-items are archived as nil.
        QVERIFY(!roundTrip(item)->subItems().has_value());
        // A nil sub-item would make a file that the reader refuses.
        item->subItems() = QKFeedbackItemList{QKFeedbackItemPtr()};
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedArchiver::archivedData(coded(item)));
    }

    // Object for object, key for key, the graph the platform writes; read back to the
    // same items; and a file another reader of property lists accepts.
    void platformLayout()
    {
        const QImage image = sampleImage(20, 10);
        const QKFeedbackItemList items = platformItems(image);
        const QByteArray ours = QKKeyedArchiver::archivedData(itemList(items));
        plist_t parsed = nullptr;
        plist_from_bin(ours.constData(), uint32_t(ours.size()), &parsed);
        QVERIFY(parsed);
        const QString imageText = QKFeedbackItem::encodeToBase64String(image);
        QCOMPARE(toXml(parsed), toXml(platformGraph(imageText)));
        const QKFeedbackItemList read =
            itemsFrom(QKKeyedUnarchiver::unarchivedObject(toBinary(platformGraph(imageText))));
        QCOMPARE(dump(read), dump(items));
        QCOMPARE(read[0]->image().convertToFormat(QImage::Format_ARGB32), image);

        if (plistutil().isEmpty())
            QSKIP("plistutil is not installed");
        QTemporaryDir dir;
        const QString path = dir.filePath("items.plist");
        QVERIFY(QKKeyedArchiver::archiveRootObject(itemList(items), path));
        QProcess tool;
        tool.start(plistutil(), {"-i", path, "-f", "xml"});
        QVERIFY(tool.waitForFinished(30000));
        QCOMPARE(tool.exitCode(), 0);
        QVERIFY(tool.readAllStandardOutput().contains("<string>QKFeedbackItem</string>"));
    }

    void rejectsMalformedArchives_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("message");

        const auto row = [](const char *name, const QByteArray &data, const char *message) {
            QTest::newRow(name) << data << QString::fromUtf8(message);
        };
        const QByteArray valid = QKKeyedArchiver::archivedData(itemList(platformItems(QImage())));
        const auto patched = [&](qsizetype fromEnd, char byte) {
            QByteArray data = valid;
            data[data.size() - fromEnd] = byte;
            return data;
        };
        row("empty", QByteArray(), "too few");
        row("text", "this is not a property list, not at all, no.", "header");
        row("truncated", valid.left(valid.size() / 2), "malformed");
        row("bad trailer", patched(26, 0), "bad trailer"); // the offset size
        row("table past end", patched(2, 0x7F), "offset table");
        row("absurd object count", patched(21, 0x40), "do not fit"); // 2^38 objects
        row("top out of range", patched(9, char(0xFF)), "top object");
        row("reference out of range", rawBinary({arrayOf({1, 7}), ascii("x")}), "out of range");
        row("cycle", rawBinary({arrayOf({1}), arrayOf({0})}), "cycle");
        QList<QByteArray> nested;
        for (int i = 0; i < 60; ++i)
            nested.append(arrayOf({i + 1}));
        row("deep nesting", rawBinary(nested + QList<QByteArray>{ascii("leaf")}), "nesting deeper");
        row("key not a string", rawBinary({QByteArray("\xD1\x01\x02", 3), QByteArray("\x10\x07", 2), ascii("x")}),
            "key that is not a string");
        row("absurd count", rawBinary({QByteArray("\xAF\x12\x7F\xFF\xFF\xFF", 6)}), "claims");

        // A keyed archive of `objects`, root at UID `root`, with one entry of its top dictionary
        // replaced (or removed, for no value).
        const auto keyed = [](plist_t objects, quint64 root = 1, const char *key = nullptr, plist_t value = nullptr) {
            plist_t top = keyedArchive(objects, root);
            if (key && value)
                plist_dict_set_item(top, key, value);
            else if (key)
                plist_dict_remove_item(top, key);
            return toBinary(top);
        };
        const auto item = [] { return classRecord({"QKFeedbackItem", "NSObject"}); };
        const auto arrayClass = [] { return classRecord({"NSMutableArray", "NSArray", "NSObject"}); };
        row("not a dictionary", toBinary(array({str("x")})), "top level");
        row("wrong $archiver", keyed(array({str("$null"), str("x")}), 1, "$archiver", str("NSArchiver")), "$archiver");
        row("wrong $version", keyed(array({str("$null"), str("x")}), 1, "$version", plist_new_uint(99)), "$version");
        row("no $top", keyed(array({str("$null"), str("x")}), 1, "$top"), "$top");
        row("root not a reference",
            keyed(array({str("$null"), str("x")}), 1, "$top", dict({{"root", plist_new_uint(1)}})), "root reference");
        row("no $null", keyed(array({str("x"), str("y")})), "$null");
        row("uid out of range", keyed(array({str("$null")}), 99), "out of range");
        row("object cycle",
            keyed(array({str("$null"), dict({{"NS.objects", uids({1})}, {"$class", uid(2)}}), arrayClass()})),
            "reference cycle");
        plist_t chain = array({str("$null"), classRecord({"NSArray", "NSObject"})});
        for (quint64 i = 2; i < 302; ++i)
            plist_array_append_item(chain, dict({{"NS.objects", uids({i + 1})}, {"$class", uid(1)}}));
        plist_array_append_item(chain, str("leaf"));
        row("objects nested too deep", keyed(chain, 2), "deeper than 256");
        row("unknown class",
            keyed(array({str("$null"), dict({{"$class", uid(2)}}), classRecord({"NSWindow", "NSObject"})})),
            "unknown class NSWindow");
        row("no $class", keyed(array({str("$null"), dict({{"text", uid(0)}})})), "has no $class");
        row("text is a number",
            keyed(array({str("$null"), dict({{"text", uid(2)}, {"$class", uid(3)}}), plist_new_uint(7), item()})),
            "key \"text\"");
        row("text inline", keyed(array({str("$null"), dict({{"text", str("inline")}, {"$class", uid(2)}}), item()})),
            "not an object reference");
        row("sub-item is a string",
            keyed(array({str("$null"), dict({{"subItems", uid(2)}, {"$class", uid(5)}}),
                         dict({{"NS.objects", uids({3})}, {"$class", uid(4)}}), str("x"), arrayClass(), item()})),
            "key \"subItems\"");
        row("date without time",
            keyed(array({str("$null"), dict({{"$class", uid(2)}}), classRecord({"NSDate", "NSObject"})})), "NS.time");
        row("dictionary halves differ",
            keyed(array({str("$null"), dict({{"NS.keys", uids({3, 3})}, {"NS.objects", uids({3})}, {"$class", uid(2)}}),
                         classRecord({"NSDictionary", "NSObject"}), str("k")})),
            "2 keys and 1 values");
        row("class record missing name",
            keyed(array({str("$null"), dict({{"$class", uid(2)}}), dict({{"$classes", array({})}})})), "$classname");
    }

    void rejectsMalformedArchives()
    {
        QFETCH(QByteArray, data);
        QFETCH(QString, message);
        try {
            QKKeyedUnarchiver::unarchivedObject(data);
            QFAIL("a malformed archive was accepted");
        } catch (const QKArchiveException &e) {
            QVERIFY2(e.reason().contains(message), qPrintable(e.reason()));
        }
    }

    void fileErrors()
    {
        QTemporaryDir dir;
        QVERIFY(!QKKeyedUnarchiver::unarchiveObjectWithFile(dir.filePath("none")).isValid());
        QFile empty(dir.filePath("empty"));
        QVERIFY(empty.open(QIODevice::WriteOnly));
        empty.close();
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedUnarchiver::unarchiveObjectWithFile(empty.fileName()));
        // A directory where the file should be cannot be read.
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedUnarchiver::unarchiveObjectWithFile(dir.path()));
    }
};

QTEST_MAIN(TestKeyedArchive)
#include "tst_qkkeyedarchive.moc"
