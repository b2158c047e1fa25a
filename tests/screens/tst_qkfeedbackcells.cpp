// The item list's and the details screen's cells: their layout from their own width,
// their texts, and the row heights the screens give them.

#include "kit/QKDateFormatter.h"
#include "kit/QKFont.h"
#include "kit/QKTextMetrics.h"
#include "screens/QKFeedbackIndicatorTableViewCell.h"
#include "screens/QKFeedbackItemCommentTableViewCell.h"
#include "screens/QKFeedbackItemImageTableViewCell.h"
#include "screens/QKFeedbackItemTableViewCell.h"
#include "screens/QKFeedbackYourItemsTableViewCell.h"

#include <QApplication>
#include <QtTest>

#include <cfloat>

static const QDateTime sentAt(QDate(2026, 11, 21), QTime(20, 34));
static const QString sentAtText = QStringLiteral("Nov 21, 2026, 8:34 PM");
static const QString longText =
    QStringLiteral("The send button stays grey after I type a comment, and rotating the phone makes the "
                   "screenshot jump to the top left corner of the screen.");

static QKFeedbackItemPtr makeItem(const QString &text, const QString &state = QStringLiteral("Open"),
                                  const QString &author = QString())
{
    auto item = QKFeedbackItem::create();
    item->setText(text);
    item->setState(state);
    item->setAuthor(author);
    item->setCreatedAt(sentAt);
    return item;
}

static qreal lineHeight(qreal size)
{
    return QKTextMetrics::lineHeight(QKFont::system(size));
}

static qreal wrappedHeight(const QString &text, const QFont &font, qreal width)
{
    return QKTextMetrics::boundingRect(text, font, QSizeF(width, FLT_MAX)).height();
}

// Sizes the cell to its row, then fills it as the table does for a reused cell.
template <typename Cell>
static void show(Cell &cell, const QKFeedbackItemPtr &item, qreal height)
{
    cell.setFrame(QRectF(0, 0, 320, height));
    cell.initWithItem(item);
    cell.layoutIfNeeded();
}

