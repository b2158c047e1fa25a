// Items in keyed archives: the record's own rules, the platform's object layout in
// both directions, and the reader's refusal of malformed files.

#include "base/QKArchiveException.h"
#include "base/QKAtomicFile.h"
#include "base/QKBase64.h"
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

QKFeedbackItemList itemsFrom(const QVariant &root)
{
    QKFeedbackItemList items;
    for (const QVariant &value : root.toList())
        items.append(value.value<QKCodingPtr>().dynamicCast<QKFeedbackItem>());
    return items;
}

QKFeedbackItemPtr roundTrip(const QKFeedbackItemPtr &item)
{
    return QKKeyedUnarchiver::unarchivedObject(QKKeyedArchiver::archivedData(coded(item)))
        .value<QKCodingPtr>()
        .dynamicCast<QKFeedbackItem>();
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
    first->setKey(QStringLiteral("A1"));
    first->setCreatedAt(d1);
    first->setModifiedAt(d2);
    first->setText(QStringLiteral("First"));
    first->setState(QStringLiteral("Open"));
    first->setImage(image);
    auto comment = QKFeedbackItem::create();
    comment->setKey(QStringLiteral("C1"));
    comment->setCreatedAt(d3);
    comment->setText(QStringLiteral("A comment ✓"));
    comment->setAuthor(QStringLiteral("Ada"));
    first->addSubItem(comment);
    auto second = QKFeedbackItem::create();
    second->setKey(QStringLiteral("A2"));
    second->setCreatedAt(d4);
    second->setText(QStringLiteral("Second"));
    second->setState(QStringLiteral("Resolved"));
    return {first, second};
}

QString plistutil()
{
    return QStandardPaths::findExecutable(QStringLiteral("plistutil"));
}

} // namespace

class TestItemArchive : public QObject
{
    Q_OBJECT

private slots:
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
        item->setKey(QStringLiteral("k"));
        item->setCreatedAt(d1);
        item->setText(QStringLiteral("Zwölf Boxkämpfer ✓"));
        item->setState(QStringLiteral(""));
        item->setParams(
            {{QStringLiteral("ImageUri"), QStringLiteral("https://x/y")}, {QStringLiteral("CommentsCount"), 3}});
        auto comment = QKFeedbackItem::create();
        comment->setText(QStringLiteral("c"));
        item->addSubItem(comment);

