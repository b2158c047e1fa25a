// The keyed archive's value model: what round-trips, what is shared, what is refused.

#include "base/QKArchiveException.h"
#include "base/QKKeyedArchive_p.h"
#include "base/QKKeyedArchiver.h"
#include "base/QKKeyedUnarchiver.h"

#include <QtTest>

#include <plist/plist.h>

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

    QStringList archiveClassChain() const override { return {QStringLiteral("TestNode"), QStringLiteral("NSObject")}; }
    void encodeWithCoder(QKKeyedArchiver &coder) const override
    {
        coder.encodeObject(name, QStringLiteral("name"));
        coder.encodeObject(name, QStringLiteral("$class"));
        QVariantList list;
        for (const auto &child : children)
            list.append(QVariant::fromValue(child.staticCast<QKCoding>()));
        coder.encodeObject(list, QStringLiteral("children"));
        coder.encodeDouble(2.5, QStringLiteral("weight"));
        coder.encodeInt64(-7, QStringLiteral("count"));
        coder.encodeBool(true, QStringLiteral("flag"));
    }
};

QVariant coded(const QSharedPointer<Node> &node)
{
    return QVariant::fromValue(node.staticCast<QKCoding>());
}

QVariant roundTrip(const QVariant &value)
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

} // namespace

class TestKeyedArchive : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QKKeyedUnarchiver::registerClass(QStringLiteral("TestNode"), [](QKKeyedUnarchiver &coder) -> QKCodingPtr {
            auto node = QSharedPointer<Node>::create();
            node->name = coder.decodeString(QStringLiteral("name"));
            if (auto children = coder.decodeArrayOfObjectsOfClass<Node>(QStringLiteral("children")))
                node->children = *children;
            node->weight = coder.decodeDouble(QStringLiteral("weight"));
            node->count = coder.decodeInt64(QStringLiteral("count"));
            node->flag = coder.decodeBool(QStringLiteral("flag"));
            node->hasAbsent = coder.containsValueForKey(QStringLiteral("absent"));
            node->reserved = coder.decodeString(QStringLiteral("$class"));
            return node;
        });
    }

    void valuesRoundTrip_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::newRow("nil") << QVariant();
        QTest::newRow("string") << QVariant(QStringLiteral("Grüße, 世界 🙂"));
        QTest::newRow("empty string") << QVariant(QStringLiteral(""));
        QTest::newRow("integer") << QVariant(qint64(-1234567890123));
        QTest::newRow("real") << QVariant(0.1);
        QTest::newRow("bool") << QVariant(false);
        QTest::newRow("data") << QVariant(QByteArray("\0\1\2\xff", 4));
        QTest::newRow("date") << QVariant(QDateTime::fromMSecsSinceEpoch(-86400001, Qt::UTC));
        QTest::newRow("list") << QVariant(QVariantList{1, QStringLiteral("a"), QVariantList{}, QVariant()});
        QTest::newRow("dictionary") << QVariant(
            QVariantMap{{QStringLiteral("Name"), QStringLiteral("Ada")},
                        {QStringLiteral("n"), QVariantMap{{QStringLiteral("x"), 1.5}}}});
    }

    void valuesRoundTrip()
    {
        QFETCH(QVariant, value);
        const QVariant back = roundTrip(value);
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
        leaf->name = QStringLiteral("leaf");
        auto root = QSharedPointer<Node>::create();
        root->name = QStringLiteral("leaf"); // equal strings are stored once
        root->children = {leaf, leaf};
        const QByteArray archive = QKKeyedArchiver::archivedData(coded(root));
        // $null, root, "leaf", children array, leaf, its empty array, two class records.
        QCOMPARE(objectCount(archive), 8u);
        const auto back = QKKeyedUnarchiver::unarchivedObject(archive).value<QKCodingPtr>().dynamicCast<Node>();
        QVERIFY(back);
        QCOMPARE(back->children.size(), 2);
        QCOMPARE(back->children[0], back->children[1]); // one object, read once
        QCOMPARE(back->children[0]->name, QStringLiteral("leaf"));
        QCOMPARE(back->reserved, QStringLiteral("leaf"));
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
        QVERIFY(!QKKeyedArchiver::archiveRootObject(QVariant(QPointF()), QStringLiteral("/tmp/never-written"), &error));
        QVERIFY(error.contains(QStringLiteral("QPointF")));
        QVERIFY(!QFile::exists(QStringLiteral("/tmp/never-written")));
    }

    void sizeLimitHoldsBothWays()
    {
        const auto restore = qScopeGuard([] { QKKeyedArchiveUseMaxSize(0); });
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("a.plist"));
        const QVariant value = QVariantList{QString(300, QLatin1Char('x'))};
        const QByteArray data = QKKeyedArchiver::archivedData(value);
        QVERIFY(QKKeyedArchiver::archiveRootObject(QStringLiteral("old"), path));
        QKKeyedArchiveUseMaxSize(data.size() - 1);
        QString error;
        QVERIFY(!QKKeyedArchiver::archiveRootObject(value, path, &error));
        QVERIFY2(error.contains(QStringLiteral("more than an archive may hold")), qPrintable(error));
        QCOMPARE(QKKeyedUnarchiver::unarchiveObjectWithFile(path), QVariant(QStringLiteral("old")));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("a.plist")});
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedUnarchiver::unarchivedObject(data));

        QKKeyedArchiveUseMaxSize(data.size());
        QVERIFY(QKKeyedArchiver::archiveRootObject(value, path));
        QCOMPARE(QKKeyedUnarchiver::unarchiveObjectWithFile(path), value);
        QKKeyedArchiveUseMaxSize(data.size() - 1);
        QVERIFY_THROWS_EXCEPTION(QKArchiveException, QKKeyedUnarchiver::unarchiveObjectWithFile(path));
    }
};

QTEST_GUILESS_MAIN(TestKeyedArchive)
#include "tst_qkkeyedarchive.moc"