class TestFeedbackCells : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QKDateFormatter::setLocaleForTesting(QStringLiteral("en_US")); }
    void cleanupTestCase() { QKDateFormatter::setLocaleForTesting(QString()); }

    void itemCellLaysOutDateStateAndText_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("state");
        QTest::newRow("one line") << QStringLiteral("Crash on login") << QStringLiteral("Open");
        QTest::newRow("wrapped") << longText << QStringLiteral("Resolved");
        QTest::newRow("nil text") << QString() << QStringLiteral("Open");
        QTest::newRow("long state") << QStringLiteral("Crash")
                                    << QStringLiteral("Waiting for the next release").repeated(3);
    }
    void itemCellLaysOutDateStateAndText()
    {
        QFETCH(QString, text);
        QFETCH(QString, state);
        const QKFeedbackItemPtr item = makeItem(text, state);
        QKFeedbackItemTableViewCell cell;
        const qreal row = QKFeedbackItemTableViewCell::heightForItem(item, 320, 480);
        show(cell, item, row);

        QCOMPARE(cell.dateLabel()->text(), sentAtText);
        QCOMPARE(cell.stateLabel()->text(), state);
        QCOMPARE(cell.titleLabel()->text().isNull(), text.isNull());
        const QFont font = QKTextMetrics::defaultFont();
        const qreal dw = QKTextMetrics::sizeWithFont(sentAtText, font).width();
        const qreal dh = QKTextMetrics::lineHeight(font);
        const qreal h =
            text.isNull() ? 0 : wrappedHeight(text, QKFont::named(QStringLiteral("HelveticaNeue"), 16.5), 300);
        QVERIFY(text != longText || h > 2 * dh);
        QVERIFY(state.size() < 10 || QKTextMetrics::sizeWithFont(state, font).width() > 300 - dw);
        QCOMPARE(cell.dateLabel()->frame(), QRectF(10, 5, dw, dh));
        // The state fills the rest of the date's line up to 10 points from the edge, however long.
        QCOMPARE(cell.stateLabel()->frame(), QRectF(dw + 10, 5, 300 - dw, dh));
        QCOMPARE(cell.titleLabel()->frame(), QRectF(11, dh + 10, 300, h));
        QCOMPARE(row, cell.titleLabel()->frame().bottom() + 10);
    }

    void commentCellLaysOutAuthorTextDateAndHairline_data()
    {
        QTest::addColumn<QString>("author");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("shownAuthor");
        QTest::newRow("named") << QStringLiteral("Ada") << QStringLiteral("Fixed in 2.1") << QStringLiteral("Ada");
        QTest::newRow("empty author") << QStringLiteral("") << longText << QStringLiteral("Anonymous");
        QTest::newRow("missing author") << QString() << QStringLiteral("Thanks!") << QStringLiteral("Anonymous");
        QTest::newRow("nil text") << QStringLiteral("Ada") << QString() << QStringLiteral("Ada");
    }
    void commentCellLaysOutAuthorTextDateAndHairline()
    {
        QFETCH(QString, author);
        QFETCH(QString, text);
        QFETCH(QString, shownAuthor);
        const QKFeedbackItemPtr parent = makeItem(QStringLiteral("The parent item"));
        const QKFeedbackItemPtr comment = makeItem(text, QString(), author);
        QKFeedbackItemCommentTableViewCell cell;
        const qreal row = QKFeedbackItemCommentTableViewCell::heightForComment(parent, comment, 320);
        show(cell, comment, row);

        QCOMPARE(cell.authorLabel()->text(), shownAuthor);
        QCOMPARE(cell.dateLabel()->text(), sentAtText);
        const qreal a = lineHeight(14);
        const qreal h = text.isNull() ? 0 : wrappedHeight(text, QKFont::system(14), 310);
        QCOMPARE(cell.authorLabel()->frame(), QRectF(10, 5, 310, a));
        QCOMPARE(cell.titleLabel()->frame(), QRectF(10, a + 2, 310, h + 10));
        QCOMPARE(cell.dateLabel()->frame(), QRectF(10, a + h + 10, 310, a));
        QCOMPARE(cell.lineView()->frame(), QRectF(10, 2 * a + h + 9.5, 300, 0.5));
        // The hairline is the row's last half point.
        QCOMPARE(row, cell.lineView()->frame().bottom());
    }

    void imageCellFitsThePictureBetweenMargins_data()
    {
        QTest::addColumn<QImage>("picture");
        QTest::addColumn<qreal>("row");
        QImage retina(600, 300, QImage::Format_RGB32);
        retina.setDevicePixelRatio(2);
        QTest::newRow("portrait") << QImage(1000, 2000, QImage::Format_RGB32) << 600.0;
        QTest::newRow("measured in points") << retina << 180.0;
        QTest::newRow("zero size") << QImage(0, 0, QImage::Format_RGB32) << 0.0;
        QTest::newRow("none") << QImage() << 0.0;
    }
    void imageCellFitsThePictureBetweenMargins()
    {
        QFETCH(QImage, picture);
        QFETCH(qreal, row);
        QCOMPARE(QKFeedbackItemImageTableViewCell::heightForImage(picture, 320), row);

        QKFeedbackItemImageTableViewCell cell;
        cell.setFrame(QRectF(0, 0, 320, qMax<qreal>(row, 44)));
        const QRectF before(1, 2, 3, 4);
        cell.image()->setFrame(before);
        cell.image()->setImage(picture);
        cell.setNeedsLayout();
        cell.layoutIfNeeded();
        if (row == 0)
            QCOMPARE(cell.image()->frame(), before);
        else
            QCOMPARE(cell.image()->frame(), QRectF(20, 20, 280, row - 40));
    }

    void listCellShowsCommentCountAndState_data()
    {
        QTest::addColumn<QVariantMap>("params");
        QTest::addColumn<int>("subItems");
        QTest::addColumn<QString>("count");
        const QString key = QStringLiteral("CommentsCount");
        // The count itself is the list model's (tests/models); here its line and its place.
        QTest::newRow("missing") << QVariantMap() << 0 << QStringLiteral("0 comments ");
        QTest::newRow("5") << QVariantMap{{key, 5}} << 0 << QStringLiteral("4 comments ");
        QTest::newRow("nil sub-items") << QVariantMap{{key, 3}} << -1 << QStringLiteral("2 comments ");
        QTest::newRow("loaded") << QVariantMap{{key, 5}} << 2 << QStringLiteral("2 comments <QKFeedbackItem: 0x%1>");
        QTest::newRow("nil text") << QVariantMap() << 0 << QStringLiteral("0 comments ");
    }
    void listCellShowsCommentCountAndState()
    {
        QFETCH(QVariantMap, params);
        QFETCH(int, subItems);
        QFETCH(QString, count);
        const QString text = qstrcmp(QTest::currentDataTag(), "nil text") == 0 ? QString() : longText;
        const QKFeedbackItemPtr item = makeItem(text, QStringLiteral("Resolved"));
        item->setParams(params);
        if (subItems < 0)
            item->subItems() = std::nullopt;
        for (int i = 0; i < subItems; ++i)
            item->addSubItem(makeItem(QStringLiteral("Comment %1").arg(i)));
        if (subItems > 0)
            count = count.arg(QString::number(quintptr(item->subItems()->constLast().data()), 16));
        QKFeedbackYourItemsTableViewCell cell;
        const qreal row = QKFeedbackYourItemsTableViewCell::heightForItem(item, 320);
        show(cell, item, row);

        QCOMPARE(cell.commentLabel()->text(), count);
        QCOMPARE(cell.dateLabel()->text(), sentAtText);
        QCOMPARE(cell.titleLabel()->text(), text);
        QCOMPARE(cell.stateLabel()->text(), QStringLiteral("Resolved"));
        const qreal a = lineHeight(15);
        const qreal b = lineHeight(12);
        const qreal h = text.isNull() ? 0 : wrappedHeight(text, QKFont::system(12), 300);
        const qreal fitted = QKTextMetrics::sizeWithFont(count, QKFont::system(12)).width();
        QCOMPARE(cell.dateLabel()->frame(), QRectF(10, 7, 310, a));
        QCOMPARE(cell.titleLabel()->frame(), QRectF(10, a + 7, 310, h));
        QCOMPARE(cell.commentLabel()->frame(), QRectF(10, a + 7 + h, fitted, b));
        // The state shares the comment line and ends 10 points from the edge.
        QCOMPARE(cell.stateLabel()->frame(), QRectF(fitted + 10, a + 7 + h, 300 - fitted, b));
        QCOMPARE(row, cell.commentLabel()->frame().bottom() + 7);
    }

    void cellsDoNotKeepTheirItems()
    {
        QKFeedbackItemTableViewCell itemCell;
        QKFeedbackItemCommentTableViewCell commentCell;
        QKFeedbackYourItemsTableViewCell listCell;
        {
            const QKFeedbackItemPtr item = makeItem(longText);
            show(itemCell, item, 200);
            show(commentCell, item, 200);
            show(listCell, item, 200);
            QCOMPARE(itemCell.feedbackItem(), item);
            QCOMPARE(commentCell.feedbackItem(), item);
            QCOMPARE(listCell.item(), item);
        }
        QVERIFY(!itemCell.feedbackItem() && !commentCell.feedbackItem() && !listCell.item());
        // Laid out again without the item: the text's measure falls to nothing.
        itemCell.setFrame(QRectF(0, 0, 300, 200));
        commentCell.setFrame(QRectF(0, 0, 300, 200));
        listCell.setFrame(QRectF(0, 0, 300, 200));
        QCOMPARE(itemCell.titleLabel()->frame().height(), 0.0);
        QCOMPARE(commentCell.titleLabel()->frame().height(), 10.0);
        QCOMPARE(listCell.titleLabel()->frame().height(), 0.0);
    }

    void reusedItemCellFitsALongerDate()
    {
        QKFeedbackItemTableViewCell cell;
        const QKFeedbackItemPtr early = makeItem(QStringLiteral("A"));
        early->setCreatedAt(QDateTime(QDate(2026, 5, 1), QTime(1, 2)));
        const QKFeedbackItemPtr late = makeItem(QStringLiteral("B"));
        show(cell, early, 80);
        show(cell, late, 80);
        QCOMPARE(cell.dateLabel()->frame().width(),
                 QKTextMetrics::sizeWithFont(sentAtText, QKTextMetrics::defaultFont()).width());
        QVERIFY(cell.dateLabel()->frame().width() >
                QKTextMetrics::sizeWithFont(QKDateFormatter::mediumDateShortTime(early->createdAt()),
                                            QKTextMetrics::defaultFont())
                    .width());
    }

    void indicatorSpinsInTheMiddle()
    {
        QKFeedbackIndicatorTableViewCell cell;
        cell.setFrame(QRectF(0, 0, 320, 60));
        QCOMPARE(cell.activityIndicator()->center(), QPointF(160, 30));
    }
};

QTEST_MAIN(TestFeedbackCells)

#include "tst_qkfeedbackcells.moc"
