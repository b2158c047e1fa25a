// The local source against real archive files in a temporary documents directory.

#include "base/QKDocumentsDirectory.h"
#include "base/QKKeyedArchiver.h"
#include "base/QKUnrecognizedSelectorException.h"
#include "data/QKLocalFeedbackSource.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

using Source = QKLocalFeedbackSource;
using Op = QKFeedbackDataSource::Operation;

QKFeedbackItemPtr makeItem(const QString &key, const QString &state, const QDateTime &createdAt = QDateTime(),
                           const QString &text = QString())
{
    auto item = QKFeedbackItem::create();
    item->setKey(key);
    item->setState(state);
    item->setCreatedAt(createdAt);
    item->setText(text.isNull() ? key : text);
    return item;
}

QDateTime day(int n)
{
    return QDateTime(QDate(2026, 1, n), QTime(12, 0), Qt::UTC);
}

// What an operation's completion delivered, and how often, by the time the call returned.
struct Result
{
    int calls = 0;
    std::optional<QKFeedbackItemList> items;
    std::optional<QKError> error;
};

template <class Call>
Result run(Call call)
{
    Result r;
    call([&](auto... results) {
        ++r.calls;
        if constexpr (sizeof...(results) == 2)
            std::tie(r.items, r.error) = std::tuple(results...);
        else
            r.error = (results, ...);
    });
    return r;
}

Result list(Source &source, const QString &state, qint64 skip = 0)
{
    return run([&](auto done) { source.feedbackItemsByState(state, skip, done); });
}

Result subItems(Source &source, const QString &key)
{
    return run([&](auto done) { source.subItemsForKey(key, done); });
}

QStringList texts(const std::optional<QKFeedbackItemList> &items)
{
    QStringList out;
    for (const auto &item : items.value_or(QKFeedbackItemList()))
        out.append(item->text());
    return out;
}