        const auto back = roundTrip(item);
        QCOMPARE(back->key(), item->key());
        QCOMPARE(back->createdAt(), d1);
        QVERIFY(!back->modifiedAt().isValid());
        QCOMPARE(back->text(), item->text());
        QVERIFY(back->author().isNull());
        QVERIFY(!back->state().isNull()); // empty stays empty, not nil
        QVERIFY(back->state().isEmpty());
        QVERIFY(back->image().isNull());
        QVERIFY(back->params().isEmpty());
        QCOMPARE(back->subItems()->size(), 1);
        QCOMPARE(back->subItems()->first()->text(), QStringLiteral("c"));
        QCOMPARE(back->subItems()->first()->subItems()->size(), 0);
    }

    void imageIsStoredAsBase64Png()
    {
        const QImage image = sampleImage(61, 33);
        auto item = QKFeedbackItem::create();
        item->setImage(image);
        const QVariant root = QKKeyedUnarchiver::unarchivedObject(QKKeyedArchiver::archivedData(coded(item)));
        const auto back = root.value<QKCodingPtr>().dynamicCast<QKFeedbackItem>();
        QCOMPARE(back->image().size(), image.size());
        QCOMPARE(back->image().convertToFormat(QImage::Format_ARGB32), image);
        // The PNG kept from the first archive is dropped with a new image.
        item->setImage(sampleImage(5, 9));
        QCOMPARE(roundTrip(item)->image().size(), QSize(5, 9));
        // The archive's layout (writesThePlatformLayout) holds this text, broken by CR LF.
        QVERIFY(QKFeedbackItem::encodeToBase64String(image).contains(QStringLiteral("\r\n")));
        QVERIFY(QKFeedbackItem::encodeToBase64String(QImage()).isNull());
        QVERIFY(QKFeedbackItem::decodeBase64ToImage(QString()).isNull());
        QVERIFY(QKFeedbackItem::decodeBase64ToImage(QStringLiteral("bm90IGFuIGltYWdl")).isNull());
    }

    void archivedImagesDecodeOnceOnAnyThread()
    {
        const QImage image = sampleImage(301, 207);
        auto item = QKFeedbackItem::create();
        item->setImage(image);
        const QByteArray archive = QKKeyedArchiver::archivedData(coded(item));
        const auto back =
            QKKeyedUnarchiver::unarchivedObject(archive).value<QKCodingPtr>().dynamicCast<QKFeedbackItem>();
        // Written back as it was read, without a decode and encode in between.
        QCOMPARE(back->imageBase64(), item->imageBase64());
        QCOMPARE(QKKeyedArchiver::archivedData(coded(back)), archive);

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
    }

    void imagesReadFromAFileOutliveIt()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("items.plist"));
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
        const QString path = dir.filePath(QStringLiteral("items.plist"));
        QVERIFY(QKAtomicFile::write(path, archive));
        const auto back =
            (fromFile ? QKKeyedUnarchiver::unarchiveObjectWithFile(path) : QKKeyedUnarchiver::unarchivedObject(archive))
                .value<QKCodingPtr>()
                .dynamicCast<QKFeedbackItem>();
        QVERIFY(back);
        // Written back (before anything else looked at it) one byte shorter.
        QCOMPARE(QKKeyedArchiver::archivedData(coded(back)).size(), archive.size() - 1);
        QVERIFY(QKBase64::isASCII(back->imageBase64()));
        QCOMPARE(back->image().convertToFormat(QImage::Format_ARGB32), image);
        const auto again = QKKeyedUnarchiver::unarchivedObject(QKKeyedArchiver::archivedData(coded(back)))
                               .value<QKCodingPtr>()
                               .dynamicCast<QKFeedbackItem>();
        QCOMPARE(again->image().convertToFormat(QImage::Format_ARGB32), image);
    }

    void absentSubItemsStayNil()
    {
        // An item archived by an older writer, without "subItems".
        plist_t objects = array({str("$null"), dict({{"text", uid(2)}, {"$class", uid(3)}}), str("old"),
                                 classRecord({"QKFeedbackItem", "NSObject"})});
        const auto item = QKKeyedUnarchiver::unarchivedObject(toBinary(keyedArchive(objects)))
                              .value<QKCodingPtr>()
                              .dynamicCast<QKFeedbackItem>();
        QCOMPARE(item->text(), QStringLiteral("old"));
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

    void commentRoundTrip()
    {
        auto comment = QKFeedbackCommentPtr::create();
        comment->setKey(QStringLiteral("c9"));
        comment->setCreatedAt(d2);
        comment->setText(QStringLiteral("hi"));
        const auto back = QKKeyedUnarchiver::unarchivedObject(QKKeyedArchiver::archivedData(coded(comment)))
                              .value<QKCodingPtr>()
                              .dynamicCast<QKFeedbackComment>();
        QVERIFY(back);
        QCOMPARE(back->key(), comment->key());
        QCOMPARE(back->createdAt(), d2);
        QCOMPARE(back->text(), comment->text());
    }

    void readsThePlatformLayout()
    {
        const QImage image = sampleImage(20, 10);
        const QString imageText = QKFeedbackItem::encodeToBase64String(image);
        const QKFeedbackItemList items =
            itemsFrom(QKKeyedUnarchiver::unarchivedObject(toBinary(platformGraph(imageText))));
        QCOMPARE(items.size(), 2);
        const auto &first = items[0];
        QCOMPARE(first->key(), QStringLiteral("A1"));
        QCOMPARE(first->createdAt(), d1);
        QCOMPARE(first->modifiedAt(), d2);
        QCOMPARE(first->text(), QStringLiteral("First"));
        QVERIFY(first->author().isNull());
        QCOMPARE(first->state(), QStringLiteral("Open"));
        QCOMPARE(first->image().convertToFormat(QImage::Format_ARGB32), image);
        QCOMPARE(first->subItems()->size(), 1);
        const auto &comment = first->subItems()->first();
        QCOMPARE(comment->key(), QStringLiteral("C1"));
        QCOMPARE(comment->createdAt(), d3);
        QCOMPARE(comment->author(), QStringLiteral("Ada"));
        QCOMPARE(comment->text(), QStringLiteral("A comment ✓"));
        QVERIFY(comment->state().isNull());
        QVERIFY(comment->image().isNull());
        QCOMPARE(comment->subItems()->size(), 0);
        QCOMPARE(items[1]->state(), QStringLiteral("Resolved"));
        QCOMPARE(items[1]->createdAt(), d4);
        QVERIFY(items[1]->image().isNull());
    }

    void writesThePlatformLayout()
    {
        const QImage image = sampleImage(20, 10);
        const QByteArray ours = QKKeyedArchiver::archivedData(itemList(platformItems(image)));
        plist_t parsed = nullptr;
        plist_from_bin(ours.constData(), uint32_t(ours.size()), &parsed);
        QVERIFY(parsed);
        // Object for object, key for key, the same graph the platform writes.
        QCOMPARE(toXml(parsed), toXml(platformGraph(QKFeedbackItem::encodeToBase64String(image))));
    }

    void plistutilAcceptsOurArchive()
    {
        if (plistutil().isEmpty())
            QSKIP("plistutil is not installed");
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("items.plist"));
        QVERIFY(QKKeyedArchiver::archiveRootObject(itemList(platformItems(sampleImage(4, 4))), path));
        QProcess tool;
        tool.start(plistutil(), {QStringLiteral("-i"), path, QStringLiteral("-f"), QStringLiteral("xml")});
        QVERIFY(tool.waitForFinished(30000));
        QCOMPARE(tool.exitCode(), 0);
        const QString xml = QString::fromUtf8(tool.readAllStandardOutput());
        QVERIFY(xml.contains(QStringLiteral("<string>NSKeyedArchiver</string>")));
        QVERIFY(xml.contains(QStringLiteral("<string>QKFeedbackItem</string>")));
    }

    void rejectsMalformedArchives_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("message");

        const QByteArray valid = QKKeyedArchiver::archivedData(itemList(platformItems(QImage())));
        QTest::newRow("empty") << QByteArray() << "too few";
        QTest::newRow("text") << QByteArray("this is not a property list, not at all, no.") << "header";
        QTest::newRow("truncated") << valid.left(valid.size() / 2) << "malformed";
        QByteArray badSize = valid;
        badSize[badSize.size() - 26] = 0; // offset size
        QTest::newRow("bad trailer") << badSize << "bad trailer";
        QByteArray tablePast = valid;
        tablePast[tablePast.size() - 2] = char(0x7F);
        QTest::newRow("table past end") << tablePast << "offset table";
        QByteArray manyObjects = valid;
        manyObjects[manyObjects.size() - 21] = char(0x40); // 2^38 objects
        QTest::newRow("absurd object count") << manyObjects << "do not fit";
        QByteArray badTop = valid;
        badTop[badTop.size() - 9] = char(0xFF);
        QTest::newRow("top out of range") << badTop << "top object";

        RawBinaryPlist badRef;
        badRef.add(RawBinaryPlist::arrayOf({1, 7}));
        badRef.add(RawBinaryPlist::ascii("x"));
        QTest::newRow("reference out of range") << badRef.build() << "out of range";
        RawBinaryPlist loop;
        loop.add(RawBinaryPlist::arrayOf({1}));
        loop.add(RawBinaryPlist::arrayOf({0}));
        QTest::newRow("cycle") << loop.build() << "cycle";
        RawBinaryPlist deep;
        for (int i = 0; i < 60; ++i)
            deep.add(RawBinaryPlist::arrayOf({i + 1}));
        deep.add(RawBinaryPlist::ascii("leaf"));
        QTest::newRow("deep nesting") << deep.build() << "nesting deeper";
        RawBinaryPlist numberKey;
        numberKey.add(QByteArray("\xD1\x01\x02", 3));
        numberKey.add(QByteArray("\x10\x07", 2));
        numberKey.add(RawBinaryPlist::ascii("x"));
        QTest::newRow("key not a string") << numberKey.build() << "key that is not a string";
        RawBinaryPlist bigCount;
        bigCount.add(QByteArray("\xAF\x12\x7F\xFF\xFF\xFF", 6));
        QTest::newRow("absurd count") << bigCount.build() << "claims";

        const auto archive = [](std::initializer_list<plist_t> objects) {
            plist_t list = plist_new_array();
            for (plist_t object : objects)
                plist_array_append_item(list, object);
            return list;
        };
        const auto item = [] { return classRecord({"QKFeedbackItem", "NSObject"}); };
        QTest::newRow("not a dictionary") << toBinary(array({str("x")})) << "top level";
        plist_t wrongArchiver = keyedArchive(archive({str("$null"), str("x")}));
        plist_dict_set_item(wrongArchiver, "$archiver", str("NSArchiver"));
        QTest::newRow("wrong $archiver") << toBinary(wrongArchiver) << "$archiver";
        plist_t wrongVersion = keyedArchive(archive({str("$null"), str("x")}));
        plist_dict_set_item(wrongVersion, "$version", plist_new_uint(99));
        QTest::newRow("wrong $version") << toBinary(wrongVersion) << "$version";
        plist_t noTop = keyedArchive(archive({str("$null"), str("x")}));
        plist_dict_remove_item(noTop, "$top");
        QTest::newRow("no $top") << toBinary(noTop) << "$top";
        plist_t rootNotUid = keyedArchive(archive({str("$null"), str("x")}));
        plist_dict_set_item(rootNotUid, "$top", dict({{"root", plist_new_uint(1)}}));
        QTest::newRow("root not a reference") << toBinary(rootNotUid) << "root reference";
        QTest::newRow("no $null") << toBinary(keyedArchive(archive({str("x"), str("y")}))) << "$null";
        QTest::newRow("uid out of range") << toBinary(keyedArchive(archive({str("$null")}), 99)) << "out of range";
        QTest::newRow("object cycle") << toBinary(keyedArchive(archive(
                                             {str("$null"), dict({{"NS.objects", uids({1})}, {"$class", uid(2)}}),
                                              classRecord({"NSMutableArray", "NSArray", "NSObject"})})))
                                      << "reference cycle";
        plist_t chain = plist_new_array();
        plist_array_append_item(chain, str("$null"));
        plist_array_append_item(chain, classRecord({"NSArray", "NSObject"}));
        for (quint64 i = 2; i < 302; ++i)
            plist_array_append_item(chain, dict({{"NS.objects", uids({i + 1})}, {"$class", uid(1)}}));
        plist_array_append_item(chain, str("leaf"));
        QTest::newRow("objects nested too deep") << toBinary(keyedArchive(chain, 2)) << "deeper than 256";
        QTest::newRow("unknown class") << toBinary(keyedArchive(archive({str("$null"), dict({{"$class", uid(2)}}),
                                                                         classRecord({"NSWindow", "NSObject"})})))
                                       << "unknown class NSWindow";
        QTest::newRow("no $class") << toBinary(keyedArchive(archive({str("$null"), dict({{"text", uid(0)}})})))
                                   << "has no $class";
        QTest::newRow("text is a number")
            << toBinary(keyedArchive(
                   archive({str("$null"), dict({{"text", uid(2)}, {"$class", uid(3)}}), plist_new_uint(7), item()})))
            << "key \"text\"";
        QTest::newRow("text inline") << toBinary(keyedArchive(
                                            archive({str("$null"), dict({{"text", str("inline")}, {"$class", uid(2)}}),
                                                     item()})))
                                     << "not an object reference";
        QTest::newRow("sub-item is a string")
            << toBinary(keyedArchive(archive({str("$null"), dict({{"subItems", uid(2)}, {"$class", uid(5)}}),
                                              dict({{"NS.objects", uids({3})}, {"$class", uid(4)}}), str("x"),
                                              classRecord({"NSMutableArray", "NSArray", "NSObject"}), item()})))
            << "key \"subItems\"";
        QTest::newRow("date without time")
            << toBinary(keyedArchive(
                   archive({str("$null"), dict({{"$class", uid(2)}}), classRecord({"NSDate", "NSObject"})})))
            << "NS.time";
        QTest::newRow("dictionary halves differ")
            << toBinary(keyedArchive(archive(
                   {str("$null"), dict({{"NS.keys", uids({3, 3})}, {"NS.objects", uids({3})}, {"$class", uid(2)}}),
                    classRecord({"NSDictionary", "NSObject"}), str("k")})))
            << "2 keys and 1 values";
        QTest::newRow("class record missing name")
            << toBinary(
                   keyedArchive(archive({str("$null"), dict({{"$class", uid(2)}}), dict({{"$classes", array({})}})})))
            << "$classname";
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
        QVERIFY(!QKKeyedUnarchiver::unarchiveObjectWithFile(dir.filePath(QStringLiteral("none"))).isValid());
        QFile empty(dir.filePath(QStringLiteral("empty")));
        QVERIFY(empty.open(QIODevice::WriteOnly));
        empty.close();
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedUnarchiver::unarchiveObjectWithFile(empty.fileName()));
        // A directory where the file should be cannot be read.
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedUnarchiver::unarchiveObjectWithFile(dir.path()));
    }
};

QTEST_MAIN(TestItemArchive)
#include "tst_qkitemarchive.moc"