QByteArray fileBytes()
{
    QFile file(Source::archivePath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestLocalFeedbackSource : public QObject
{
    Q_OBJECT

    QTemporaryDir *m_dir = nullptr;

private slots:
    void init()
    {
        m_dir = new QTemporaryDir;
        QKSetDocumentsDirectory(m_dir->filePath("docs"));
    }
    void cleanup()
    {
        delete m_dir;
        QKSetDocumentsDirectory(QString());
    }

    void freshInstallThenKeptAcrossInstances()
    {
        {
            Source source;
            const Result r = list(source, QString());
            QCOMPARE(r.calls, 1);
            QVERIFY(!r.error);
            QVERIFY(r.items && r.items->isEmpty());
            QVERIFY(!QFile::exists(Source::archivePath())); // listing never writes
            QCOMPARE(run([&](auto done) { source.addFeedback(makeItem("k1", "Open", day(1)), done); }).calls, 1);
            QVERIFY(QFile::exists(Source::archivePath()));
            QCOMPARE(QFileInfo(Source::archivePath()).fileName(), "qkfeedback.plist");
            source.items().first()->setText("changed later"); // saved as the source goes
        }
        Source again;
        QCOMPARE(texts(list(again, QString()).items), QStringList{"changed later"});
        QCOMPARE(again.items().first()->createdAt(), day(1));
    }

    void filtersAndIgnoresSkip()
    {
        Source source;
        source.addFeedbackItems({makeItem("a", "Open"), makeItem("b", "Resolved"), makeItem("c", "Open"),
                                 makeItem("d", "open"), makeItem("e", QString())},
                                [](auto error) { QVERIFY(!error); });
        QCOMPARE(texts(list(source, QStringLiteral("Open")).items), (QStringList{"a", "c"}));
        QCOMPARE(texts(list(source, "Open", 20).items), (QStringList{"a", "c"}));
        QCOMPARE(texts(list(source, "Resolved", 1).items), (QStringList{"b"}));
        QCOMPARE(texts(list(source, QString(), 3).items), (QStringList{"a", "b", "c", "d", "e"}));
        QCOMPARE(list(source, QStringLiteral("Closed")).items->size(), 0);
        // The two-argument form is skip 0.
        Result r;
        source.feedbackItemsByState(QStringLiteral("Open"), [&](auto items, auto) { r.items = items; });
        QCOMPARE(texts(r.items), (QStringList{"a", "c"}));
    }

    // An edit changes the first match only; a delete is confirmed and keeps the item.
    void editAndDelete()
    {
        Source source;
        auto first = makeItem("dup", "Open", QDateTime(), "first");
        auto second = makeItem("dup", "Open", QDateTime(), "second");
        source.addFeedbackItems({first, second}, [](auto) {});
        const Result edited =
            run([&](auto done) { source.editWithKey(QStringLiteral("dup"), QStringLiteral("Resolved"), done); });
        QCOMPARE(edited.calls, 1);
        QVERIFY(!edited.error);
        QCOMPARE(first->state(), "Resolved");
        QCOMPARE(second->state(), "Open");
        const Result deleted = run([&](auto done) { source.deleteWithKey(QStringLiteral("dup"), done); });
        QCOMPARE(deleted.calls, 1);
        QVERIFY(!deleted.error);
        QCOMPARE(list(source, QString()).items->size(), 2);
        Source reloaded;
        QCOMPARE(texts(list(reloaded, "Resolved").items), QStringList{"first"});
        QCOMPARE(reloaded.items().size(), 2);
    }

    void notFoundErrors()
    {
        Source source;
        const QKError expected{"Not Found FeedbackItem", 1, {}};
        // An empty list, then an unknown key, an item without a key, and a null key.
        QCOMPARE(run([&](auto done) { source.deleteWithKey(QStringLiteral("x"), done); }).error, expected);
        source.addFeedbackItems({makeItem("k", "Open"), makeItem(QString(), "Open", QDateTime(), "keyless")},
                                [](auto) {});
        QCOMPARE(run([&](auto done) { source.editWithKey(QStringLiteral("x"), QStringLiteral("Open"), done); }).error,
                 expected);
        QCOMPARE(run([&](auto done) { source.deleteWithKey(QString(), done); }).error, expected);
        // An item without a key does not match the empty key either.
        QCOMPARE(run([&](auto done) { source.deleteWithKey(QStringLiteral(""), done); }).error, expected);
        QCOMPARE(run([&](auto done) { source.editWithKey(QString(), QStringLiteral("Resolved"), done); }).error,
                 expected);
        QCOMPARE(source.items().last()->state(), "Open");
        const Result r = subItems(source, "x");
        QCOMPARE(r.calls, 1);
        QVERIFY(!r.items);
        QCOMPARE(r.error, expected);
        QCOMPARE(Source::notFoundError().userInfo().size(), 0);
        // The keyless item is still listed.
        QCOMPARE(texts(list(source, QString()).items), (QStringList{"k", "keyless"}));
    }

    void subItemsReadRewritesFile()
    {
        {
            Source source;
            auto item = makeItem("k", "Open");
            source.addFeedback(item, [](auto) {});
            // A comment added to the stored item directly is kept by the next write.
            auto comment = makeItem(QString(), QString(), day(3), "comment");
            item->addSubItem(comment);
            const Result r = subItems(source, "k");
            QCOMPARE(r.calls, 1);
            QVERIFY(!r.error);
            QCOMPARE(r.items->size(), 1);
            QCOMPARE(r.items->first(), comment); // the same shared record
            QFile::remove(Source::archivePath());
            subItems(source, "k");
            QVERIFY(QFile::exists(Source::archivePath()));
        }
        Source reloaded;
        QCOMPARE(texts(subItems(reloaded, QStringLiteral("k")).items), QStringList{"comment"});
    }

    void sortsNewestFirstOnLoad()
    {
        {
            Source source;
            source.addFeedbackItems({makeItem("u1", "Open"), makeItem("old", "Open", day(1)), makeItem("u2", "Open"),
                                     makeItem("new", "Open", day(9)), makeItem("mid", "Open", day(5))},
                                    [](auto) {});
            // Within the run, in the order added.
            QCOMPARE(texts(list(source, QString()).items), (QStringList{"u1", "old", "u2", "new", "mid"}));
        }
        Source reloaded;
        QCOMPARE(texts(list(reloaded, QString()).items), (QStringList{"new", "mid", "old", "u1", "u2"}));
        reloaded.addFeedback(makeItem("newest", "Open", day(20)), [](auto) {});
        QCOMPARE(texts(list(reloaded, QString()).items).last(), "newest");
    }

    void optionalOperations()
    {
        Source source;
        QVERIFY(source.implements(Op::FeedbackItemsByStateSkip));
        QVERIFY(source.implements(Op::SubItemsForKey));
        QVERIFY(!source.implements(Op::ImageForKey));
        QVERIFY(!source.implements(Op::AddSubItemForKey));
        QVERIFY(!source.implements(Op::UserEmail));
        try {
            source.imageForKey("k", [](QImage, auto) { QFAIL("completion called"); });
            QFAIL("no exception");
        } catch (const QKUnrecognizedSelectorException &e) {
            QCOMPARE(e.selector(), "imageForKey:completionHandler:");
            QVERIFY(e.reason().startsWith("-[QKLocalFeedbackSource imageForKey:completionHandler:]"));
        }
        QVERIFY_THROWS_EXCEPTION(QKUnrecognizedSelectorException,
                                 source.addSubItemForKey("k", makeItem("c", "Open"), [](auto) {}));
        QVERIFY_THROWS_EXCEPTION(QKUnrecognizedSelectorException, source.userEmail());
        source.setUserName("Ada");
        source.addFeedback(makeItem("k", "Open"), [](auto) {});
        QVERIFY(!fileBytes().contains("Ada")); // the name is never stored
    }

    // A file the reader refuses is moved aside, never lost, and never stops the host:
    // the list starts empty and saving works at once. The same for a later reload.
    void damagedFileIsSetAside()
    {
        const QRegularExpression asideName("^qkfeedback\\.plist\\.damaged-\\d{8}T\\d{6}Z(-\\d+)?$");
        const auto writeFile = [](const QByteArray &bytes) {
            QFile file(Source::archivePath());
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(bytes);
        };
        const auto warned = [] { QTest::ignoreMessage(QtWarningMsg, QRegularExpression("damaged .* moved to")); };
        QDir().mkpath(QFileInfo(Source::archivePath()).path());
        QStringList seen;
        for (int round = 0; round < 2; ++round) { // the second in the same second gets its own name
            const QByteArray garbage = "not an archive, round " + QByteArray::number(round);
            writeFile(garbage);
            warned();
            Source source;
            QVERIFY(source.items().isEmpty());
            QVERIFY(source.damagedArchive());
            const QString movedTo = source.damagedArchive()->movedTo;
            QVERIFY2(asideName.match(QFileInfo(movedTo).fileName()).hasMatch(), qPrintable(movedTo));
            QCOMPARE(QFileInfo(movedTo).path(), QFileInfo(Source::archivePath()).path());
            QVERIFY(!source.damagedArchive()->reason.isEmpty());
            QFile aside(movedTo);
            QVERIFY(aside.open(QIODevice::ReadOnly));
            QCOMPARE(aside.readAll(), garbage);
            QVERIFY(!seen.contains(movedTo));
            seen << movedTo;
            source.addFeedbackItems({makeItem("k", "Open"), QKFeedbackItemPtr()}, [](auto) {});
            source.addFeedback(QKFeedbackItemPtr(), [](auto) {}); // never stored as a nil the next load refuses
            Source reread;
            QCOMPARE(reread.items().size(), 1);
            QVERIFY(!reread.damagedArchive());
        }
        for (const QString &path : seen) // never overwritten
            QVERIFY(QFileInfo::exists(path));

        // A valid archive whose root is not a list of items. A second load finding no
        // file keeps the report (the shared source loads twice).
        QVERIFY(QKKeyedArchiver::archiveRootObject(QVariantMap{{"Name", "x"}}, Source::archivePath()));
        warned();
        Source source;
        source.loadData();
        QVERIFY(source.damagedArchive());
        QVERIFY2(source.damagedArchive()->reason.contains("not an array of items"),
                 qPrintable(source.damagedArchive()->reason));

        // A reload that fails: the file goes aside, the list empties, and the next change is saved.
        source.addFeedback(makeItem("k", "Open"), [](auto) {});
        writeFile("garbage");
        warned();
        source.loadData();
        QVERIFY(source.items().isEmpty());
        QVERIFY(source.damagedArchive() && QFileInfo::exists(source.damagedArchive()->movedTo));
        source.addFeedback(makeItem("k2", "Open"), [](auto) {});
        QCOMPARE(Source().items().size(), 1);
    }

    void sharedInstance()
    {
        Source seed;
        seed.addFeedback(makeItem("k", "Open"), [](auto) {});
        const auto shared = Source::sharedItems();
        QCOMPARE(shared, Source::sharedItems());
        QCOMPARE(shared->items().size(), 1); // read twice, listed once
    }
};

QTEST_MAIN(TestLocalFeedbackSource)
#include "tst_qklocalfeedbacksource.moc"
